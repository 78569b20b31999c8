#pragma once

#include "mds/market_source.h"
#include "mds/message_assembler.h"
#include "mds/problem_log.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace ps_ns
{

/// One pass over several files: their messages in the order of time; of messages at the same time, the file named
/// first comes first. Holds one message of each file.
///
/// Threads: one at a time.
class ReplayMerger
{
public:
    struct File
    {
        std::string path;
        std::int64_t shift_ns = 0; ///< added to receive times to make the replay's time line
    };

    /// Throws std::runtime_error, naming the path, when a file cannot be opened. `names` must outlive the merger.
    ReplayMerger(const std::vector<File>& files, const InstrumentNames& names, const ProblemSink& sink);
    ~ReplayMerger();

    /// True at the end.
    bool IsEmpty() const noexcept { return m_heap.empty(); }

    /// When the next message is due; not to be called at the end.
    std::uint64_t PeekTime_ns() const;

    /// The next message, by exchange of the buffers; false at the end. Leaves `epoch` alone.
    bool Next(MarketMessage& message);

private:
    struct Stream;
    void Advance(std::size_t stream);
    bool IsLater(std::size_t a, std::size_t b) const;

    std::vector<std::unique_ptr<Stream>> m_streams;
    std::vector<std::size_t> m_heap; ///< streams that have a message, the earliest in front
};

} // namespace ps_ns
