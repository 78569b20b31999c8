#include "inbox.h"

#include <utility>

namespace ps_ns::gateway
{

template <class Add>
void Inbox::Change(Add add)
{
    {
        const std::lock_guard lock(m_mutex);
        if (m_isClosed)
        {
            return;
        }
        add();
        if (std::exchange(m_isWoken, true))
        {
            return;
        }
    }
    m_wake();
}

void Inbox::PushBook(unsigned long subscription, SharedBook book)
{
    Change(
        [&]
        {
            const auto kept = m_content.overflow.find(subscription);
            const bool mustKeep = m_isConflating.load(std::memory_order_relaxed) ||
                                  m_content.events.size() >= kMostEvents ||
                                  (kept != m_content.overflow.end() && kept->second.book != nullptr);
            if (!mustKeep)
            {
                m_content.events.push_back({subscription, std::move(book)});
                return;
            }
            Overflow& overflow = m_content.overflow[subscription];
            overflow.skippedBooks += overflow.book != nullptr ? 1U : 0U;
            overflow.book = std::move(book);
        });
}

void Inbox::PushTrades(unsigned long subscription, SharedTrades trades)
{
    Change(
        [&]
        {
            if (m_content.events.size() < kMostEvents)
            {
                m_content.events.push_back({subscription, std::move(trades)});
            }
            else
            {
                m_content.overflow[subscription].lostTrades += trades->size();
            }
        });
}

void Inbox::PushFields(unsigned long subscription, SharedFields fields)
{
    Change(
        [&]
        {
            const auto kept = m_content.overflow.find(subscription);
            const bool isBehind = kept != m_content.overflow.end() && kept->second.fields != nullptr;
            if (m_content.events.size() < kMostEvents && !isBehind)
            {
                m_content.events.push_back({subscription, std::move(fields)});
            }
            else
            {
                m_content.overflow[subscription].fields = std::move(fields);
            }
        });
}

void Inbox::PushText(unsigned long subscription, std::string text)
{
    // Results are few, bounded by the requests, and never dropped.
    Change([&] { m_content.events.push_back({subscription, std::move(text)}); });
}

Inbox::Content Inbox::Take()
{
    const std::lock_guard lock(m_mutex);
    m_isWoken = false;
    return std::exchange(m_content, {});
}

void Inbox::Close()
{
    Content dropped;
    const std::lock_guard lock(m_mutex);
    m_isClosed = true;
    std::swap(dropped, m_content);
}

} // namespace ps_ns::gateway
