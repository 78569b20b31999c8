#pragma once

#include "mds/byte_stream.h"
#include "mds/problem_log.h"
#include "mds/recording_row.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace ps_ns
{

/// The rows of one recorded file (.csv or .csv.zst), one after the other, through fixed buffers: a file of any size is
/// read in the same memory, and no row allocates.
///
/// Failure: a row that is malformed, or older than the one before it, is reported and skipped. So is one whose time
/// leaps ahead while the row below does not: one wrong time must not make all that follows look old. Should it come to
/// that, a few old rows in order are believed, and time goes on from there. A damaged or truncated file is reported,
/// and ends there; the rows before are good, and half a row at the break is dropped.
///
/// Threads: one at a time.
class RecordingReader
{
public:
    /// Longer lines are skipped and reported.
    static constexpr std::size_t kBufferSize = 256 * 1024;

    /// A larger step forward is looked at twice.
    static constexpr std::uint64_t kLeap_ns = 1'000'000'000;
    /// So many rows in a row that are old, but in order among themselves, are right, and what made them look old was
    /// wrong.
    static constexpr unsigned kOldRowsBelieved = 5;

    /// Throws std::runtime_error, naming the path, when the file cannot be opened. `problems` must outlive the reader.
    RecordingReader(const std::string& path, ProblemLog& problems);

    /// The next good row; false at the end. What `row` points to holds until the next call.
    bool Next(RecordingRow& row);

    /// The next row if it is known to be good and alike to the row handed out last, of which only a change of a book
    /// differs: most rows are. False: it is another, or cannot be told; Next hands it out.
    bool NextAlike(AlikeRow& row);

    /// Reads the header unless that has been done; false: it is not a recording's, or there is none. Next does this.
    bool ReadHeader();

    /// The line read last, from 1.
    std::uint64_t GetLine() const noexcept { return m_line; }

private:
    bool NextLine(std::string_view& line);
    ProblemKind CheckOldTime(std::uint64_t time_ns);
    ProblemKind CheckTime(std::string_view& line, RecordingRow& row);
    std::uint64_t PeekNextTime(std::string_view& line);
    bool Refill();
    bool TakeLastLine(std::string_view& line);
    void SkipLongLine();

    enum class Header
    {
        Unread,
        Good,
        Bad
    };

    const std::unique_ptr<ByteStream> m_stream;
    ProblemLog& m_problems;
    RowParser m_parser;
    std::vector<char> m_buffer;
    std::size_t m_begin = 0;   ///< of what has not been handed out
    std::size_t m_scanned = 0; ///< no end of line lies before this
    std::size_t m_end = 0;     ///< of what has been read
    std::uint64_t m_line = 0;
    std::uint64_t m_time_ns = 0;    ///< of the last good row
    std::uint64_t m_oldTime_ns = 0; ///< of the last row that was skipped for its age
    unsigned m_oldRows = 0;         ///< skipped since the last good row, and in order
    Header m_header = Header::Unread;
    bool m_isAtEnd = false;
};

} // namespace ps_ns
