#include "price_unifier/source/composite_subscription_mgr.h"

#include "price_unifier/source/composite_instrument_subscription.h"
#include "price_unifier/source/detail/manager_log.h"
#include "price_unifier/source/notifications.h"

namespace ps_ns
{

using ps_messages_ns::SubscriptionResult;

namespace
{

/// No instrument is known for an unknown handle, hence the two blanks.
void LogUnknownHandle(const zel::logging::At& at, const char* operation, unsigned long handle)
{
    detail::LogManager(at,
                       [&](std::ostream& text)
                       {
                           text << "CompositeSubscriptionMgr: " << operation << " request for instrument "
                                << " handle=" << handle << " failed - there is no subscription";
                       });
}

} // namespace

// The lock is held over the whole of the handle-based operations: what they call only posts.

bool CompositeSubscriptionMgr::AddScope(unsigned long handle, const CompositeSubscriptionInfo& info,
                                        unsigned long subscriptionId)
{
    const ScopedRoleLock lock(m_mutex, g_handleMapsRole);
    const auto entry = m_subscriptionByHandle.find(handle);
    if (entry == m_subscriptionByHandle.end())
    {
        LogUnknownHandle(20, "AddScope", handle);
        return false;
    }
    const auto& [def, observer] = entry->second;
    AddScopeImpl(def, observer, handle, info, subscriptionId, nullptr);
    return true;
}

bool CompositeSubscriptionMgr::RemoveScope(unsigned long handle, unsigned long subscriptionId)
{
    const ScopedRoleLock lock(m_mutex, g_handleMapsRole);
    const auto entry = m_subscriptionByHandle.find(handle);
    if (entry == m_subscriptionByHandle.end())
    {
        LogUnknownHandle(20, "RemoveScope", handle);
        return false;
    }
    const auto& [def, observer] = entry->second;
    RemoveScopeImpl(def, observer, handle, subscriptionId);
    return true;
}

bool CompositeSubscriptionMgr::ChangeScope(unsigned long handle, const CompositeSubscriptionInfo& info,
                                           unsigned long subscriptionId, bool generateSnapshot)
{
    const ScopedRoleLock lock(m_mutex, g_handleMapsRole);
    const auto entry = m_subscriptionByHandle.find(handle);
    if (entry == m_subscriptionByHandle.end())
    {
        LogUnknownHandle(20, "ChangeScope", handle);
        return false;
    }
    const auto& [def, observer] = entry->second;
    ChangeScopeImpl(def, observer, handle, info, subscriptionId, generateSnapshot);
    return true;
}

void CompositeSubscriptionMgr::ChangeScope(const CompositeInstrumentDef& def, const CompositeSubscriptionInfo& info,
                                           const std::shared_ptr<IFlexiblePriceObserver>& flexibleObserver,
                                           unsigned long subscriptionId, bool generateSnapshot)
{
    Post([this, def = def, info, flexibleObserver = flexibleObserver, subscriptionId, generateSnapshot]
         { RunFlexibleChangeScope(def, info, flexibleObserver, subscriptionId, generateSnapshot); });
}

void CompositeSubscriptionMgr::RunFlexibleChangeScope(const CompositeInstrumentDef& def,
                                                      const CompositeSubscriptionInfo& info,
                                                      const std::shared_ptr<IFlexiblePriceObserver>& flexibleObserver,
                                                      unsigned long subscriptionId, bool generateSnapshot)
{
    AssertOnQueueThread(m_dataQueue);
    if (def.IsSyntheticComposite())
    {
        FlexibleSyntheticChangeScope(def, info, flexibleObserver, subscriptionId, generateSnapshot);
        return;
    }
    const auto begin = [&](std::ostream& text) -> std::ostream&
    { return text << "CompositeSubscriptionMgr: ChangeScope request for instrument " << def.ToString(); };
    const auto beginWithId = [&](std::ostream& text) -> std::ostream&
    { return begin(text) << " subscriptionID=" << subscriptionId; };
    const auto beginWithObserver = [&](std::ostream& text) -> std::ostream&
    { return begin(text) << " (observer=" << flexibleObserver->GetName() << ")"; };

    CompositeInstrumentSubscription* const subscription = FindSubscription(def);
    if (subscription == nullptr)
    {
        flexibleObserver->OnChangeScope(subscriptionId, def, SubscriptionResult::NoSubscription);
        detail::LogManager(20, [&](std::ostream& text)
                           { beginWithObserver(text) << " failed - there is no subscription"; });
        return;
    }
    const auto raiseUnknownId = [&] {
        RaiseOnChangeScope(subscription, flexibleObserver, subscriptionId, def,
                           SubscriptionResult::UnknownSubscriptionId);
    };

    std::tuple<CompositeSubscriptionInfo, std::shared_ptr<IFlexiblePriceObserver>> registered;
    if (!subscription->GetScope(subscriptionId, registered))
    {
        raiseUnknownId();
        detail::LogManager(20, [&](std::ostream& text)
                           { beginWithId(text) << " failed - unknown subscription_id=" << subscriptionId; });
        return;
    }
    if (std::get<1>(registered).get() != flexibleObserver.get())
    {
        raiseUnknownId();
        detail::LogManager(20,
                           [&](std::ostream& text) {
                               beginWithId(text) << " failed - a different flexibleObserver was used when subscribing";
                           });
        return;
    }

    const CompositeSubscriptionInfo adjusted = GetAdjustedCompositeSubscriptionInfo(def, info);
    const CompositeSubscriptionInfo previous = subscription->GetMergedScope();
    CompositeSubscriptionInfo newAggregate;
    if (!subscription->ChangeScope(adjusted, subscriptionId, newAggregate))
    {
        raiseUnknownId();
        detail::LogManager(20, [&](std::ostream& text)
                           { beginWithObserver(text) << " failed - unknown subscription_id=" << subscriptionId; });
        return;
    }
    if (!CompositeSubscriptionInfo::IsSameScope(newAggregate, previous))
    {
        detail::LogManager(10,
                           [&](std::ostream& text)
                           {
                               text << detail::kIndexerSkips;
                               beginWithObserver(text) << " executed. PreviousSubscriptionInfo " << previous
                                                       << " NewSubscriptionInfo " << newAggregate;
                           });
        subscription->ChangeScope(newAggregate);
        return;
    }
    detail::LogManager(10,
                       [&](std::ostream& text)
                       {
                           text << detail::kIndexerSkips;
                           beginWithObserver(text) << " executed. No changes to SubscriptionInfo " << previous
                                                   << (generateSnapshot ? " Generating a snapshot" : "");
                       });
    if (generateSnapshot)
    {
        subscription->GenerateMergedSnapshotViaExecutor(GenerateSnapshotReason::ScopeUnchanged);
    }
}

} // namespace ps_ns
