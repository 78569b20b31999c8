#include "mds/replay_merger.h"

#include <algorithm>
#include <tuple>
#include <utility>

namespace ps_ns
{

struct ReplayMerger::Stream
{
    Stream(const File& file, const InstrumentNames& names, const ProblemSink& sink)
        : problems(file.path, sink)
        , reader(file.path, problems)
        , assembler(reader, names, problems)
        , shift_ns(static_cast<std::uint64_t>(file.shift_ns))
    {
    }

    ProblemLog problems;
    RecordingReader reader;
    MessageAssembler assembler;
    const std::uint64_t shift_ns; ///< modulo 2^64
    MarketMessage message;
};

ReplayMerger::ReplayMerger(const std::vector<File>& files, const InstrumentNames& names, const ProblemSink& sink)
{
    for (const File& file : files)
    {
        m_streams.push_back(std::make_unique<Stream>(file, names, sink));
        Advance(m_streams.size() - 1);
    }
}

ReplayMerger::~ReplayMerger() = default;

std::uint64_t ReplayMerger::PeekTime_ns() const
{
    return m_streams[m_heap.front()]->message.sourceTime_ns;
}

bool ReplayMerger::Next(MarketMessage& message)
{
    if (m_heap.empty())
    {
        return false;
    }
    std::pop_heap(m_heap.begin(), m_heap.end(), [this](std::size_t a, std::size_t b) { return IsLater(a, b); });
    const std::size_t stream = m_heap.back();
    m_heap.pop_back();
    const std::uint64_t epoch = message.epoch;
    std::swap(message, m_streams[stream]->message);
    message.epoch = epoch;
    Advance(stream);
    return true;
}

/// Reads the stream's next message and puts the stream back into the heap, or leaves it out at its end.
void ReplayMerger::Advance(std::size_t index)
{
    Stream& stream = *m_streams[index];
    if (!stream.assembler.Next(stream.message))
    {
        stream.problems.Summarise();
        return;
    }
    stream.message.sourceTime_ns = stream.message.receiveTime_ns + stream.shift_ns;
    m_heap.push_back(index);
    std::push_heap(m_heap.begin(), m_heap.end(), [this](std::size_t a, std::size_t b) { return IsLater(a, b); });
}

bool ReplayMerger::IsLater(std::size_t a, std::size_t b) const
{
    const std::uint64_t timeOfA = m_streams[a]->message.sourceTime_ns;
    const std::uint64_t timeOfB = m_streams[b]->message.sourceTime_ns;
    return std::tie(timeOfA, a) > std::tie(timeOfB, b);
}

} // namespace ps_ns
