#pragma once

#include "composite_instrument/composite_subscription_state.h"
#include "composite_instrument/provider_type.h"
#include "price_unifier/source/delivery_host.h"
#include "price_unifier/source/price_delivery.h"
#include "price_unifier/source/unsubscribe_gate.h"
#include "simple_subscription/subscription_surroundings.h"

#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace ps_ns
{

using ComponentAnswers = std::array<ComponentAnswer, CompositeComponentType::kCount>;

/// The part of a composite subscription that other threads use: it hands what providers deliver over to the executor,
/// where PriceDelivery works. Posted work holds the core, never the subscription itself, so that deleting the
/// subscription waits for nobody.
///
/// Threads: as each operation says. What arrives for a subscription that has been silenced is dropped.
///
/// A client that joins gets each component's answer exactly once: by the manager's replay when it was there at the
/// join, and by delivery when it came later. Both happen under one lock.
class SubscriptionCore final : public DeliveryHost, public std::enable_shared_from_this<SubscriptionCore>
{
public:
    using Surroundings = std::shared_ptr<const SubscriptionSurroundings>;

    /// `owner` hears when the gate has everything that is owed.
    SubscriptionCore(CompositeInstrumentDef&& def, const std::shared_ptr<ICompositePriceObserver>& observer,
                     CompositeSubscriptionMgr* manager, const CompositeSubscriptionInfo& scope,
                     const Settings& settings, Surroundings surroundings, IUnsubscribeOwner* owner);
    ~SubscriptionCore() override;

    // --- Any thread ---

    CompositeSubscriptionState GetState() const;
    bool AnySnapshotsReceived() const noexcept { return m_hasSnapshot.load(); }
    std::uint64_t GetLastUpdateTime_ns() const noexcept { return m_lastUpdateTime_ns.load(); }
    /// Runs a task on the executor, silenced or not.
    void RunViaExecutor(std::function<void()> task) { m_surroundings->executor->Post(std::move(task)); }
    /// Counts what providers owe the subscription. It is here because who owes an answer keeps the core alive.
    UnsubscribeGate& GetGate() noexcept { return m_gate; }

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
    /// A component is about to be subscribed (anew): counts the epoch and notes who serves it under which symbol; null:
    /// the definition's.
    void BeginEpoch(CompositeComponentType::Type component, ProviderType::Value provider,
                    const std::shared_ptr<const std::string>& newSymbol);
    /// Nothing more to anybody, and no answer or data is taken in.
    void Silence() noexcept;

    // --- The providers' threads, through a ComponentLink ---

    /// Takes in an answer, unless `isLive`, which Exclude clears, is false by then: the answer of a provider that has
    /// been left must not overwrite its successor's.
    void OnAnswer(const std::atomic<bool>& isLive, CompositeComponentType::Type component,
                  ps_messages_ns::SubscriptionResult::Value result, const PriceFormat& format);
    void Exclude(std::atomic<bool>& isLive);
    /// Excludes a provider that owes the answer to an unsubscribe from now on.
    void ExcludeAndExpect(std::atomic<bool>& isLive, bool forSymbolChange);
    /// Runs `call(SubscriptionCore&)` on the executor, unless the subscription is silent by then. A template, so that
    /// what is posted is one function object, with one allocation.
    template <class Call>
    void Run(Call call)
    {
        m_surroundings->executor->Post(
            [self = shared_from_this(), call = std::move(call)]
            {
                if (!self->m_isSilent.load())
                {
                    call(*self);
                }
            });
    }

    // --- The executor ---

    /// Made when it is asked for.
    PriceDelivery& GetDelivery();
    /// Null when there has been no price and no client.
    PriceDelivery* FindDelivery() noexcept { return m_delivery.get(); }
    /// With each book.
    void NoteSnapshot() noexcept
    {
        m_hasSnapshot.store(m_delivery->HasSnapshot());
        m_lastUpdateTime_ns.store(m_delivery->GetReceiveTime_ns());
    }
    std::shared_ptr<AsyncTask> MakeTimer(const char* name, std::function<void()> onExpiry) override;
    Clock::time_point Now() const override { return m_surroundings->timers->Now(); }
    void OnStaleChanged(bool isStale) override;

private:
    /// What changes of the state; the definition says the rest.
    struct ChangingState
    {
        std::shared_ptr<const std::string> newSymbol; ///< null: the definition's
        std::uint32_t epoch = 0;                      ///< 0: no component has been subscribed
        std::int8_t provider = ProviderType::Zel;
        bool isStale = false;
    };

    ComponentAnswers CopyAnswers() const;
    CompositeSubscriptionState MakeState(const ChangingState& changing) const;
    void TakeAnswer(CompositeComponentType::Type component, const ComponentAnswer& answer,
                    const ChangingState& changing, bool isNews);

    const Surroundings m_surroundings;
    std::unique_ptr<PriceDelivery> m_delivery; ///< executor only; here it is near what else each task reads

    UnsubscribeGate m_gate; ///< its mutex also guards the state and the components' last answers
    ChangingState m_state;

    std::atomic<std::uint64_t> m_lastUpdateTime_ns{0};
};

// One block of the heap's with its reference counts: there are a hundred thousand of these.
static_assert(sizeof(SubscriptionCore) <= 512 - 16);

} // namespace ps_ns
