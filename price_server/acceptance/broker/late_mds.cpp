#include "broker/late_mds.h"

#include "broker/flow.h"

#include <cstdlib>

namespace ps_ns::broker_soak
{

LateMds::LateMds(const std::vector<SourceInstrument>& instruments)
{
    m_directory.AddMarket(kMarketId);
    for (const SourceInstrument& instrument : instruments)
    {
        m_feeds.push_back(std::make_unique<InstrumentFeed>(instrument.format));
    }
}

void LateMds::Take(const MarketMessage& message)
{
    m_message = message;
    m_feeds[message.instrument]->Publish(m_message, m_pools);
}

void LateMds::List(std::size_t instrument)
{
    DirectoryEntry entry;
    entry.submarket.marketId = kMarketId;
    entry.symbol = GetSymbol(instrument);
    entry.exchange = kMarket;
    m_directory.Add(entry);
}

void LateMds::MarkComplete()
{
    m_directory.MarkComplete(kMarketId);
}

void LateMds::Stop()
{
    for (const auto& feed : m_feeds)
    {
        feed->DropAll();
    }
}

int LateMds::Subscribe(const ComponentRequest& request, const std::shared_ptr<IComponentListener>& listener)
{
    if (!m_directory.Find(kMarketId, -1, request.symbol))
    {
        return SubscribeStatus::Failed;
    }
    InstrumentFeed* const feed = m_feeds.at(std::stoul(request.symbol.substr(1))).get();
    {
        const std::lock_guard lock(m_mutex);
        m_subscriptions[listener.get()] = feed;
    }
    feed->Join(listener, request.scope.trades, m_pools);
    return SubscribeStatus::Subscribed;
}

std::size_t LateMds::GetSubscriptionCount() const
{
    const std::lock_guard lock(m_mutex);
    return m_subscriptions.size();
}

void LateMds::Unsubscribe(const std::shared_ptr<IComponentListener>& listener)
{
    InstrumentFeed* feed = nullptr;
    {
        const std::lock_guard lock(m_mutex);
        if (const auto found = m_subscriptions.find(listener.get()); found != m_subscriptions.end())
        {
            feed = found->second;
            m_subscriptions.erase(found);
        }
    }
    if (feed != nullptr)
    {
        feed->Leave(listener.get());
    }
    listener->OnUnsubscribed(true);
}

} // namespace ps_ns::broker_soak
