#pragma once

#include "async/async_dispatcher.h"
#include "base/queue_thread.h"
#include "base/thread_annotations.h"
#include "common/action_center.h"
#include "common/channel_periodic_task.h"
#include "common/data_queue.h"
#include "common/timer_task.h"
#include "composite_instrument/composite_instrument_id.h"
#include "composite_instrument/composite_subscription_info.h"
#include "composite_instrument/i_composite_price_observer.h"
#include "composite_instrument/i_flexible_price_observer.h"
#include "composite_instrument/local_observer_factory.h"
#include "composite_instrument/pending_subscription_id.h"
#include "composite_instrument/provider_type.h"
#include "composite_instrument/submarket.h"
#include "composite_instrument/subscription_result.h"
#include "metrics/metrics.h"
#include "price_unifier/source/callback_time_stats.h"
#include "price_unifier/source/symbol_prefixes.h"

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>
#include <unordered_map>
#include <utility>
#include <vector>

namespace ps_ns
{

class CompositeInstrumentSubscription;
class Config;
class Executor;
class ICompositePriceFactory;
class SimpleSubscriptionMgr;
class SyntheticPriceSubscription;

/// What guards the handle maps: taken together with CompositeSubscriptionMgr's mutex.
inline Role g_handleMapsRole;

/// Keeps exactly one live composite subscription for each instrument identity, however many clients ask for it: takes
/// their requests, merges their scopes, chooses between the two price providers, parks what is undecided, changes
/// symbols under live subscriptions, and counts what it does.
///
/// Clients come by two interfaces. On the *direct* one a client subscribes an instrument with an
/// ICompositePriceObserver and gets a handle; an instrument has one handle at most, and the handle owns the composite
/// subscription: unsubscribing it takes the subscription away from everybody. On the *flexible* one many clients share
/// an instrument's composite subscription, each with ids and scopes of its own; it ends with the last scope.
///
/// Threads: every request may be made from any thread, between Init and Shutdown. It becomes an action on the data
/// queue, whose one reader thread runs the actions in their order and alone touches the maps of subscriptions. Only the
/// bookkeeping of direct handles is done on the caller's thread, under a mutex. Lifecycle operations are the owner's,
/// and overlap neither each other nor a request.
///
/// Ownership: owns its composite subscriptions through the raw pointers in its maps, from the subscribe until the
/// action that follows their last touch (OnUnsubscribeCompositeSubscription). What it leaves behind,
/// SimpleSubscriptionMgr's registry deletes. The SimpleSubscriptionMgr and the queue are not owned and outlive it.
///
/// Failure: requests never throw back, but for allocation. What goes wrong reaches the client as a SubscriptionResult
/// through its observer, and the log; a direct subscribe also answers at once.
///
/// Life of a composite subscription:
///
/// | state | held in | left by |
/// |---|---|---|
/// | live | m_subscriptionByCompositeInstrumentID; undecided: m_pendingProviderSubscriptions too | its last scope's removal, a direct unsubscribe, a failed first subscribe |
/// | pending delete | m_compositeInstrumentIDBySubscription | its report that all components are unsubscribed |
/// | deleted | nothing | – |
class CompositeSubscriptionMgr
{
public:
    using Queue = DataQueue<DataMsgTask>;
    using Result = ps_messages_ns::SubscriptionResult::Value;

    explicit CompositeSubscriptionMgr(SimpleSubscriptionMgr* simpleSubscriptionMgr);
    /// Cancels no timer (Shutdown does), tells no observer, deletes no composite subscription.
    ~CompositeSubscriptionMgr();
    CompositeSubscriptionMgr(const CompositeSubscriptionMgr&) = delete;
    CompositeSubscriptionMgr& operator=(const CompositeSubscriptionMgr&) = delete;

    // --- Lifecycle: composite_subscription_mgr_lifecycle.cpp -----------------------------------------------------

