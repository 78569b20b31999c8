#pragma once

#include "async/async_dispatcher.h"
#include "async/executor.h"
#include "composite_instrument/provider_type.h"
#include "metrics/metrics.h"
#include "price_unifier/source/price_delivery.h"

#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace ps_ns
{

/// What a component has answered to its subscribe, if anything.
struct ComponentAnswer
{
    ps_messages_ns::SubscriptionResult::Value result = ps_messages_ns::SubscriptionResult::None;
    PriceFormat format;
};
using ComponentAnswers = std::array<ComponentAnswer, CompositeComponentType::kCount>;

/// The part of a composite subscription that other threads use: it hands what providers deliver over to the executor,
/// where PriceDelivery works. Posted work holds the core, never the subscription itself, so that deleting the
/// subscription waits for nobody.
///
/// Threads: as each operation says. What arrives for a subscription that has been silenced is dropped.
///
/// A client that joins gets each component's answer exactly once: by the manager's replay when it was there at the
/// join, and by delivery when it came later. Both happen under one lock.
class SubscriptionCore final : public std::enable_shared_from_this<SubscriptionCore>
{
public:
    SubscriptionCore(CompositeInstrumentDef&& def, const std::shared_ptr<ICompositePriceObserver>& observer,
                     CompositeSubscriptionMgr* manager, const CompositeSubscriptionInfo& scope,
                     const PriceDelivery::Settings& settings, std::shared_ptr<Executor> executor,
                     std::shared_ptr<AsyncDispatcher> timers, zel::metrics::Gauge staleGauge);
    ~SubscriptionCore();
    SubscriptionCore(const SubscriptionCore&) = delete;
    SubscriptionCore& operator=(const SubscriptionCore&) = delete;

    // --- Any thread ---

    const CompositeInstrumentDef& GetDefinition() const noexcept { return m_def; }
    CompositeSubscriptionState GetState() const;
    bool AnySnapshotsReceived() const noexcept { return m_hasSnapshot.load(); }
    const CallbackCounts& GetCounts() const noexcept { return m_delivery.GetCounts(); }
    std::uint64_t GetLastUpdateTime_ns() const noexcept { return m_lastUpdateTime_ns.load(); }
    const std::string& GetObserverName() const noexcept { return m_delivery.GetObserverName(); }
    /// Runs a task on the executor, silenced or not.
    void RunViaExecutor(std::function<void()> task) { m_executor->Post(std::move(task)); }

    // --- The data-queue thread ---

    /// Adds a flexible client and returns the answers it has missed, which the manager replays.
    ComponentAnswers AddClient(const std::shared_ptr<ClientScope>& client);
    /// The answers so far, for a scope without an observer of its own.
    ComponentAnswers GetAnswers() const;
    /// To be called after the replays have been posted: data may follow them.
    void ActivateClient(std::shared_ptr<ClientScope> client, bool hadSnapshotAtJoin);
    void RemoveClient(std::shared_ptr<ClientScope> client);
    void ChangeClient(std::shared_ptr<ClientScope> client, const CompositeSubscriptionInfo& info);
    void SetMergedScope(const CompositeSubscriptionInfo& scope);
    /// To one client, or to the own observer when it is null.
    void GenerateSnapshot(std::uint32_t reason, std::shared_ptr<ClientScope> client);
    /// A component is about to be subscribed (anew): counts the epoch and notes who serves it under which symbol.
    void BeginEpoch(CompositeComponentType::Type component, ProviderType::Value provider, const std::string& symbol);
    /// Nothing more to anybody, and no answer or data is taken in.
    void Silence() noexcept;

    // --- The providers' threads, through a ComponentLink ---

    /// Takes in an answer, unless `isLive`, which Exclude clears, is false by then: the answer of a provider that has
    /// been left must not overwrite its successor's.
    void OnAnswer(const std::atomic<bool>& isLive, CompositeComponentType::Type component,
                  ps_messages_ns::SubscriptionResult::Value result, const PriceFormat& format);
    void Exclude(std::atomic<bool>& isLive);
    /// Runs `deliver(PriceDelivery&)` on the executor, unless the subscription is silent by then. A template, so that
    /// what is posted is one function object, with one allocation.
    template <class Call>
    void Deliver(Call deliver)
    {
        m_executor->Post(
            [self = shared_from_this(), deliver = std::move(deliver)]
            {
                if (!self->m_isSilent.load())
                {
                    deliver(self->m_delivery);
                }
            });
    }
    /// On the executor, with each book.
    void NoteSnapshot() noexcept
    {
        m_hasSnapshot.store(m_delivery.HasSnapshot());
        m_lastUpdateTime_ns.store(m_delivery.GetReceiveTime_ns());
    }

private:
    /// What changes of the state; the definition says the rest.
    struct ChangingState
    {
        bool isStale = false;
        bool isRenamed = false; ///< `symbol` is not the definition's
        ProviderType::Value provider = ProviderType::Zel;
        std::uint64_t epoch = 0; ///< 0: no component has been subscribed
        std::string symbol;
    };

    CompositeSubscriptionState MakeState() const;
    void OnStaleChanged(bool isStale);
    std::shared_ptr<AsyncTask> MakeTimer(const char* name, std::function<void()> onExpiry);

    const CompositeInstrumentDef m_def;
    const std::shared_ptr<Executor> m_executor;
    const std::shared_ptr<AsyncDispatcher> m_timers;
    std::atomic<bool> m_isSilent{false};
    std::atomic<bool> m_hasSnapshot{false};
    std::atomic<std::uint64_t> m_lastUpdateTime_ns{0};

    mutable std::mutex m_mutex;
    ComponentAnswers m_answers; ///< under m_mutex
    ChangingState m_state;      ///< under m_mutex

    zel::metrics::Gauge m_staleGauge;
    unsigned m_staleComponents = 0; ///< executor only, and the destructor

    PriceDelivery m_delivery; ///< executor only, but for its counts
};

} // namespace ps_ns
