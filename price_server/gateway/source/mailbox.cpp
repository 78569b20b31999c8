#include "mailbox.h"

#include <utility>

namespace ps_ns::gateway
{

void Mailbox::Content::Clear()
{
    events.clear();
    receivers.clear();
    overflow.clear();
}

template <class Add>
void Mailbox::Change(Add add)
{
    const std::lock_guard lock(m_mutex);
    if (m_isClosed)
    {
        return;
    }
    add();
    if (!std::exchange(m_isWoken, true))
    {
        m_wake(shared_from_this()); // under the lock: once Close has returned, whoever is woken may be gone
    }
}

template <class Shared>
void Mailbox::AddEvent(unsigned long subscription, const Shared& what)
{
    auto& events = m_content.events;
    const Shared* const last = events.empty() ? nullptr : std::get_if<Shared>(&events.back().what);
    if (last == nullptr || *last != what)
    {
        events.push_back({what, 0});
    }
    ++events.back().receivers;
    m_content.receivers.push_back(subscription);
}

bool Mailbox::IsFull() const noexcept
{
    return m_content.events.size() >= kMostEvents || m_content.receivers.size() >= kMostReceivers;
}

Mailbox::Overflow* Mailbox::FindOverflow(unsigned long subscription)
{
    if (m_content.overflow.empty())
    {
        return nullptr;
    }
    const auto found = m_content.overflow.find(subscription);
    return found == m_content.overflow.end() ? nullptr : &found->second;
}

void Mailbox::PushBook(unsigned long subscription, const SharedBook& book)
{
    Change(
        [&]
        {
            const Overflow* const kept = FindOverflow(subscription);
            if (!IsFull() && (kept == nullptr || kept->book == nullptr))
            {
                return AddEvent(subscription, book);
            }
            Overflow& overflow = m_content.overflow[subscription];
            overflow.skippedBooks += overflow.book != nullptr ? 1U : 0U;
            overflow.book = book;
        });
}

void Mailbox::PushTrades(unsigned long subscription, const SharedTrades& trades)
{
    Change(
        [&]
        {
            if (!IsFull())
            {
                return AddEvent(subscription, trades);
            }
            m_content.overflow[subscription].lostTrades += trades->size();
        });
}

void Mailbox::PushFields(unsigned long subscription, const SharedFields& fields)
{
    Change(
        [&]
        {
            const Overflow* const kept = FindOverflow(subscription);
            if (!IsFull() && (kept == nullptr || kept->fields == nullptr))
            {
                return AddEvent(subscription, fields);
            }
            m_content.overflow[subscription].fields = fields;
        });
}

void Mailbox::PushText(unsigned long subscription, std::string text)
{
    // Results are few, bounded by the requests, and never dropped.
    Change(
        [&]
        {
            m_content.events.push_back({std::move(text), 1});
            m_content.receivers.push_back(subscription);
        });
}

void Mailbox::PushText(const std::weak_ptr<ClientSession>& session, std::string text)
{
    Change([&] { m_content.events.push_back({SessionText{session, std::move(text)}, 0}); });
}

void Mailbox::Take(Content& content)
{
    content.Clear(); // books may die here: without the lock
    const std::lock_guard lock(m_mutex);
    m_isWoken = false;
    std::swap(content, m_content);
}

void Mailbox::Close()
{
    Content dropped;
    const std::lock_guard lock(m_mutex);
    m_isClosed = true;
    std::swap(dropped, m_content);
}

} // namespace ps_ns::gateway
