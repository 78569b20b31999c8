#pragma once

#include "mds/problem_log.h"

#include <array>
#include <cstddef>
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

/// Reads rows, line after line. The rows of one venue message begin alike, with its times and names: what begins as the
/// good row before it has that part taken over. Allocates nothing.
///
/// Threads: one at a time.
class RowParser
{
public:
    /// Reads one line, without its end. Returns ProblemKind::None and fills `row`, or what is wrong with the line;
    /// `row` is then not to be used.
    ProblemKind Parse(std::string_view line, RecordingRow& row) noexcept;

private:
    struct Head
    {
        std::uint64_t receiveTime_ns = 0;
        std::uint64_t exchangeTime_ns = 0;
        std::size_t marketAt = 0;
        std::size_t symbolAt = 0;
        std::size_t size = 0; ///< with the comma behind the symbol; 0: there is none
    };

    bool BeginsAsBefore(std::string_view line) const noexcept;
    static bool SplitHead(std::string_view line, Head& head) noexcept;
    static bool ParseTimes(std::string_view line, Head& head) noexcept;
    void Remember(std::string_view line, const Head& head) noexcept;

    static constexpr std::size_t kLongestHead = 128; ///< longer ones are read each time
    std::array<char, kLongestHead> m_text{};
    Head m_head; ///< of the last good row
};

} // namespace ps_ns