    /// Reads the section "General", registers the gauges, and makes ready for requests. Returns true. Throws
    /// std::runtime_error for a boolean that is none; the manager must not be used then. Called once.
    bool Init(const std::shared_ptr<Config>& config, Queue* queue, std::shared_ptr<ICompositePriceFactory> factory);
    /// Init without the periodic task.
    bool UnitTestInit(const std::shared_ptr<Config>& config, Queue* queue,
                      std::shared_ptr<ICompositePriceFactory> factory);
    void Start();
    /// Stops the timers. Subscriptions stay, and queued requests still run.
    void Shutdown();

    /// From any thread after Init.
    std::shared_ptr<ICompositePriceFactory> GetPriceFactory() const;

    /// A running timer that posts `action` to the data queue after `delay_ms`, of which the low 32 bits count. The
    /// caller owns it: it does not fire once nobody holds it.
    std::shared_ptr<TimerTask<Queue, Task>> StartTimer(std::function<void()> action, long delay_ms,
                                                       const std::string& name) const;

    // --- Metrics and diagnostics: composite_subscription_mgr_metrics.cpp -----------------------------------------

    /// The gauge of a provider: MDS' for ProviderType::Mds, ZEL's for everything else.
    zel::metrics::Gauge& SubscriptionGaugeInstance(ProviderType::Value provider);
    /// The gauge of the provider that serves a subscription.
    zel::metrics::Gauge& SubscriptionGaugeInstance(const CompositeInstrumentSubscription* subscription);
    /// The gauge of symbols, not subscriptions, whose provider is undecided.
    zel::metrics::Gauge& SubscriptionPendingGaugeInstance();
    /// Subscriptions served by ZEL and by MDS, read from the gauges. From any thread.
    std::pair<std::uint64_t, std::uint64_t> GetSubscriptionCounts();

    /// How long the data callbacks took that one change of an instrument set off, in nanoseconds. From any thread.
    void UpdateSnapshotTime(unsigned long duration_ns);
    void UpdateTradesTime(unsigned long duration_ns);
    const CallbackTimeStats& GetSnapshotCallbackTime() const;
    const CallbackTimeStats& GetTradesCallbackTime() const;
    CallbackTimeStats GetAndResetSnapshotCallbackTime();
    CallbackTimeStats GetAndResetTradesCallbackTime();

    /// Has the SimpleSubscriptionMgr write its subscriptions to the log; what `limit` means is its business.
    void DumpSubscriptions(unsigned long limit) const;

    // --- Direct subscribe: composite_subscription_mgr_subscribe_direct.cpp ---------------------------------------

    /// Subscribes an instrument. Returns (handle, Accepted), after which the observer hears of the outcome: one
    /// OnSubscribe for each component that answers, or one with DuplicateSubscription (12) or
    /// SubscribeComponentsFailed (25) on the data-queue thread. The handle stays taken in either case, until
    /// Unsubscribe(handle). Returns (0, Refused) when the instrument has a handle already, or is synthetic; a synthetic
    /// definition takes up a handle all the same, on purpose.
    std::pair<unsigned long, Result> Subscribe(const CompositeInstrumentDef& def, const CompositeSubscriptionInfo& info,
                                               const std::shared_ptr<ICompositePriceObserver>& observer,
                                               unsigned long subscriptionId);
    /// The same, for a leg of a synthetic; the leg's number is deliberately ignored.
    std::pair<unsigned long, Result> SyntheticLegSubscribe(unsigned long legNumber, const CompositeInstrumentDef& def,
                                                           const CompositeSubscriptionInfo& info,
                                                           const std::shared_ptr<ICompositePriceObserver>& observer,
                                                           unsigned long subscriptionId);

    // --- Flexible subscribe: composite_subscription_mgr_subscribe_flexible.cpp -----------------------------------

    /// Adds a scope to the instrument's composite subscription, which the first client brings to life. The factory is
    /// held by reference and must outlive the request. The observer hears what the components answer or have answered,
    /// or DuplicateSubscriptionId (23) or DirectSubscriptionFailed (17).
    void Subscribe(const CompositeInstrumentDef& def, const CompositeSubscriptionInfo& info,
                   LocalObserverFactory& factory, const std::shared_ptr<IFlexiblePriceObserver>& flexibleObserver,
                   unsigned long subscriptionId);

