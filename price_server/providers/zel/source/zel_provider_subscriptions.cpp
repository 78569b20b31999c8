#include "zel/zel_provider.h"
#include "zel_market.h"

namespace ps_ns
{

int ZelProvider::Subscribe(const ComponentRequest& request, const std::shared_ptr<IComponentListener>& listener)
{
    const ScopedRoleLock lock(m_mutex, m_role);
    ZelMarket* const market = FindMarket(request.submarket.marketId);
    if (m_isClosed || market == nullptr || m_subscriptions.count(listener.get()) != 0)
    {
        return SubscribeStatus::Failed;
    }
    ZelInstrument* const instrument = market->FindBySymbol(request.symbol);
    if (instrument == nullptr ? market->epoch != 0 : IsServedElsewhere(*instrument))
    {
        return SubscribeStatus::Failed;
    }
    Subscription& subscription = m_subscriptions[listener.get()];
    subscription = {listener, instrument, instrument == nullptr ? market : nullptr, request.symbol,
                    request.scope.trades};
    if (instrument == nullptr)
    {
        return SubscribeStatus::Pending;
    }
    Follow(*instrument);
    instrument->feed.Join(listener, request.scope.trades, m_pools);
    return SubscribeStatus::Subscribed;
}

void ZelProvider::ChangeScope(const std::shared_ptr<IComponentListener>& listener,
                              const CompositeSubscriptionInfo& scope)
{
    const ScopedRoleLock lock(m_mutex, m_role);
    const auto found = m_subscriptions.find(listener.get());
    if (found == m_subscriptions.end())
    {
        return;
    }
    found->second.wantsTrades = scope.trades;
    if (found->second.instrument != nullptr)
    {
        found->second.instrument->feed.SetWantsTrades(listener.get(), scope.trades);
    }
}

void ZelProvider::Unsubscribe(const std::shared_ptr<IComponentListener>& listener)
{
    {
        const ScopedRoleLock lock(m_mutex, m_role);
        const auto found = m_subscriptions.find(listener.get());
        if (found != m_subscriptions.end())
        {
            if (found->second.instrument != nullptr)
            {
                found->second.instrument->feed.Leave(listener.get());
            }
            m_subscriptions.erase(found);
        }
    }
    listener->OnUnsubscribed(true);
}

void ZelProvider::Follow(ZelInstrument& instrument)
{
    if (instrument.state != ZelInstrument::State::Idle)
    {
        return;
    }
    if (!IsServed(instrument))
    {
        instrument.feed.SetStale(true); // until its shard is
        return;
    }
    Await(instrument);
    Wake();
}

/// From now on only an image counts.
void ZelProvider::Await(ZelInstrument& instrument)
{
    instrument.feed.SetStale(true);
    instrument.asking.Reset();
    instrument.wantsLastValue = true;
    instrument.askingForLast.Reset();
    if (instrument.state != ZelInstrument::State::Awaiting)
    {
        m_counts.followed += instrument.state == ZelInstrument::State::Idle ? 1 : 0;
        m_counts.live -= instrument.state == ZelInstrument::State::Live ? 1 : 0;
        instrument.state = ZelInstrument::State::Awaiting;
        ++instrument.market.awaited;
        m_awaiting.push_back(&instrument);
        NoteBehind(instrument);
    }
}

/// Puts it into the list of those that may be in arrears, if it is one of them: the others are not looked at.
void ZelProvider::NoteBehind(ZelInstrument& instrument)
{
    if (!instrument.isBehind && instrument.state != ZelInstrument::State::Idle &&
        instrument.arrears.IsBehind(instrument.sequence))
    {
        instrument.isBehind = true;
        m_behind.push_back(&instrument);
    }
}

} // namespace ps_ns
