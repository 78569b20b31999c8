#include "price_unifier/source/composite_subscription_mgr.h"

#include "price_unifier/source/composite_instrument_subscription.h"
#include "price_unifier/source/detail/manager_log.h"
#include "price_unifier/source/notifications.h"

#include <utility>

namespace ps_ns
{

using ps_messages_ns::SubscriptionResult;

void CompositeSubscriptionMgr::Subscribe(const CompositeInstrumentDef& def, const CompositeSubscriptionInfo& info,
                                         LocalObserverFactory& factory,
                                         const std::shared_ptr<IFlexiblePriceObserver>& flexibleObserver,
                                         unsigned long subscriptionId)
{
    Post([&factory, def = def, info, flexibleObserver = flexibleObserver, subscriptionId, this]() mutable
         { RunFlexibleSubscribe(factory, std::move(def), info, flexibleObserver, subscriptionId); });
}

void CompositeSubscriptionMgr::RunFlexibleSubscribe(LocalObserverFactory& factory, CompositeInstrumentDef&& def,
                                                    const CompositeSubscriptionInfo& info,
                                                    const std::shared_ptr<IFlexiblePriceObserver>& flexibleObserver,
                                                    unsigned long subscriptionId)
{
    AssertOnQueueThread(m_dataQueue);
    if (def.IsSyntheticComposite())
    {
        FlexibleSyntheticSubscribe(def, info, factory, flexibleObserver, subscriptionId);
        return;
    }
    CompositeInstrumentID id(def);
    const auto found = m_subscriptionByCompositeInstrumentID.find(id);
    if (found != m_subscriptionByCompositeInstrumentID.end())
    {
        JoinSubscription(*found->second, def, info, flexibleObserver, subscriptionId);
    }
    else
    {
        OpenFlexibleSubscription(factory, std::move(id), std::move(def), info, flexibleObserver, subscriptionId);
    }
}

void CompositeSubscriptionMgr::JoinSubscription(CompositeInstrumentSubscription& subscription,
                                                const CompositeInstrumentDef& def,
                                                const CompositeSubscriptionInfo& info,
                                                const std::shared_ptr<IFlexiblePriceObserver>& flexibleObserver,
                                                unsigned long subscriptionId)
{
    const CompositeSubscriptionInfo oldScope = subscription.GetMergedScope();
    CompositeSubscriptionInfo newScope;
    if (!subscription.AddScope(GetAdjustedCompositeSubscriptionInfo(def, info), subscriptionId, flexibleObserver,
                               newScope))
    {
        RaiseOnSubscribe(&subscription, flexibleObserver, subscriptionId, def, EventInfo{},
                         SubscriptionResult::DuplicateSubscriptionId, 0, PriceFormat{}, CompositeComponentType::Direct,
                         CompositeSubscriptionState(def.components));
        detail::LogManager(20,
                           [&](std::ostream& text)
                           {
                               text << "CompositeSubscriptionMgr: AddScope request for instrument " << def.ToString()
                                    << " subscriptionID=" << subscriptionId
                                    << " failed - duplicate subscription_id=" << subscriptionId;
                           });
        return;
    }

    ReplayResults(subscription, def, flexibleObserver, subscriptionId);

    if (CompositeSubscriptionInfo::IsSameScope(newScope, oldScope))
    {
        detail::LogManager(10,
                           [&](std::ostream& text)
                           {
                               text << detail::kIndexerSkips
                                    << "CompositeSubscriptionMgr: AddScope request for instrument " << def.ToString()
                                    << " subscriptionID=" << subscriptionId
                                    << " executed. No changes to SubscriptionInfo " << oldScope;
                           });
        if (subscription.AnySnapshotsReceived())
        {
            subscription.GenerateMergedSnapshotViaExecutor(GenerateSnapshotReason::ScopeUnchanged);
        }
        return;
    }
    detail::LogManager(10,
                       [&](std::ostream& text)
                       {
                           text << detail::kIndexerSkips << "CompositeSubscriptionMgr: AddScope request for instrument "
                                << def.ToString() << " subscriptionID=" << subscriptionId
                                << " executed. PreviousSubscriptionInfo " << oldScope << " NewSubscriptionInfo "
                                << newScope;
                       });
    subscription.ChangeScope(newScope);
}

void CompositeSubscriptionMgr::ReplayResults(CompositeInstrumentSubscription& subscription,
                                             const CompositeInstrumentDef& def,
                                             const std::shared_ptr<IFlexiblePriceObserver>& flexibleObserver,
                                             unsigned long subscriptionId)
{
    for (const auto component :
         {CompositeComponentType::Direct, CompositeComponentType::Implied, CompositeComponentType::Aggregated})
    {
        const Result result = subscription.GetSubscribeResult(component);
        if (result == SubscriptionResult::None)
        {
            continue;
        }
        detail::LogManager(10,
                           [&](std::ostream& text)
                           {
                               text << "CompositeSubscriptionMgr: Subscribe request for instrument " << def.ToString()
                                    << " subscriptionID=" << subscriptionId << " - making OnSubscribe callback";
                           });
        RaiseOnSubscribe(&subscription, flexibleObserver, subscriptionId, def, EventInfo{}, result, 0,
                         subscription.GetPriceFormat(component), component, subscription.GetState());
    }
}

void CompositeSubscriptionMgr::OpenFlexibleSubscription(LocalObserverFactory& factory, CompositeInstrumentID&& id,
                                                        CompositeInstrumentDef&& posted,
                                                        const CompositeSubscriptionInfo& info,
                                                        const std::shared_ptr<IFlexiblePriceObserver>& flexibleObserver,
                                                        unsigned long subscriptionId)
{
    AssertOnQueueThread(m_dataQueue);
    constexpr unsigned long kNoHandle = 0;
    const MarketValues market = GetMarketValues(posted);
    const CompositeSubscriptionInfo adjusted = GetAdjustedCompositeSubscriptionInfo(posted, info);
    const std::shared_ptr<ICompositePriceObserver> localObserver = factory.CreateLocalObserver(posted);
    const auto entry = CreateSubscription(std::move(id), std::move(posted), market, adjusted, localObserver, kNoHandle);
    CompositeInstrumentSubscription* const subscription = entry->second;
    const CompositeInstrumentDef& def = subscription->GetDefinition(); // what was posted

    CompositeSubscriptionInfo newScope;
    subscription->AddScope(adjusted, subscriptionId, flexibleObserver, newScope);
    detail::LogManager(10,
                       [&](std::ostream& text)
                       {
                           text << detail::kIndexerSkips
                                << "CompositeSubscriptionMgr: Subscribe request for instrument " << def.ToString()
                                << " subscriptionID=" << subscriptionId << " compositeSubscriptionInfo " << adjusted
                                << " executed";
                       });

    // On success nothing is raised: the first client hears of its subscription when the components answer.
    const std::string failure = SubscribeComponents(def, subscription);
    if (!failure.empty())
    {
        RaiseOnSubscribe(subscription, flexibleObserver, subscriptionId, def, EventInfo{},
                         SubscriptionResult::DirectSubscriptionFailed, 0, PriceFormat{}, CompositeComponentType::Direct,
                         CompositeSubscriptionState(def.components));
        // No blank after the full stop, unlike the direct interface's line: that is meant.
        detail::LogManager(20,
                           [&](std::ostream& text)
                           {
                               text << "CompositeSubscriptionMgr: Subscription for instrument " << def.ToString()
                                    << " subscriptionID=" << subscriptionId
                                    << " failed when making the direct subscription.Details: " << failure;
                           });
        m_subscriptionByCompositeInstrumentID.erase(entry);
    }
}

} // namespace ps_ns
