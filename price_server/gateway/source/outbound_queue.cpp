#include "outbound_queue.h"

#include <algorithm>
#include <utility>

namespace ps_ns::gateway
{
namespace
{

constexpr std::size_t kSpareBytes = 32 * 1024; // a session keeps no more memory than this for its next texts

} // namespace

void OutboundQueue::Push(std::string_view text, std::uint64_t lines)
{
    if (m_batches.empty() || m_batches.back().lines.size() + 1 + text.size() > m_write)
    {
        m_batches.push_back({std::exchange(m_spare, {}), 0});
        m_batches.back().lines.clear();
        if (m_batches.size() > 1)
        {
            m_batches.back().lines.reserve(std::max(m_write, text.size())); // growing, it would take up to twice that
        }
    }
    Batch& batch = m_batches.back();
    const std::size_t before = batch.lines.size();
    if (std::exchange(batch.count, batch.count + lines) != 0)
    {
        batch.lines += '\n';
    }
    batch.lines += text;
    m_queued += batch.lines.size() - before;
}

OutboundQueue::Batch OutboundQueue::BeginWrite()
{
    Batch batch = std::move(m_batches.front());
    m_batches.pop_front();
    m_writing = batch.lines.size();
    m_queued -= m_writing;
    return batch;
}

void OutboundQueue::FinishWrite(std::string written) noexcept
{
    m_writing = 0;
    if (written.capacity() <= kSpareBytes)
    {
        m_spare = std::move(written);
    }
}

void OutboundQueue::Clear() noexcept
{
    m_batches.clear();
    m_queued = 0;
}

} // namespace ps_ns::gateway
