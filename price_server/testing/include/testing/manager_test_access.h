#pragma once

#include "price_unifier/source/composite_subscription_mgr.h"

#include <memory>
#include <mutex>
#include <thread>

namespace ps_ns
{

/// The one door to what the manager keeps to itself. On the test's thread, which plays the queue's thread.
class CompositeSubscriptionMgrTestAccess
{
public:
    explicit CompositeSubscriptionMgrTestAccess(CompositeSubscriptionMgr& manager)
        : m_manager(manager)
    {
    }

    // Aliases of the members, by reference; nothing checks the thread here.
    auto& SubscriptionByHandle() PS_NO_THREAD_ANALYSIS { return m_manager.m_subscriptionByHandle; }
    auto& HandleByInstrument() PS_NO_THREAD_ANALYSIS { return m_manager.m_handleByCompositeInstrumentID; }
    auto& NextHandle() PS_NO_THREAD_ANALYSIS { return m_manager.m_nextHandle; }
    auto& Subscriptions() PS_NO_THREAD_ANALYSIS { return m_manager.m_subscriptionByCompositeInstrumentID; }
    auto& PendingDelete() PS_NO_THREAD_ANALYSIS { return m_manager.m_compositeInstrumentIDBySubscription; }
    auto& PendingProvider() PS_NO_THREAD_ANALYSIS { return m_manager.m_pendingProviderSubscriptions; }
    auto& PendingSyntheticByHandle() PS_NO_THREAD_ANALYSIS { return m_manager.m_pendingSyntheticUnsubscribeByHandle; }
    auto& PendingSyntheticByInstrument() PS_NO_THREAD_ANALYSIS
    {
        return m_manager.m_pendingSyntheticUnsubscribeByCompositeInstrumentID;
    }
    auto& SymbolChanges() PS_NO_THREAD_ANALYSIS { return m_manager.m_symbolChanges; }
    auto& SymbolChangeResponses() PS_NO_THREAD_ANALYSIS { return m_manager.m_symbolChangeResponses; }
    auto& PeriodicTasks() { return m_manager.m_periodicTasks; }
    auto& Gauges() { return m_manager.m_gauges; }
    bool SkipsUnchangedSnapshots() const { return m_manager.m_skipUnchangedSnapshots; }
    std::uint32_t InstrumentMonitoringInterval_sec() const { return m_manager.m_instrumentMonitoringInterval_sec; }

    void AddPendingSubscription(const CompositeInstrumentDef& def, CompositeInstrumentSubscription* subscription)
    {
        m_manager.AddPendingSubscription(def, subscription);
    }
    /// Parks the live subscription of a definition.
    void UnsubscribeAndMarkPending(const CompositeInstrumentDef& def) PS_NO_THREAD_ANALYSIS
    {
        m_manager.UnsubscribeAndMarkPending(
            def, m_manager.m_subscriptionByCompositeInstrumentID.find(CompositeInstrumentID(def)));
    }
    /// Files a subscription as live, as a subscribe does.
    void FileSubscription(const CompositeInstrumentDef& def,
                          CompositeInstrumentSubscription* subscription) PS_NO_THREAD_ANALYSIS
    {
        m_manager.m_subscriptionByCompositeInstrumentID.try_emplace(CompositeInstrumentID(def), subscription);
    }
    /// True when the lock of the handle maps is held, by whomever: asked on a thread of its own, so that the holder may
    /// ask too.
    bool IsHandleLockHeld() const
    {
        bool isHeld = false;
        std::thread(
            [&]
            {
                const std::unique_lock lock(m_manager.m_mutex, std::try_to_lock);
                isHeld = !lock.owns_lock();
            })
            .join();
        return isHeld;
    }
    // Workers behind the handle-based requests.
    void AddScopeImpl(const CompositeInstrumentDef& def, const std::shared_ptr<ICompositePriceObserver>& observer,
                      unsigned long handle, const CompositeSubscriptionInfo& info, unsigned long subscriptionId,
                      const std::shared_ptr<IFlexiblePriceObserver>& flexibleObserver)
    {
        m_manager.AddScopeImpl(def, observer, handle, info, subscriptionId, flexibleObserver);
    }
    void RemoveScopeImpl(const CompositeInstrumentDef& def, const std::shared_ptr<ICompositePriceObserver>& observer,
                         unsigned long handle, unsigned long subscriptionId)
    {
        m_manager.RemoveScopeImpl(def, observer, handle, subscriptionId);
    }
    void ChangeScopeImpl(const CompositeInstrumentDef& def, const std::shared_ptr<ICompositePriceObserver>& observer,
                         unsigned long handle, const CompositeSubscriptionInfo& info, unsigned long subscriptionId,
                         bool generateSnapshot)
    {
        m_manager.ChangeScopeImpl(def, observer, handle, info, subscriptionId, generateSnapshot);
    }
    void UnsubscribeImpl(const CompositeInstrumentDef& def, const std::shared_ptr<ICompositePriceObserver>& observer,
                         unsigned long handle)
    {
        m_manager.UnsubscribeImpl(def, observer, handle);
    }

private:
    CompositeSubscriptionMgr& m_manager;
};

} // namespace ps_ns