    // --- Provider selection: composite_subscription_mgr_providers.cpp --------------------------------------------

    /// Asks again for every symbol whose provider is undecided; switches what goes to MDS. On the data-queue thread
    /// only. Nothing inside the manager calls it: the server does, by a timer of its own.
    void CheckProviderPendingSubscriptions();

    // --- Unsubscribe: composite_subscription_mgr_unsubscribe.cpp -------------------------------------------------

    /// Removes a flexible client's scope; the last one takes the composite subscription with it. The observer hears of
    /// failures only: NoSubscription (13, on the data-queue thread) or UnknownSubscriptionId (24).
    void Unsubscribe(const CompositeInstrumentDef& def, const std::shared_ptr<IFlexiblePriceObserver>& flexibleObserver,
                     unsigned long subscriptionId);
    /// Gives a direct handle back and takes down the composite subscription of its instrument, other clients' scopes
    /// included. False: the handle is not known. The observer hears of NoSubscription (13) only.
    bool Unsubscribe(unsigned long handle);
    /// A composite subscription reports that all its components are unsubscribed; it is deleted by the action that this
    /// posts. Its last touch. From any thread.
    void OnUnsubscribeCompositeSubscription(CompositeInstrumentSubscription* subscription,
                                            const CompositeInstrumentDef& def);

    // --- Scopes: composite_subscription_mgr_scopes.cpp, …_scopes_direct.cpp --------------------------------------

    /// Change what a direct handle's instrument delivers. True: the request was passed on; the observer hears of
    /// failures only (13, 23, 24, on the data-queue thread). False: the handle is not known. Removing the last scope
    /// does not end the subscription. `generateSnapshot` asks for a snapshot when the merged scope stays the same.
    bool AddScope(unsigned long handle, const CompositeSubscriptionInfo& info, unsigned long subscriptionId);
    bool RemoveScope(unsigned long handle, unsigned long subscriptionId);
    bool ChangeScope(unsigned long handle, const CompositeSubscriptionInfo& info, unsigned long subscriptionId,
                     bool generateSnapshot);
    /// Changes a flexible client's scope. The observer hears of failures only (13 on the data-queue thread, 24).
    void ChangeScope(const CompositeInstrumentDef& def, const CompositeSubscriptionInfo& info,
                     const std::shared_ptr<IFlexiblePriceObserver>& flexibleObserver, unsigned long subscriptionId,
                     bool generateSnapshot);

    // --- Symbol change: composite_subscription_mgr_symbol_change.cpp ---------------------------------------------

    /// Renames an instrument's symbol under its live subscriptions: unsubscribes them all, and when every one has
    /// answered that it is, resubscribes them all under the new symbol. One that cannot be unsubscribed leaves the
    /// change stuck for ever. The outcome is in the log.
    void ChangeSymbol(short marketId, const std::string& oldSymbol, const std::string& newSymbol);

    // --- Synthetics: composite_subscription_mgr_synthetics.cpp ---------------------------------------------------

