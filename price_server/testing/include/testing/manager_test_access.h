#pragma once

#include "price_unifier/source/composite_subscription_mgr.h"

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

private:
    CompositeSubscriptionMgr& m_manager;
};

} // namespace ps_ns
