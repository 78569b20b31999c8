#pragma once

#include "composite_instrument/composite_component_type.h"
#include "composite_instrument/composite_instrument_def.h"
#include "composite_instrument/composite_instrument_id.h"
#include "composite_instrument/composite_subscription_info.h"
#include "composite_instrument/composite_subscription_state.h"
#include "composite_instrument/i_flexible_price_observer.h"
#include "composite_instrument/provider_type.h"
#include "composite_instrument/subscription_result.h"
#include "price_unifier/source/scope_table.h"
#include "price_unifier/source/subscription_core.h"
#include "simple_subscription/subscription_registry.h"

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <tuple>

namespace ps_ns
{

class ComponentLink;
class CompositeSubscriptionMgr;
class ICompositePriceObserver;
class SimpleSubscriptionMgr;

/// One component of a composite subscription, for people who look into the server.
struct ComponentView
{
    bool isWanted = false;
    bool isDecided = false;    ///< its provider is final
    bool isSubscribed = false; ///< with its provider
    ProviderType::Value provider = ProviderType::Zel;
    std::string symbol; ///< what the provider knows it by
    ps_messages_ns::SubscriptionResult::Value result = ps_messages_ns::SubscriptionResult::None; ///< its last answer
};

/// The one live subscription of an instrument identity: holds the clients' scopes, subscribes the instrument's
/// components with their providers, and has what they deliver merged and handed to the clients.
///
/// It is a thin shell around a core that owns what other threads use (subscription_core.h).
///
/// Threads: the data-queue thread only, unless an operation says otherwise. Observers are called on the executor of the
/// instrument's submarket.
///
/// Ownership: made by the manager with new, and deleted by it after the subscription has reported that it is
/// unsubscribed; what the manager leaves behind is deleted by the registry in which the constructor enrols it.
///
/// Ends: after UnsubscribeComponents it reports to the manager exactly once, as its last touch, from whatever thread
/// the last provider answered on. Under a symbol change it holds that report back until ResubscribeDirect, or until the
/// change has failed.
class CompositeInstrumentSubscription final : public EnrolledSubscription, private IUnsubscribeOwner
{
public:
    /// What a symbol change asks: it passes over what is not Active.
    enum LifeState : int
    {
        Active = 0,
        DirectUnsubscribed = 1 ///< the direct component is unsubscribed or about to be
    };

    using ScopeEntry = std::tuple<CompositeSubscriptionInfo, std::shared_ptr<IFlexiblePriceObserver>>;
    using UnsubscribeAnswer = std::function<void(const CompositeInstrumentID&, bool)>;

    /// `adjustedScope` has a real depth, no sentinel. `handle` is 0 on the flexible interface. Intervals: the
    /// empty-book one in milliseconds, 0 for none; the monitoring one in seconds, 0 for none.
    CompositeInstrumentSubscription(SimpleSubscriptionMgr* simpleSubscriptionMgr, const CompositeInstrumentDef& def,
                                    const CompositeSubscriptionInfo& adjustedScope,
                                    const std::shared_ptr<ICompositePriceObserver>& observer, unsigned long handle,
                                    CompositeSubscriptionMgr* manager, bool skipUnchangedSnapshots,
                                    unsigned defaultDepth, unsigned maxDepth, unsigned emptySuppressInterval,
                                    unsigned instrumentMonitoringInterval_sec);
    /// The same, for a caller who is done with the definition: it is not copied.
    CompositeInstrumentSubscription(SimpleSubscriptionMgr* simpleSubscriptionMgr, CompositeInstrumentDef&& def,
                                    const CompositeSubscriptionInfo& adjustedScope,
                                    const std::shared_ptr<ICompositePriceObserver>& observer, unsigned long handle,
                                    CompositeSubscriptionMgr* manager, bool skipUnchangedSnapshots,
                                    unsigned defaultDepth, unsigned maxDepth, unsigned emptySuppressInterval,
                                    unsigned instrumentMonitoringInterval_sec);
    ~CompositeInstrumentSubscription() override;

    // --- Scopes. There is one space of ids, direct and flexible together. ---

    /// False: the id is taken, and nothing has changed. True: `newAggregate` is the merged scope with it. An empty
    /// observer is a direct client's scope. On an exception nothing has changed.
    bool AddScope(const CompositeSubscriptionInfo& info, unsigned long subscriptionId,
                  const std::shared_ptr<IFlexiblePriceObserver>& flexibleObserver,
                  CompositeSubscriptionInfo& newAggregate);
    /// False: the id is not known. With no scope left the merged scope stays what it was.
    bool RemoveScope(unsigned long subscriptionId, CompositeSubscriptionInfo& newAggregate);
    /// False: the id is not known.
    bool ChangeScope(const CompositeSubscriptionInfo& info, unsigned long subscriptionId,
                     CompositeSubscriptionInfo& newAggregate);
    /// Re-targets the components to a new merged scope; the clients that it concerns get a new book.
    void ChangeScope(const CompositeSubscriptionInfo& aggregate);
    bool GetScope(unsigned long subscriptionId, ScopeEntry& entry) const;
    bool HasIndividualSubscriptions() const noexcept { return !m_scopes.IsEmpty(); }
    const CompositeSubscriptionInfo& GetMergedScope() const noexcept { return m_mergedScope; }

    // --- Components ---