    /// True for a synthetic whose provider is finally not MDS. From any thread.
    bool IsSyntheticSupported(const CompositeInstrumentDef& def) const;
    /// The executor of the first leg's submarket; empty, and logged, when there is none.
    std::shared_ptr<Executor> GetSyntheticExecutor(const CompositeInstrumentDef& def);
    /// Refuses with a line in the log; the observer hears nothing. This edition has no synthetics.
    void FlexibleSyntheticSubscribe(const CompositeInstrumentDef& def, const CompositeSubscriptionInfo& info,
                                    LocalObserverFactory& factory,
                                    const std::shared_ptr<IFlexiblePriceObserver>& flexibleObserver,
                                    unsigned long subscriptionId);
    /// These do nothing in this edition, or find nothing.
    void FlexibleSyntheticChangeScope(const CompositeInstrumentDef& def, const CompositeSubscriptionInfo& info,
                                      const std::shared_ptr<IFlexiblePriceObserver>& flexibleObserver,
                                      unsigned long subscriptionId, bool generateSnapshot);
    void FlexibleSyntheticUnsubscribe(const CompositeInstrumentDef& def,
                                      const std::shared_ptr<IFlexiblePriceObserver>& flexibleObserver,
                                      unsigned long subscriptionId);
    void SyntheticUnsubscribeImpl(std::shared_ptr<SyntheticPriceSubscription> subscription, unsigned long handle);
    void FlexibleSyntheticUnsubscribeImpl(std::shared_ptr<SyntheticPriceSubscription> subscription);
    std::shared_ptr<SyntheticPriceSubscription> GetSyntheticPriceSubscription(unsigned long handle,
                                                                              const CompositeInstrumentDef& def) const;
    std::shared_ptr<SyntheticPriceSubscription>
    GetFlexibleSyntheticPriceSubscription(const CompositeInstrumentDef& def) const;
    /// A synthetic subscription has finished unsubscribing: drops the manager's last reference to it. From any thread.
    void OnSyntheticUnsubscribeComplete(unsigned long handle, const CompositeInstrumentDef& def);

private:
    friend class CompositeSubscriptionMgrTestAccess;

    template <class Value>
    using ByInstrument = std::unordered_map<CompositeInstrumentID, Value, CompositeInstrumentID::Hasher>;
    using SubscriptionMap = ByInstrument<CompositeInstrumentSubscription*>;
    using DirectClient = std::tuple<CompositeInstrumentDef, std::shared_ptr<ICompositePriceObserver>>;

    /// One composite subscription's part in a symbol change.
    struct SubscriptionChangeResponse
    {
        enum State : int
        {
            Awaited = 0,
            Unsubscribed = 1,
            Failed = 2
        };
        CompositeInstrumentID id;
        int state;
        CompositeInstrumentSubscription* subscription; ///< not owned
    };
    struct SymbolChangeResponses
    {
        std::vector<SubscriptionChangeResponse> responses; ///< in the order in which they were unsubscribed
    };

    /// What a market says of every subscription of its instruments.
    struct MarketValues
    {
        unsigned defaultDepth = 0;
        unsigned maxDepth = 0;
        unsigned emptySuppressInterval = 0;
    };
    MarketValues GetMarketValues(const CompositeInstrumentDef& def) const;

    void Post(std::function<void()> action) const;
    void RegisterGauges();
    CompositeSubscriptionInfo GetAdjustedCompositeSubscriptionInfo(const CompositeInstrumentDef& def,
                                                                   const CompositeSubscriptionInfo& info) const;

    std::pair<unsigned long, Result> SubscribeImpl(const CompositeInstrumentDef& def,
                                                   const CompositeSubscriptionInfo& info,
                                                   const std::shared_ptr<ICompositePriceObserver>& observer,
                                                   unsigned long subscriptionId);
    void SubscribeImpl(const CompositeInstrumentDef& def, const CompositeSubscriptionInfo& info,
                       const std::shared_ptr<ICompositePriceObserver>& observer, unsigned long subscriptionId,
                       unsigned long handle);
    void RunDirectSubscribe(CompositeInstrumentDef&& posted, const std::shared_ptr<ICompositePriceObserver>& observer,
                            unsigned long handle, const CompositeSubscriptionInfo& info, unsigned long subscriptionId);
    void RunFlexibleSubscribe(LocalObserverFactory& factory, CompositeInstrumentDef&& def,
                              const CompositeSubscriptionInfo& info,
                              const std::shared_ptr<IFlexiblePriceObserver>& flexibleObserver,
                              unsigned long subscriptionId);
    void JoinSubscription(CompositeInstrumentSubscription& subscription, const CompositeInstrumentDef& def,
                          const CompositeSubscriptionInfo& info,
                          const std::shared_ptr<IFlexiblePriceObserver>& flexibleObserver,
                          unsigned long subscriptionId);
    void ReplayResults(CompositeInstrumentSubscription& subscription, const CompositeInstrumentDef& def,
                       const std::shared_ptr<IFlexiblePriceObserver>& flexibleObserver, unsigned long subscriptionId);
    void OpenFlexibleSubscription(LocalObserverFactory& factory, CompositeInstrumentID&& id,
                                  CompositeInstrumentDef&& posted, const CompositeSubscriptionInfo& info,
                                  const std::shared_ptr<IFlexiblePriceObserver>& flexibleObserver,
                                  unsigned long subscriptionId);
    /// The subscription takes the action's own copy of the definition over: the action is done with it.
    SubscriptionMap::iterator CreateSubscription(CompositeInstrumentID&& id, CompositeInstrumentDef&& def,
                                                 const MarketValues& market, const CompositeSubscriptionInfo& adjusted,
                                                 const std::shared_ptr<ICompositePriceObserver>& observer,
                                                 unsigned long handle);
    /// Subscribes the components and files the subscription by their answer; returns why it failed, empty if not.
    std::string SubscribeComponents(const CompositeInstrumentDef& def, CompositeInstrumentSubscription* subscription);

