#include "outbound_queue.h"

#include <utility>

namespace ps_ns::gateway
{

void OutboundQueue::Push(SharedText text)
{
    m_queued += text->size();
    m_texts.push_back(std::move(text));
}

std::vector<SharedText> OutboundQueue::BeginWrite(std::size_t most_bytes)
{
    std::vector<SharedText> texts;
    while (!m_texts.empty() && (texts.empty() || m_writing + m_texts.front()->size() <= most_bytes))
    {
        m_writing += m_texts.front()->size();
        texts.push_back(std::move(m_texts.front()));
        m_texts.pop_front();
    }
    m_queued -= m_writing;
    return texts;
}

void OutboundQueue::Clear() noexcept
{
    m_texts.clear();
    m_queued = 0;
}

} // namespace ps_ns::gateway
