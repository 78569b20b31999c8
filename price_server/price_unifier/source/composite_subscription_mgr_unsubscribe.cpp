#include "price_unifier/source/composite_subscription_mgr.h"

#include "price_unifier/source/composite_instrument_subscription.h"
#include "price_unifier/source/detail/manager_log.h"
#include "price_unifier/source/notifications.h"

#include <utility>

namespace ps_ns
{

using ps_messages_ns::SubscriptionResult;

void CompositeSubscriptionMgr::Unsubscribe(const CompositeInstrumentDef& def,
                                           const std::shared_ptr<IFlexiblePriceObserver>& flexibleObserver,
                                           unsigned long subscriptionId)
{
    Post([def = def, flexibleObserver = flexibleObserver, subscriptionId, this]
         { RunFlexibleUnsubscribe(def, flexibleObserver, subscriptionId); });
}

void CompositeSubscriptionMgr::RunFlexibleUnsubscribe(const CompositeInstrumentDef& def,
                                                      const std::shared_ptr<IFlexiblePriceObserver>& flexibleObserver,
                                                      unsigned long subscriptionId)
{
    AssertOnQueueThread(m_dataQueue);
    if (def.IsSyntheticComposite())
    {
        FlexibleSyntheticUnsubscribe(def, flexibleObserver, subscriptionId);
        return;
    }
    // Every line of this request begins alike.
    const auto begin = [&](std::ostream& text) -> std::ostream&
    {
        return text << "CompositeSubscriptionMgr: Unsubscribe request for instrument " << def.ToString()
                    << " subscriptionID=" << subscriptionId;
    };

    const auto entry = m_subscriptionByCompositeInstrumentID.find(CompositeInstrumentID(def));
    if (entry == m_subscriptionByCompositeInstrumentID.end())
    {
        // There is no subscription whose executor could carry the report.
        flexibleObserver->OnUnsubscribe(subscriptionId, def, SubscriptionResult::NoSubscription,
                                        CompositeComponentType::Direct, CompositeSubscriptionState(def.components));
        detail::LogManager(20, [&](std::ostream& text) { begin(text) << " failed - there is no subscription"; });
        return;
    }
    CompositeInstrumentSubscription* const subscription = entry->second;
    const auto raiseUnknownId = [&]
    {
        RaiseOnUnsubscribe(subscription, flexibleObserver, subscriptionId, def,
                           SubscriptionResult::UnknownSubscriptionId, CompositeComponentType::Direct,
                           CompositeSubscriptionState(def.components));
    };

    std::tuple<CompositeSubscriptionInfo, std::shared_ptr<IFlexiblePriceObserver>> registered;
    if (!subscription->GetScope(subscriptionId, registered))
    {
        raiseUnknownId();
        detail::LogManager(20, [&](std::ostream& text)
                           { begin(text) << " failed - unknown subscription_id=" << subscriptionId; });
        return;
    }
    if (std::get<1>(registered).get() != flexibleObserver.get())
    {
        raiseUnknownId();
        detail::LogManager(20, [&](std::ostream& text)
                           { begin(text) << " failed - a different flexibleObserver was used when subscribing"; });
        return;
    }

    const CompositeSubscriptionInfo previous = subscription->GetMergedScope();
    CompositeSubscriptionInfo newScope;
    if (!subscription->RemoveScope(subscriptionId, newScope))
    {
        raiseUnknownId();
        detail::LogManager(20, [&](std::ostream& text)
                           { begin(text) << " failed - unknown subscription_id=" << subscriptionId; });
        return;
    }
    if (CompositeSubscriptionInfo::IsSameScope(newScope, previous))
    {
        detail::LogManager(10,
                           [&](std::ostream& text)
                           {
                               text << detail::kIndexerSkips;
                               begin(text) << " executed. No changes to SubscriptionInfo " << previous;
                           });
    }
    else
    {
        detail::LogManager(10,
                           [&](std::ostream& text)
                           {
                               text << detail::kIndexerSkips;
                               begin(text) << " executed. PreviousSubscriptionInfo " << previous
                                           << " NewSubscriptionInfo " << newScope;
                           });
        subscription->ChangeScope(newScope);
    }

    if (subscription->HasIndividualSubscriptions())
    {
        return;
    }
    // No gauge is decremented on this interface, only on the direct one: that is meant.
    detail::LogManager(10,
                       [&](std::ostream& text)
                       {
                           text << detail::kIndexerSkips;
                           begin(text) << " executed.  No scope remaining."
                                       << " instrument_callbacks " << subscription->GetCountsAsString();
                       });
    UnsubscribeAndMarkPending(def, entry);
}

bool CompositeSubscriptionMgr::Unsubscribe(unsigned long handle)
{
    ScopedRoleLock lock(m_mutex, g_handleMapsRole);
    const auto entry = m_subscriptionByHandle.find(handle);
    if (entry == m_subscriptionByHandle.end())
    {
        // No instrument is known here, hence the two blanks.
        detail::LogManager(20,
                           [&](std::ostream& text)
                           {
                               text << "CompositeSubscriptionMgr: Unsubscribe request for instrument "
                                    << " handle=" << handle << " failed - there is no subscription";
                           });
        return false;
    }
    auto [def, observer] = std::move(entry->second);
    m_subscriptionByHandle.erase(entry);
    const bool hadIdentity = m_handleByCompositeInstrumentID.erase(CompositeInstrumentID(def)) != 0;

    if (auto synthetic = GetSyntheticPriceSubscription(handle, def))
    {
        lock.Unlock();
        SyntheticUnsubscribeImpl(std::move(synthetic), handle);
        return true;
    }
    lock.Unlock();
    if (!hadIdentity)
    {
        // A leg that is not even equal to itself does this; the unsubscribe goes on all the same.
        detail::LogManager(20,
                           [&](std::ostream& text)
                           {
                               text << "CompositeSubscriptionMgr: Request to unsubscribe from instrument "
                                    << " handle=" << handle
                                    << " - could not find the entry in m_handleByCompositeInstrumentID";
                           });
    }
    UnsubscribeImpl(std::move(def), std::move(observer), handle);
    return true;
}

void CompositeSubscriptionMgr::UnsubscribeImpl(const CompositeInstrumentDef& def,
                                               const std::shared_ptr<ICompositePriceObserver>& observer,
                                               unsigned long handle)
{
    UnsubscribeImpl(CompositeInstrumentDef(def), std::shared_ptr<ICompositePriceObserver>(observer), handle);
}

void CompositeSubscriptionMgr::UnsubscribeImpl(CompositeInstrumentDef&& def,
                                               std::shared_ptr<ICompositePriceObserver>&& observer,
                                               unsigned long handle)
{
    // Nothing of either stays on the caller's thread: the action may hold the last reference to the observer.
    Post([this, def = std::move(def), observer = std::move(observer), handle]
         { RunDirectUnsubscribe(def, observer, handle); });
}

void CompositeSubscriptionMgr::RunDirectUnsubscribe(const CompositeInstrumentDef& def,
                                                    const std::shared_ptr<ICompositePriceObserver>& observer,
                                                    unsigned long handle)
{
    AssertOnQueueThread(m_dataQueue);
    const auto entry = m_subscriptionByCompositeInstrumentID.find(CompositeInstrumentID(def));
    if (entry == m_subscriptionByCompositeInstrumentID.end())
    {
        observer->OnUnsubscribe(def, SubscriptionResult::NoSubscription, CompositeComponentType::Direct,
                                CompositeSubscriptionState(def.components));
        detail::LogManager(20,
                           [&](std::ostream& text)
                           {
                               text << "CompositeSubscriptionMgr: Unsubscribe request for instrument " << def.ToString()
                                    << " (observer=" << observer->GetName() << ") failed - there is no subscription";
                           });
        return;
    }
    CompositeInstrumentSubscription* const subscription = entry->second;
    detail::LogManager(10,
                       [&](std::ostream& text)
                       {
                           text << detail::kIndexerSkips
                                << "CompositeSubscriptionMgr: Unsubscribe request for instrument " << def.ToString()
                                << " handle=" << handle << " (observer=" << observer->GetName() << ") executed."
                                << " instrument_callbacks " << subscription->GetCountsAsString();
                       });
    --SubscriptionGaugeInstance(subscription);
    // A handle owns its composite subscription: it goes, whatever scopes of others it holds.
    UnsubscribeAndMarkPending(def, entry);
}

void CompositeSubscriptionMgr::OnUnsubscribeCompositeSubscription(CompositeInstrumentSubscription* subscription,
                                                                  const CompositeInstrumentDef& def)
{
    Post([this, subscription, def = def] { RunTeardown(subscription, def); });
}

void CompositeSubscriptionMgr::RunTeardown(CompositeInstrumentSubscription* subscription,
                                           const CompositeInstrumentDef& def)
{
    AssertOnQueueThread(m_dataQueue);
    if (m_compositeInstrumentIDBySubscription.erase(subscription) == 0)
    {
        detail::LogManager(20,
                           [&](std::ostream& text)
                           {
                               text << "OnUnsubscribeCompositeSubscription: "
                                    << "couldn't find subscription for " << def.ToString()
                                    << " composite_id=" << static_cast<const void*>(subscription);
                           });
    }
    // With its whole vector: who shares the key goes unswitched. The pending gauge is left alone. Both are meant.
    if (!m_pendingProviderSubscriptions.empty()) // the key is a copy of the symbol
    {
        m_pendingProviderSubscriptions.erase(PendingSubscriptionID(def));
    }
    delete subscription;
}

} // namespace ps_ns