    /// The live subscription of an instrument; null when there is none.
    CompositeInstrumentSubscription* FindSubscription(const CompositeInstrumentDef& def) const;

    void AddPendingSubscription(const CompositeInstrumentDef& def, CompositeInstrumentSubscription* subscription);
    void UnsubscribeAndMarkPending(const CompositeInstrumentDef& def, SubscriptionMap::iterator it);

    void RunFlexibleUnsubscribe(const CompositeInstrumentDef& def,
                                const std::shared_ptr<IFlexiblePriceObserver>& flexibleObserver,
                                unsigned long subscriptionId);
    void UnsubscribeImpl(const CompositeInstrumentDef& def, const std::shared_ptr<ICompositePriceObserver>& observer,
                         unsigned long handle);
    /// The same, for who is done with both: nothing is copied.
    void UnsubscribeImpl(CompositeInstrumentDef&& def, std::shared_ptr<ICompositePriceObserver>&& observer,
                         unsigned long handle);
    void RunDirectUnsubscribe(const CompositeInstrumentDef& def,
                              const std::shared_ptr<ICompositePriceObserver>& observer, unsigned long handle);
    void RunTeardown(CompositeInstrumentSubscription* subscription, const CompositeInstrumentDef& def);

    void AddScopeImpl(const CompositeInstrumentDef& def, const std::shared_ptr<ICompositePriceObserver>& observer,
                      unsigned long handle, const CompositeSubscriptionInfo& info, unsigned long subscriptionId,
                      const std::shared_ptr<IFlexiblePriceObserver>& flexibleObserver);
    void RemoveScopeImpl(const CompositeInstrumentDef& def, const std::shared_ptr<ICompositePriceObserver>& observer,
                         unsigned long handle, unsigned long subscriptionId);
    void ChangeScopeImpl(const CompositeInstrumentDef& def, const std::shared_ptr<ICompositePriceObserver>& observer,
                         unsigned long handle, const CompositeSubscriptionInfo& info, unsigned long subscriptionId,
                         bool generateSnapshot);
    void RunFlexibleChangeScope(const CompositeInstrumentDef& def, const CompositeSubscriptionInfo& info,
                                const std::shared_ptr<IFlexiblePriceObserver>& flexibleObserver,
                                unsigned long subscriptionId, bool generateSnapshot);

    void RunSymbolChange(short marketId, const std::string& oldSymbol, const std::string& newSymbol);
    void RunSymbolChangeResponse(const CompositeInstrumentID& id, CompositeInstrumentSubscription* subscription,
                                 bool ok, const std::string& newSymbol, short marketId);

    void RunSyntheticUnsubscribeComplete(unsigned long handle, const CompositeInstrumentDef& def);

