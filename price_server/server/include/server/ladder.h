#pragma once

#include "composite_instrument/price_format.h"
#include "composite_price/merged_order_book.h"
#include "composite_price/trade.h"

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace ps_ns
{

/// What a ladder shows of one instrument.
struct LadderView
{
    std::string name;
    PriceFormat format;                          ///< says how many decimals prices have at least
    std::shared_ptr<const MergedOrderBook> book; ///< null: none yet
    std::optional<Trade> lastTrade;
};

/// In characters.
struct ScreenSize
{
    std::size_t columns = 80;
    std::size_t rows = 24;
};

/// The merged books as ladders, beside each other where there is room: bids left, asks right, best level on top; direct
/// and implied quantity apart; order counts when any is known; the last trade; components that are stale or missing.
/// Numbers of a column have the same decimals, and all their digits.
///
/// What does not fit the screen is left out in this order: order counts; the two quantities apart (their sum stays);
/// quantities. Lower levels give way when there are too few rows. `footer` is the last line.
///
/// Returns the lines of the screen without line breaks: at most size.rows, none wider than size.columns. With
/// `hasColors` they contain escape sequences, which take no room.
std::vector<std::string> RenderLadders(const std::vector<LadderView>& views, const std::string& footer,
                                       const ScreenSize& size, bool hasColors);

} // namespace ps_ns