    /// Subscribes each wanted component with its provider. 0: subscribed; 1: no component could be; 2: which provider
    /// serves the first one that could be is not decided; anything else is that provider's own. Throws SubscriptionEx
    /// when no component could be subscribed and there is more to say.
    int SubscribeComponents();
    /// Ends the subscription: nothing more is delivered, and the manager is told when all providers have answered. Does
    /// not throw.
    void UnsubscribeComponents() noexcept;
    /// Has another provider serve a component; the book stays until the new one's image replaces it. Nothing happens
    /// after UnsubscribeComponents.
    void SwitchProvider(CompositeComponentType::Type component, ProviderType::Value provider);
    /// Unsubscribes the components for a symbol change; `answer` is called exactly once, perhaps before this returns.
    /// Does not throw.
    void UnsubscribeDirect(UnsubscribeAnswer answer) noexcept;
    /// Subscribes the components again under a new symbol, unless the subscription has ended meanwhile. Does not throw.
    void ResubscribeDirect(const std::string& newSymbol) noexcept;

    // --- Delivery ---

    /// From any thread.
    bool AnySnapshotsReceived() const noexcept { return m_core->AnySnapshotsReceived(); }
    /// Sends the newest book again to whose scope was added or changed last; for a direct client's scope, to the
    /// subscription's own observer.
    void GenerateMergedSnapshotViaExecutor(GenerateSnapshotReason reason);
    /// Runs a task on the subscription's executor.
    void RunViaExecutor(std::function<void()> task);

    // --- What the manager reads ---

    /// As given to the constructor; a symbol change does not touch it.
    const CompositeInstrumentDef& GetDefinition() const noexcept { return m_core->GetDefinition(); }
    /// The symbol now subscribed.
    const std::string& GetSymbol() const noexcept
    {
        return m_newSymbol != nullptr ? *m_newSymbol : GetDefinition().GetSymbol();
    }
    LifeState GetLifeState() const noexcept { return m_lifeState; }
    ProviderType::Value GetProviderType() const noexcept { return m_provider; }
    CompositeSubscriptionState GetState() const { return m_core->GetState(); }
    /// What a component had answered when the last scope was added (None: nothing yet): what came later reaches that
    /// scope's client by itself.
    ps_messages_ns::SubscriptionResult::Value GetSubscribeResult(CompositeComponentType::Type component) const;
    const PriceFormat& GetPriceFormat(CompositeComponentType::Type component) const;
    /// When the newest update in the book reached the provider, ns since 1970 UTC; 0: none yet. From any thread.
    std::uint64_t GetLastUpdateTime_ns() const noexcept { return m_core->GetLastUpdateTime_ns(); }
    ComponentView GetComponentView(CompositeComponentType::Type component) const;
    /// Calls `visit` for each scope, in no order: its id, what it asks for, and the name of its observer.
    template <class Visit>
    void ForEachScope(Visit&& visit) const
    {
        m_scopes.ForEach(
            [&](const Scope& scope)
            {
                const bool isDirect = scope.client == nullptr;
                visit(scope.id, scope.info,
                      isDirect ? m_core->GetObserver()->GetName() : scope.client->observer->GetName());
            });
    }
    /// Callbacks made so far, like "books=12 trades=3 customFields=0".
    std::string GetCountsAsString() const;

    void Describe(std::ostream& out) const override;

private:
    struct Component
    {
        std::shared_ptr<ComponentLink> link; ///< null: not subscribed
        ProviderType::Value provider = ProviderType::Zel;
        bool isDecided = true; ///< its provider is final
    };

    /// Of a wanted one.
    Component& Get(CompositeComponentType::Type type) { return m_components.Get(type); }
    /// Calls `use(Component&)` for each wanted one, in their order.
    template <class Use>
    void ForEachComponent(const Use& use)
    {
        for (std::size_t i = 0; i < CompositeComponentType::kCount; ++i)
        {
            const auto type = static_cast<CompositeComponentType::Type>(i);
            if (IsWanted(type))
            {
                use(Get(type));
            }
        }
    }
    bool IsWanted(CompositeComponentType::Type type) const
    {
        return GetDefinition().components[static_cast<std::size_t>(type)];
    }
    CompositeSubscriptionInfo MergeScopes() const;
    void Join(const std::shared_ptr<ClientScope>& client);
    void OnAllUnsubscribed() override;

    void DecideProvider(CompositeComponentType::Type type);
    /// Subscribes one component with its provider; returns the status, and why if it is a failure with a reason.
    int Subscribe(CompositeComponentType::Type type, std::string& why);
    /// Who is interested hears that a component has no prices, as of any answer; a later success replaces it.
    void ReportFailure(CompositeComponentType::Type type);
    void Unsubscribe(Component& component, bool forSymbolChange) noexcept;
    void LogThrown(const char* doing) const noexcept;
    void SubscribeAnew(CompositeComponentType::Type type);

    SimpleSubscriptionMgr* const m_simpleSubscriptionMgr;
    const unsigned long m_handle;
    const std::shared_ptr<SubscriptionCore> m_core;
    std::shared_ptr<const std::string> m_newSymbol;     ///< null: still the definition's
    ProviderType::Value m_provider = ProviderType::Zel; ///< who serves the first wanted component that could be
    LifeState m_lifeState = Active;
    CompositeSubscriptionInfo m_mergedScope;
    bool m_isEnding = false;
    bool m_hasBegun = false; ///< the components have been asked for: there may be answers
    bool m_hadSnapshotAtJoin = false;
    std::uint8_t m_replaysToCome = 0; ///< to the last asker, who has just joined
    ScopeTable m_scopes;
    std::shared_ptr<ClientScope> m_lastAsker; ///< whose scope was added or changed last; null: a direct client's
    std::unique_ptr<ComponentAnswers> m_answersAtJoin; ///< null: there were none, at any join
    WantedComponents<Component> m_components;
};

// One block of the heap's: there are a hundred thousand of these.
static_assert(sizeof(CompositeInstrumentSubscription) <= 224);

} // namespace ps_ns