    // The order is fixed. "Queue thread": guarded by g_queueThreadRole; "set by Init": constant between Init calls.
    std::shared_ptr<Config> m_config;                       ///< set by Init
    ActionCenter<Queue, Task>* m_actionCenter = nullptr;    ///< set by Init; owned, deleted first of all
    Queue* m_dataQueue = nullptr;                           ///< set by Init; not owned
    std::shared_ptr<AsyncDispatcher> m_asyncDispatcher;     ///< set by Init
    [[maybe_unused]] std::function<void()> m_callback;      ///< not used
    std::shared_ptr<ICompositePriceFactory> m_priceFactory; ///< set by Init
    SimpleSubscriptionMgr* m_simpleSubscriptionMgr;         ///< not owned
    std::unordered_map<unsigned long, DirectClient> m_subscriptionByHandle PS_GUARDED_BY(g_handleMapsRole);
    ByInstrument<unsigned long> m_handleByCompositeInstrumentID PS_GUARDED_BY(g_handleMapsRole);
    std::uint64_t m_nextHandle PS_GUARDED_BY(g_handleMapsRole) = 1;
    mutable std::mutex m_mutex; ///< with g_handleMapsRole; guards the three above
    SubscriptionMap m_subscriptionByCompositeInstrumentID PS_GUARDED_BY(g_queueThreadRole);
    std::unordered_map<unsigned long, std::shared_ptr<SyntheticPriceSubscription>>
        m_syntheticByHandle PS_GUARDED_BY(g_queueThreadRole);
    ByInstrument<std::shared_ptr<SyntheticPriceSubscription>>
        m_syntheticByCompositeInstrumentID PS_GUARDED_BY(g_queueThreadRole);
    ByInstrument<std::shared_ptr<SyntheticPriceSubscription>>
        m_flexibleSyntheticByCompositeInstrumentID PS_GUARDED_BY(g_queueThreadRole);
    std::unordered_map<CompositeInstrumentSubscription*, CompositeInstrumentID>
        m_compositeInstrumentIDBySubscription PS_GUARDED_BY(g_queueThreadRole);
    std::unordered_map<unsigned long, std::shared_ptr<SyntheticPriceSubscription>>
        m_pendingSyntheticUnsubscribeByHandle PS_GUARDED_BY(g_queueThreadRole);
    ByInstrument<std::shared_ptr<SyntheticPriceSubscription>>
        m_pendingSyntheticUnsubscribeByCompositeInstrumentID PS_GUARDED_BY(g_queueThreadRole);
    std::unordered_map<PendingSubscriptionID, std::vector<CompositeInstrumentSubscription*>>
        m_pendingProviderSubscriptions PS_GUARDED_BY(g_queueThreadRole);
    std::array<std::shared_ptr<AsyncTask>, 1> m_periodicTasks; ///< owner's; slot 0: "MonitorPendingSymbolsTask"
    std::uint32_t m_monitorPendingSymbolsPeriod = 2000;        ///< owner's; milliseconds, 0: no such task
    std::uint32_t m_instrumentMonitoringInterval_sec = 0;      ///< set by Init
    bool m_skipUnchangedSnapshots = true;                      ///< set by Init, whose default is the other one
    [[maybe_unused]] std::uint32_t m_reserved = 0;             ///< not used
    [[maybe_unused]] std::shared_ptr<void> m_reservedShared;   ///< not used
    CallbackTimeStats m_snapshotCallbackTime;                  ///< atomic
    CallbackTimeStats m_tradesCallbackTime;                    ///< atomic
    std::unordered_map<short, std::unordered_map<std::string, SymbolChangeResponses>>
        m_symbolChangeResponses PS_GUARDED_BY(g_queueThreadRole);
    std::unordered_map<short, std::unordered_map<std::string, std::string>>
        m_symbolChanges PS_GUARDED_BY(g_queueThreadRole);
    zel::metrics::Store<zel::metrics::Gauge, 5> m_gauges; ///< set by Init; the gauges are atomic
};

/// Market and submarket of a definition's first leg; (-1, -1) for a definition without legs. The submarket is read from
/// the leg's exchange name: "ICE" and "ICE_L" 1, "ICEO" and "ICE_LO" 2, a name that ends in "_" and a digit that digit,
/// any other name -1.
Submarket GetSyntheticExecutorSubmarket(const CompositeInstrumentDef& def);

/// The local observer of a synthetic subscription: none in this edition.
ICompositePriceObserver* GetLocalObserverShimFromSynthetic(SyntheticPriceSubscription& subscription);

} // namespace ps_ns
