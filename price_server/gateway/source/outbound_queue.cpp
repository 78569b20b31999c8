#include "outbound_queue.h"

#include <new>
#include <utility>

namespace ps_ns::gateway
{
namespace
{

constexpr std::size_t kSpareBytes = 32 * 1024; // a session keeps no more memory than this for its next texts

} // namespace

// --- OutboundBatch ---------------------------------------------------------------------------------------------------

void OutboundBatch::Append(std::string_view text, std::uint64_t lines)
{
    EndLine();
    AppendOwn(text);
    m_lines += lines;
}

void OutboundBatch::Append(const SharedText& text, std::uint64_t lines)
{
    if (text->size() < kShareFrom_bytes)
    {
        return Append(std::string_view(*text), lines);
    }
    EndLine();
    m_parts.push_back({text, 0, text->size()});
    m_size += text->size();
    m_lines += lines;
}

void OutboundBatch::EndLine()
{
    if (!IsEmpty())
    {
        AppendOwn("\n");
    }
}

void OutboundBatch::AppendOwn(std::string_view text)
{
    if (m_parts.empty() || m_parts.back().shared != nullptr)
    {
        m_parts.push_back({nullptr, m_own.size(), 0});
    }
    m_own += text;
    m_parts.back().size += text.size();
    m_size += text.size();
}

void OutboundBatch::Clear() noexcept
{
    if (m_own.capacity() > kSpareBytes)
    {
        m_own = {};
    }
    m_own.clear();
    m_parts.clear();
    m_size = 0;
    m_lines = 0;
}

// --- OutboundQueue ---------------------------------------------------------------------------------------------------

template <class Text>
void OutboundQueue::PushText(const Text& text, std::size_t bytes, std::uint64_t lines)
{
    if (m_batches.empty() || m_batches.back().GetSize() + 1 + bytes > m_write)
    {
        m_batches.push_back(std::exchange(m_spare, {}));
        if (m_batches.size() > 1 && bytes < OutboundBatch::kShareFrom_bytes)
        {
            m_batches.back().Reserve(m_write);
        }
    }
    OutboundBatch& batch = m_batches.back();
    const std::size_t before = batch.GetSize();
    try
    {
        batch.Append(text, lines);
    }
    catch (const std::bad_alloc&)
    {
        m_queued += batch.GetSize() - before; // the end of the line before may stand
        if (batch.IsEmpty())
        {
            m_batches.pop_back();
        }
        throw;
    }
    m_queued += batch.GetSize() - before;
}

template void OutboundQueue::PushText(const std::string_view& text, std::size_t bytes, std::uint64_t lines);
template void OutboundQueue::PushText(const SharedText& text, std::size_t bytes, std::uint64_t lines);

OutboundBatch OutboundQueue::BeginWrite()
{
    OutboundBatch batch = std::move(m_batches.front());
    m_batches.pop_front();
    m_writing = batch.GetSize();
    m_queued -= m_writing;
    return batch;
}

void OutboundQueue::FinishWrite(OutboundBatch written) noexcept
{
    m_writing = 0;
    written.Clear();
    m_spare = std::move(written);
}

void OutboundQueue::Clear() noexcept
{
    m_batches.clear();
    m_queued = 0;
}

} // namespace ps_ns::gateway
