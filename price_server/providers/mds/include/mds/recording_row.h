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
    bool isAlike = false; ///< times, names and venue sequence are those of the good row before, and need no look
};

/// What a row that is alike to the good row before it says that that one did not: all the rest is the same.
struct AlikeRow
{
    std::int64_t price = 0;
    std::int64_t quantity = 0;
    unsigned priceDecimals = 0; ///< digits behind the point of the price
    char side = 0;              ///< 'B' or 'S'
    bool isLast = false;
};

/// Reads rows, line after line. The rows of one venue message begin alike, with its times and names, and end alike,
/// with its sequence: what is as in the good row before is compared, and not read again. Allocates nothing.
///
/// Threads: one at a time.
class RowParser
{
public:
    /// Reads one line, without its end. Returns ProblemKind::None and fills `row`, or what is wrong with the line;
    /// `row` is then not to be used.
    ProblemKind Parse(std::string_view line, RecordingRow& row) noexcept;

    /// How many characters must be readable for ParseAlike.
    static constexpr std::size_t kLookAhead = 256;

    /// Reads the line that begins at `at` if it is a change of a book that has its times, names and sequence from the
    /// good row before, short numbers, and ends with a line feed: most rows are, and are read in one go here. Returns
    /// where the next line begins; null for any other line, good or not, which is Parse's; `row` is then as it was.
    const char* ParseAlike(const char* at, AlikeRow& row) const noexcept;
    /// The whole of such a row, which began at `at`.
    void Complete(const char* at, const AlikeRow& alike, RecordingRow& row) const noexcept;

    /// The time of the good row before.
    std::uint64_t GetReceiveTime_ns() const noexcept { return m_head.receiveTime_ns; }

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
    void RememberTail(std::string_view line, std::uint64_t venueSequence) noexcept;

    static constexpr std::size_t kLongestHead = 128; ///< longer ones are read each time
    std::array<char, kLongestHead> m_text{};
    Head m_head; ///< of the last good row

    /// From the sequence of the last good row to the comma behind it, in words whose unused bytes are masked out.
    static constexpr std::size_t kTailWords = 3;
    std::array<std::uint64_t, kTailWords> m_tail{};
    std::array<std::uint64_t, kTailWords> m_tailMask{};
    std::size_t m_tailSize = 0; ///< 0: there is none that could be compared
    std::uint64_t m_venueSequence = 0;
};

} // namespace ps_ns
