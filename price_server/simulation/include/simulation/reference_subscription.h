#pragma once

#include "simulation/expectations.h"
#include "simulation/stage.h"

#include <array>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace ps_ns::simulation
{

class ReferenceSubscription;

/// What subscriptions share in the model: the providers with their links, the symbol changes under way, and the
/// expectations.
class ReferenceProviders
{
public:
    struct Link
    {
        ReferenceSubscription* subscription = nullptr;
        int component = 0;
        ProviderType::Value provider = ProviderType::Zel;
        std::string symbol;
        bool isUnsubscribing = false;
        bool isForChange = false;
        bool isAnswered = false;
    };

    ReferenceProviders(const Conditions& allConditions, Expectations& allExpectations)
        : conditions(allConditions)
        , expectations(allExpectations)
    {
    }

    /// The numbers of the links that are subscribed, or whose unsubscribe waits for its answer, in their order.
    std::vector<int> GetLinks(bool areUnsubscribing) const;

    const Conditions& conditions;
    Expectations& expectations;
    std::map<int, Link> links; ///< by the number that the provider counts
    int lastLink = 0;

    /// Who is under a change of a symbol, in the order of joining; a failed change stays failed.
    struct Change
    {
        bool hasFailed = false;
        std::vector<int> members;
    };
    std::map<std::pair<short, std::string>, Change> changes;
    std::map<int, ReferenceSubscription*> subscriptions; ///< those that live
};

/// The model of a composite subscription: scopes, components with their answers, and when it may be deleted. Books,
/// trades and fields are not in it.
class ReferenceSubscription
{
public:
    struct Scope
    {
        CompositeSubscriptionInfo info;
        std::string observer; ///< empty: a direct client's
    };
    struct Component
    {
        bool isWanted = false;
        bool isDecided = true;
        ProviderType::Value provider = ProviderType::Zel;
        int link = 0; ///< 0: not subscribed
    };
    struct Answer
    {
        Result result = ps_messages_ns::SubscriptionResult::None;
        PriceFormat format;
        friend bool operator==(const Answer&, const Answer&) = default;
    };

    ReferenceSubscription(int number, const CompositeInstrumentDef& def, std::string observer,
                          const CompositeSubscriptionInfo& scope, ReferenceProviders& providers,
                          std::function<void()> completed);
    ~ReferenceSubscription();
    ReferenceSubscription(const ReferenceSubscription&) = delete;
    ReferenceSubscription& operator=(const ReferenceSubscription&) = delete;

    bool AddScope(const CompositeSubscriptionInfo& info, unsigned long id, const std::string& observer);
    bool RemoveScope(unsigned long id);
    bool ChangeScope(const CompositeSubscriptionInfo& info, unsigned long id);
    /// Tells the components.
    void ChangeScope(const CompositeSubscriptionInfo& merged);
    /// The union of the scopes.
    CompositeSubscriptionInfo MergeScopes() const;

    /// A status; or what is thrown: the reason of a refusal comes in `reason`, everything else as ModelThrows.
    int SubscribeComponents(std::string& reason);
    void UnsubscribeComponents();
    void SwitchProvider(int component, ProviderType::Value provider);
    void UnsubscribeDirect(std::function<void(bool)> answered);
    void ResubscribeDirect(const std::string& newSymbol);

    /// A provider answers a subscribe, or an unsubscribe.
    void OnAnswer(int link, Result result, const PriceFormat& format);
    void OnUnsubscribed(int link, bool ok);
    void OnChangeFailed();

    const int number;
    const CompositeInstrumentDef def;
    const std::string observer;
    std::string symbol;
    ProviderType::Value provider = ProviderType::Zel;
    CompositeSubscriptionInfo mergedScope;
    std::map<unsigned long, Scope> scopes;
    std::vector<unsigned long> clients; ///< the flexible ones, in the order of joining
    std::array<Component, 3> components;
    std::array<Answer, 3> answers;
    bool isUnsubscribed = false; ///< a change of symbol passes it over
    bool isEnding = false;
    CompositeSubscriptionState state; ///< what replays show

private:
    std::string GetComponentSymbol(int component) const;
    void Decide(int component);
    int Subscribe(int component, std::string& why, bool& isRefused);
    void SubscribeAnew(int component);
    void ReportFailure(int component);
    void Tell(int component, const Answer& answer);
    void Unsubscribe(Component& component, bool forChange);
    void Settle();
    void LogThrown(const char* doing, const std::string& what);

    ReferenceProviders& m_providers;
    std::function<void()> m_completed;
    std::array<Answer, 3> m_told;

    // When its end may be reported: when no provider owes an answer, and no change of symbol holds it back.
    bool m_isTornDown = false;
    bool m_isInChange = false;
    bool m_isExpecting = false;
    bool m_hasChangeFailed = false;
    bool m_isChangeOk = true;
    std::function<void(bool)> m_changeAnswered;
};

} // namespace ps_ns::simulation
