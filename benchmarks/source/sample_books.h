#pragma once

#include "composite_price/fixed_point.h"
#include "simple_subscription/book_update.h"

#include <cstdint>

namespace compare
{

constexpr std::uint32_t kLevels = 10;

/// A book of ten levels a side; every second level of books whose `offset` differs by one meets. `turn` moves the
/// quantities and a few prices, so that no two turns merge along the same path.
inline ps_ns::BookUpdate MakeImage(std::int64_t offset, std::int64_t turn)
{
    constexpr std::int64_t kTick = ps_ns::kPriceUnitsPerOne / 100;
    ps_ns::BookUpdate image;
    image.isImage = true;
    for (std::int64_t i = 0; i < std::int64_t{kLevels}; ++i)
    {
        const std::int64_t step = (2 * i + (i % 2) * offset + (i * 7 + turn) % 3) * kTick;
        const std::int64_t quantity = ps_ns::kQuantityUnitsPerOne * (1 + (i + turn) % 50);
        image.changes.push_back({100 * ps_ns::kPriceUnitsPerOne - step, quantity, 1, ps_ns::BookSideType::Bid});
        image.changes.push_back({101 * ps_ns::kPriceUnitsPerOne + step, quantity, 1, ps_ns::BookSideType::Ask});
    }
    return image;
}

} // namespace compare
