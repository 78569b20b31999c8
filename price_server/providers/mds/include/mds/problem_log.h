#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace zel::logging
{
class Source;
}

namespace ps_ns
{

/// The source of this room's log records.
const std::shared_ptr<const zel::logging::Source>& MdsLogSource();

/// What can be wrong with a recording.
enum class ProblemKind : std::uint8_t
{
    None,
    FieldCount,        ///< not the header's number of fields
    BadNumber,         ///< a number that is none, or is negative where that has no meaning
    OutOfRange,        ///< a price or quantity that its fixed point cannot hold exactly
    UnknownEvent,      ///< neither snap, book nor trade
    UnknownSide,       ///< neither B nor S where a side is needed
    LevelOutsideImage, ///< a level on a row that is not part of an image
    NoName,            ///< the market or the symbol is empty
    TimeBackwards,     ///< received before the row above it
    TimeAhead,         ///< received long after the row before it and also after the row below it
    LineTooLong,
    CutMessage,    ///< a message that ended without its last row; what there is of it counts
    UnknownMarket, ///< not in the market table
    BadHeader,
    Unreadable, ///< the file, or the frame, ends early or is damaged
    kCount
};

/// Where the text of a problem goes: the log, level 30, unless a test wants it.
using ProblemSink = std::function<void(const std::string& text)>;

ProblemSink LogProblems();
/// For a second pass over what has been reported already: problems are counted only.
ProblemSink KeepSilent();

/// The problems of one file: counts all of them, and writes out the first few of each kind.
///
/// Threads: one at a time.
class ProblemLog
{
public:
    static constexpr std::uint64_t kWrittenOfAKind = 20;

    ProblemLog(std::string file, ProblemSink sink);

    /// `line` counts from 1; 0: the whole file. `what` is quoted up to a bounded length, unprintable bytes as '?'.
    void Report(ProblemKind kind, std::uint64_t line, std::string_view what);

    /// Writes, for every kind that had more than were written, how many there were. Once, at the end of the file.
    void Summarise();

    std::uint64_t GetCount(ProblemKind kind) const { return m_counts[static_cast<std::size_t>(kind)]; }
    std::uint64_t GetTotal() const;
    const std::string& GetFile() const noexcept { return m_file; }

private:
    const std::string m_file;
    const ProblemSink m_sink;
    std::array<std::uint64_t, static_cast<std::size_t>(ProblemKind::kCount)> m_counts{};
};

} // namespace ps_ns
