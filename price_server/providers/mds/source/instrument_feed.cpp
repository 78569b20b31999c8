#include "mds/instrument_feed.h"

#include "logging/logging.h"
#include "mds/problem_log.h"

#include <algorithm>
#include <exception>
#include <utility>

namespace ps_ns
{
namespace
{

/// One listener that throws must not end the feed of all others.
template <class Call>
void CallListener(Call&& call) noexcept
{
    try
    {
        call();
    }
    catch (const std::exception& error)
    {
        zel::logging::Log(30, MdsLogSource(),
                          [&](std::ostream& text) { text << "a component listener has thrown: " << error.what(); });
    }
    catch (...)
    {
        zel::logging::Log(30, MdsLogSource(), [](std::ostream& text) { text << "a component listener has thrown"; });
    }
}

} // namespace

void InstrumentFeed::Publish(MarketMessage& message, UpdatePools& pools)
{
    const ScopedRoleLock lock(m_mutex, m_role);
    if (message.HasBook())
    {
        PublishBook(message, pools);
    }
    if (!message.trades.empty())
    {
        PublishTrades(message, pools);
    }
}

void InstrumentFeed::PublishBook(MarketMessage& message, UpdatePools& pools)
{
    if (message.epoch != m_epoch)
    {
        m_epoch = message.epoch;
        m_sequence = 0;
        m_hasImage = false;
    }
    m_book.Apply(message.changes, message.isImage || !m_hasImage);
    if (!m_hasImage && !message.isImage)
    {
        message.isImage = true;
        m_book.WriteImage(message.changes);
    }
    m_hasImage = true;
    m_hasStaleImage = m_isStale;
    ++m_sequence;
    m_exchangeTime_ns = message.exchangeTime_ns;
    m_receiveTime_ns = message.receiveTime_ns;
    m_venueSequence = message.venueSequence;
    if (m_slots.empty())
    {
        return;
    }
    const std::shared_ptr<BookUpdate> update = pools.books.Acquire();
    update->isImage = message.isImage;
    update->isStale = m_isStale;
    update->epoch = m_epoch;
    update->sequence = m_sequence;
    update->exchangeTime_ns = message.exchangeTime_ns;
    update->receiveTime_ns = message.receiveTime_ns;
    update->venueSequence = message.venueSequence;
    update->changes.swap(message.changes);
    for (const Slot& slot : m_slots)
    {
        CallListener([&] { slot.listener->OnBook(update); });
    }
}

/// Only this thread writes the book: it may look at it without the lock.
const LevelBook& InstrumentFeed::GetBook()
{
    if (!m_book.IsSorted())
    {
        const ScopedRoleLock lock(m_mutex, m_role);
        m_book.Sort();
    }
    return m_book.GetSorted();
}

void InstrumentFeed::PublishTrades(MarketMessage& message, UpdatePools& pools)
{
    if (std::none_of(m_slots.begin(), m_slots.end(), [](const Slot& slot) { return slot.wantsTrades; }))
    {
        return;
    }
    const std::shared_ptr<std::vector<Trade>> trades = pools.trades.Acquire();
    trades->swap(message.trades);
    for (const Slot& slot : m_slots)
    {
        if (slot.wantsTrades)
        {
            CallListener([&] { slot.listener->OnTrades(trades); });
        }
    }
}

void InstrumentFeed::Join(std::shared_ptr<IComponentListener> listener, bool wantsTrades, UpdatePools& pools)
{
    const ScopedRoleLock lock(m_mutex, m_role);
    m_slots.push_back({std::move(listener), wantsTrades});
    IComponentListener& joined = *m_slots.back().listener;
    CallListener([&] { joined.OnSubscribed(ps_messages_ns::SubscriptionResult::Success, m_format); });
    if (m_isStale)
    {
        CallListener([&] { joined.OnStale(true); });
    }
    if (m_hasImage && (!m_isStale || m_hasStaleImage))
    {
        SendImage(joined, pools);
    }
}

void InstrumentFeed::SetStale(bool isStale)
{
    const ScopedRoleLock lock(m_mutex, m_role);
    if (std::exchange(m_isStale, isStale) == isStale)
    {
        return;
    }
    for (const Slot& slot : m_slots)
    {
        CallListener([&] { slot.listener->OnStale(isStale); });
    }
}

void InstrumentFeed::ShowStale(UpdatePools& pools)
{
    const ScopedRoleLock lock(m_mutex, m_role);
    if (!m_isStale || !m_hasImage || std::exchange(m_hasStaleImage, true))
    {
        return;
    }
    ++m_sequence;
    for (const Slot& slot : m_slots)
    {
        SendImage(*slot.listener, pools);
    }
}

/// The image bears the sequence of the last update, so that the next one follows it.
void InstrumentFeed::SendImage(IComponentListener& listener, UpdatePools& pools)
{
    const std::shared_ptr<BookUpdate> image = pools.books.Acquire();
    image->isImage = true;
    image->isStale = m_isStale;
    image->epoch = m_epoch;
    image->sequence = m_sequence;
    image->exchangeTime_ns = m_exchangeTime_ns;
    image->receiveTime_ns = m_receiveTime_ns;
    image->venueSequence = m_venueSequence;
    m_book.WriteImage(image->changes);
    CallListener([&] { listener.OnBook(image); });
}

void InstrumentFeed::SetWantsTrades(const IComponentListener* listener, bool wantsTrades)
{
    const ScopedRoleLock lock(m_mutex, m_role);
    for (Slot& slot : m_slots)
    {
        if (slot.listener.get() == listener)
        {
            slot.wantsTrades = wantsTrades;
        }
    }
}

void InstrumentFeed::Leave(const IComponentListener* listener)
{
    std::vector<Slot> left; // let go without the lock: it may be the last to hold the listener
    const ScopedRoleLock lock(m_mutex, m_role);
    const auto found =
        std::find_if(m_slots.begin(), m_slots.end(), [&](const Slot& slot) { return slot.listener.get() == listener; });
    if (found != m_slots.end())
    {
        left.push_back(std::move(*found));
        m_slots.erase(found);
    }
}

bool InstrumentFeed::HasListeners() const
{
    const ScopedRoleLock lock(m_mutex, m_role);
    return !m_slots.empty();
}

void InstrumentFeed::DropAll()
{
    std::vector<Slot> left;
    const ScopedRoleLock lock(m_mutex, m_role);
    left.swap(m_slots);
}

} // namespace ps_ns
