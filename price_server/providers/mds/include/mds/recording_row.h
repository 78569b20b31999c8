#pragma once

#include "mds/problem_log.h"

#include <cstdint>
#include <string_view>

namespace ps_ns
{

/// The one header line of a recording.
inline constexpr std::string_view kRecordingHeader = "ts_ns,exch_ms,market,symbol,event,side,level,price,qty,seq,last";

enum class RowEvent : std::uint8_t
{
    Snap, ///< a level of a full image
    Book, ///< the whole quantity now at a price
    Trade
};

/// One row of a recording. The texts point into the reader's buffer and hold until its next row. Units: fixed_point.h.
struct RecordingRow
{
    std::uint64_t receiveTime_ns = 0;
    std::uint64_t exchangeTime_ns = 0; ///< 0: the venue gave none
    std::string_view instrument;       ///< "market,symbol", as it stands in the row: what instruments are found by
    std::string_view market;
    std::string_view symbol;
    std::int64_t price = 0;
    std::int64_t quantity = 0;
    std::uint64_t venueSequence = 0; ///< update id or trade id; 0: none
    unsigned priceDecimals = 0;      ///< digits behind the point of the price
    RowEvent event = RowEvent::Book;
    char side = 0; ///< 'B', 'S', or 0 for a trade whose aggressor is not known
    bool isLast = false;
};

/// Reads one line, without its end. Returns ProblemKind::None and fills `row`, or what is wrong with the line; `row` is
/// then not to be used. Allocates nothing.
ProblemKind ParseRow(std::string_view line, RecordingRow& row) noexcept;

} // namespace ps_ns
