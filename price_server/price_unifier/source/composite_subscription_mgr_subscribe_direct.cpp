#include "price_unifier/source/composite_subscription_mgr.h"

#include "composite_instrument/subscription_ex.h"
#include "price_unifier/source/composite_instrument_subscription.h"
#include "price_unifier/source/detail/manager_log.h"
#include "simple_subscription/simple_subscription_mgr.h"

#include <utility>

namespace ps_ns
{

using ps_messages_ns::SubscriptionResult;

std::pair<unsigned long, CompositeSubscriptionMgr::Result>
CompositeSubscriptionMgr::Subscribe(const CompositeInstrumentDef& def, const CompositeSubscriptionInfo& info,
                                    const std::shared_ptr<ICompositePriceObserver>& observer,
                                    unsigned long subscriptionId)
{
    return SubscribeImpl(def, info, observer, subscriptionId);
}

std::pair<unsigned long, CompositeSubscriptionMgr::Result> CompositeSubscriptionMgr::SyntheticLegSubscribe(
    unsigned long /*legNumber*/, const CompositeInstrumentDef& def, const CompositeSubscriptionInfo& info,
    const std::shared_ptr<ICompositePriceObserver>& observer, unsigned long subscriptionId)
{
    return SubscribeImpl(def, info, observer, subscriptionId);
}

CompositeSubscriptionInfo
CompositeSubscriptionMgr::GetAdjustedCompositeSubscriptionInfo(const CompositeInstrumentDef& def,
                                                               const CompositeSubscriptionInfo& info) const
{
    CompositeSubscriptionInfo adjusted = info;
    if (info.depth == CompositeSubscriptionInfo::kDefaultDepth)
    {
        adjusted.depth = static_cast<std::int32_t>(m_simpleSubscriptionMgr->GetDefaultOrderBookSize(def.marketId));
    }
    else if (info.depth == CompositeSubscriptionInfo::kMaxDepth)
    {
        adjusted.depth = static_cast<std::int32_t>(m_simpleSubscriptionMgr->GetMaxOrderBookSize(def.marketId));
    }
    return adjusted;
}

std::pair<unsigned long, CompositeSubscriptionMgr::Result>
CompositeSubscriptionMgr::SubscribeImpl(const CompositeInstrumentDef& def, const CompositeSubscriptionInfo& info,
                                        const std::shared_ptr<ICompositePriceObserver>& observer,
                                        unsigned long subscriptionId)
{
    ScopedRoleLock lock(m_mutex, g_handleMapsRole);
    const auto [entry, isNew] = m_handleByCompositeInstrumentID.try_emplace(CompositeInstrumentID(def), m_nextHandle);
    if (!isNew)
    {
        detail::LogManager(30,
                           [&](std::ostream& text)
                           {
                               text << "CompositeSubscriptionMgr: Subscribe request for instrument " << def.ToString()
                                    << " (observer=" << observer->GetName() << ") rejected as a duplicate";
                           });
        return {0, SubscriptionResult::Refused};
    }
    const unsigned long handle = m_nextHandle++;
    m_subscriptionByHandle.try_emplace(handle, def, observer);

    // A synthetic is refused after the bookkeeping, and nothing of it is taken back: that is meant.
    if (def.IsSyntheticComposite())
    {
        detail::LogManager({30, detail::kSyntheticTag},
                           [&](std::ostream& text) {
                               text << detail::kSyntheticPrefix << "request for " << def.ToString()
                                    << " not supported on windows or KEEL SDK";
                           });
        return {0, SubscriptionResult::Refused};
    }

    lock.Unlock();
    SubscribeImpl(def, info, observer, subscriptionId, handle);
    return {handle, SubscriptionResult::Accepted};
}

void CompositeSubscriptionMgr::SubscribeImpl(const CompositeInstrumentDef& def, const CompositeSubscriptionInfo& info,
                                             const std::shared_ptr<ICompositePriceObserver>& observer,
                                             unsigned long subscriptionId, unsigned long handle)
{
    // Named anew, or they would be captured as constants, which a closure cannot move: it would be copied as a whole.
    Post([this, def = def, observer = observer, handle, info, subscriptionId]() mutable
         { RunDirectSubscribe(std::move(def), observer, handle, info, subscriptionId); });
}

void CompositeSubscriptionMgr::RunDirectSubscribe(CompositeInstrumentDef&& posted,
                                                  const std::shared_ptr<ICompositePriceObserver>& observer,
                                                  unsigned long handle, const CompositeSubscriptionInfo& info,
                                                  unsigned long subscriptionId)
{
    AssertOnQueueThread(m_dataQueue);
    const auto report = [&](const CompositeInstrumentDef& def, Result result)
    {
        observer->OnSubscribe(def, EventInfo{}, result, 0, PriceFormat{}, CompositeComponentType::Direct,
                              CompositeSubscriptionState(def.components));
    };

    CompositeInstrumentID id(posted);
    if (m_subscriptionByCompositeInstrumentID.count(id) != 0)
    {
        report(posted, SubscriptionResult::DuplicateSubscription);
        detail::LogManager(20,
                           [&](std::ostream& text)
                           {
                               text << "CompositeSubscriptionMgr: Subscribe request for instrument "
                                    << posted.ToString() << " handle=" << handle << " (observer=" << observer->GetName()
                                    << ") rejected as a duplicate";
                           });
        return;
    }

    const MarketValues market = GetMarketValues(posted);
    const CompositeSubscriptionInfo adjusted = GetAdjustedCompositeSubscriptionInfo(posted, info);
    const auto entry = CreateSubscription(std::move(id), std::move(posted), market, adjusted, observer, handle);
    CompositeInstrumentSubscription* const subscription = entry->second;
    const CompositeInstrumentDef& def = subscription->GetDefinition(); // what was posted

    CompositeSubscriptionInfo ignored;
    subscription->AddScope(adjusted, subscriptionId, nullptr, ignored);
    detail::LogManager(10,
                       [&](std::ostream& text)
                       {
                           text << detail::kIndexerSkips
                                << "CompositeSubscriptionMgr: Subscribe request for instrument " << def.ToString()
                                << " handle=" << handle << " (observer=" << observer->GetName() << ")"
                                << " compositeSubscriptionInfo " << adjusted << " executed";
                       });

    const std::string failure = SubscribeComponents(def, subscription);
    if (!failure.empty())
    {
        report(def, SubscriptionResult::SubscribeComponentsFailed);
        detail::LogManager(20,
                           [&](std::ostream& text)
                           {
                               text << "CompositeSubscriptionMgr: Subscription for instrument " << def.ToString()
                                    << " (observer=" << observer->GetName()
                                    << ") failed when making the direct subscription. Details: " << failure;
                           });
        // The subscription object itself stays: the registry of the collaborators deletes it in the end.
        m_subscriptionByCompositeInstrumentID.erase(entry);
    }
}

CompositeSubscriptionMgr::MarketValues
CompositeSubscriptionMgr::GetMarketValues(const CompositeInstrumentDef& def) const
{
    MarketValues values;
    values.defaultDepth = m_simpleSubscriptionMgr->GetDefaultOrderBookSize(def.marketId);
    values.maxDepth = m_simpleSubscriptionMgr->GetMaxOrderBookSize(def.marketId);
    values.emptySuppressInterval = m_simpleSubscriptionMgr->GetEmptySuppressInterval(def.marketId);
    return values;
}

CompositeSubscriptionMgr::SubscriptionMap::iterator
CompositeSubscriptionMgr::CreateSubscription(CompositeInstrumentID&& id, CompositeInstrumentDef&& def,
                                             const MarketValues& market, const CompositeSubscriptionInfo& adjusted,
                                             const std::shared_ptr<ICompositePriceObserver>& observer,
                                             unsigned long handle)
{
    AssertOnQueueThread(m_dataQueue);
    std::unique_ptr<CompositeInstrumentSubscription> subscription(new CompositeInstrumentSubscription(
        m_simpleSubscriptionMgr, std::move(def), adjusted, observer, handle, this, m_skipUnchangedSnapshots,
        market.defaultDepth, market.maxDepth, market.emptySuppressInterval, m_instrumentMonitoringInterval_sec));
    const auto entry = m_subscriptionByCompositeInstrumentID.try_emplace(std::move(id), subscription.get()).first;
    subscription.release(); // the map's now
    return entry;
}

std::string CompositeSubscriptionMgr::SubscribeComponents(const CompositeInstrumentDef& def,
                                                          CompositeInstrumentSubscription* subscription)
{
    AssertOnQueueThread(m_dataQueue);
    try
    {
        switch (subscription->SubscribeComponents())
        {
        case SubscribeStatus::Subscribed:
            ++SubscriptionGaugeInstance(subscription);
            break;
        case SubscribeStatus::Pending:
            AddPendingSubscription(def, subscription);
            ++SubscriptionGaugeInstance(subscription);
            break;
        case SubscribeStatus::Failed:
            return "CompositeInstrumentSubscription::SubscribeComponents() failed";
        default:
            break;
        }
    }
    catch (const SubscriptionEx& error)
    {
        return error.what();
    }
    return {};
}

} // namespace ps_ns
