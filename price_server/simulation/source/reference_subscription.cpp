#include "simulation/reference_subscription.h"

#include <algorithm>
#include <utility>

namespace ps_ns::simulation
{

using ps_messages_ns::SubscriptionResult;

namespace
{

constexpr int kSubscribed = 0;
constexpr int kFailed = 1;
constexpr int kPending = 2;
constexpr int kSomethingElse = 7;

std::size_t Index(int component)
{
    return static_cast<std::size_t>(component);
}

} // namespace

std::vector<int> ReferenceProviders::GetLinks(bool areUnsubscribing) const
{
    std::vector<int> numbers;
    for (const auto& [number, link] : links)
    {
        if (link.isUnsubscribing == areUnsubscribing)
        {
            numbers.push_back(number);
        }
    }
    return numbers;
}

ReferenceSubscription::ReferenceSubscription(int subscriptionNumber, const CompositeInstrumentDef& definition,
                                             std::string ownObserver, const CompositeSubscriptionInfo& scope,
                                             ReferenceProviders& providers, std::function<void()> completed)
    : number(subscriptionNumber)
    , def(definition)
    , observer(std::move(ownObserver))
    , symbol(definition.GetSymbol())
    , mergedScope(scope)
    , state(definition.components)
    , m_providers(providers)
    , m_completed(std::move(completed))
{
    for (std::size_t i = 0; i < components.size(); ++i)
    {
        components[i].isWanted = def.components[i];
    }
    m_providers.subscriptions[number] = this;
}

ReferenceSubscription::~ReferenceSubscription()
{
    m_providers.subscriptions.erase(number);
}

// --- Scopes ----------------------------------------------------------------------------------------------------------

CompositeSubscriptionInfo ReferenceSubscription::MergeScopes() const
{
    if (scopes.empty())
    {
        return mergedScope;
    }
    CompositeSubscriptionInfo merged = scopes.begin()->second.info;
    for (const auto& [id, scope] : scopes)
    {
        merged.depth = std::max(merged.depth, scope.info.depth);
        merged.conflationInterval_ms = std::min(merged.conflationInterval_ms, scope.info.conflationInterval_ms);
        merged.trades = merged.trades || scope.info.trades;
        merged.customFields = merged.customFields || scope.info.customFields;
    }
    return merged;
}

bool ReferenceSubscription::AddScope(const CompositeSubscriptionInfo& info, unsigned long id,
                                     const std::string& scopeObserver)
{
    if (!scopes.try_emplace(id, Scope{info, scopeObserver}).second)
    {
        return false;
    }
    if (!scopeObserver.empty())
    {
        clients.push_back(id);
    }
    mergedScope = MergeScopes();
    return true;
}

bool ReferenceSubscription::RemoveScope(unsigned long id)
{
    const auto scope = scopes.find(id);
    if (scope == scopes.end())
    {
        return false;
    }
    if (!scope->second.observer.empty())
    {
        std::erase(clients, id);
        m_providers.expectations.Silence(def.marketId, number, id);
    }
    scopes.erase(scope);
    mergedScope = MergeScopes();
    return true;
}

bool ReferenceSubscription::ChangeScope(const CompositeSubscriptionInfo& info, unsigned long id)
{
    const auto scope = scopes.find(id);
    if (scope == scopes.end())
    {
        return false;
    }
    scope->second.info = info;
    mergedScope = MergeScopes();
    return true;
}

void ReferenceSubscription::ChangeScope(const CompositeSubscriptionInfo& merged)
{
    for (const Component& component : components)
    {
        if (component.link != 0)
        {
            m_providers.expectations.Add(SpellProviderCall(component.provider, "ChangeScope", component.link,
                                                           m_providers.links.at(component.link).symbol,
                                                           " " + SpellScope(merged)));
        }
    }
}

// --- Components ------------------------------------------------------------------------------------------------------

std::string ReferenceSubscription::GetComponentSymbol(int component) const
{
    static constexpr std::array<const char*, 3> prefixes{"", "IM_", "AI_"};
    return prefixes[Index(component)] + symbol;
}

void ReferenceSubscription::Decide(int component)
{
    Component& own = components[Index(component)];
    std::tie(own.provider, own.isDecided) = m_providers.conditions.Decide(def.marketId, GetComponentSymbol(component));
    if (!own.isDecided)
    {
        m_providers.expectations.faults.Count(Fault::ProviderUndecided);
    }
}

int ReferenceSubscription::Subscribe(int component, std::string& why, bool& isRefused)
{
    Component& own = components[Index(component)];
    const std::string asked = GetComponentSymbol(component);
    Expectations& expectations = m_providers.expectations;
    isRefused = false;
    if (own.provider == ProviderType::Zel && !m_providers.conditions.hasZel)
    {
        why = "no provider serves " + asked;
        isRefused = true;
        return own.isDecided ? kFailed : kPending;
    }
    ++state.epoch;
    state.provider = provider;
    state.symbol = symbol;
    const int link = ++m_providers.lastLink;
    expectations.Add(SpellProviderCall(own.provider, "Subscribe", link, asked,
                                       " market=" + std::to_string(def.marketId) +
                                           " component=" + std::to_string(component) + " " + SpellScope(mergedScope)));
    const SubscribeOutcome outcome = m_providers.conditions.GetSubscribeOutcome(asked);
    switch (outcome)
    {
    case SubscribeOutcome::Fails:
        expectations.faults.Count(Fault::SubscribeFailed);
        return kFailed;
    case SubscribeOutcome::RefusesWithReason:
        expectations.faults.Count(Fault::SubscribeRefusedWithReason);
        why = GetRefusal(asked);
        isRefused = true;
        return kFailed;
    case SubscribeOutcome::Breaks:
        expectations.faults.Count(Fault::SubscribeBroke);
        throw ModelThrows(GetBreakdown(asked));
    default:
        break;
    }
    m_providers.links[link] = {this, component, own.provider, asked, false, false, false};
    own.link = link;
    if (outcome == SubscribeOutcome::AnswersAtOnce || outcome == SubscribeOutcome::RefusesAtOnce)
    {
        OnAnswer(link,
                 outcome == SubscribeOutcome::AnswersAtOnce ? SubscriptionResult::Success
                                                            : SubscriptionResult::DirectSubscriptionFailed,
                 GetFormat(0));
    }
    if (outcome == SubscribeOutcome::Pends)
    {
        return kPending;
    }
    if (outcome == SubscribeOutcome::AnswersSomethingElse)
    {
        return kSomethingElse;
    }
    return own.isDecided ? kSubscribed : kPending;
}

int ReferenceSubscription::SubscribeComponents(std::string& reason)
{
    int status = kFailed;
    bool wantsAny = false;
    std::vector<int> without;
    for (int component = 0; component < 3; ++component)
    {
        if (!components[Index(component)].isWanted)
        {
            continue;
        }
        Decide(component);
        if (!std::exchange(wantsAny, true))
        {
            provider = components[Index(component)].provider;
        }
        std::string why;
        bool isRefused = false;
        const int own = Subscribe(component, why, isRefused);
        if (components[Index(component)].link == 0)
        {
            without.push_back(component);
        }
        if (own == kFailed)
        {
            reason = reason.empty() ? why : reason;
        }
        else if (status == kFailed)
        {
            status = own;
            provider = components[Index(component)].provider;
        }
    }
    if (!wantsAny)
    {
        reason = "the definition wants no component";
    }
    if (status != kFailed)
    {
        reason.clear();
        for (const int component : without)
        {
            ReportFailure(component);
        }
    }
    return status;
}

void ReferenceSubscription::ReportFailure(int component)
{
    Tell(component, {SubscriptionResult::DirectSubscriptionFailed, PriceFormat{}});
}

void ReferenceSubscription::OnAnswer(int link, Result result, const PriceFormat& format)
{
    if (result != SubscriptionResult::Success)
    {
        m_providers.expectations.faults.Count(Fault::AnswerWasRefusal);
    }
    m_providers.links.at(link).isAnswered = true;
    Tell(m_providers.links.at(link).component, {result, format});
}

/// Everybody who is interested hears an answer, unless it says what the one before said.
void ReferenceSubscription::Tell(int component, const Answer& answer)
{
    answers[Index(component)] = answer;
    if (std::exchange(m_told[Index(component)], answer) == answer || isEnding)
    {
        return;
    }
    const auto post = [&](const std::string& who, std::optional<unsigned long> id)
    {
        m_providers.expectations.Post(def.marketId, {SpellSubscribe(who, id, def, {}, answer.result, 0, answer.format,
                                                                    component, state, "executor"),
                                                     who, def.ToString(), number, id.value_or(0)});
    };
    post(observer, std::nullopt);
    for (const unsigned long id : clients)
    {
        post(scopes.at(id).observer, id);
    }
}

void ReferenceSubscription::LogThrown(const char* doing, const std::string& what)
{
    m_providers.expectations.LogFrom("composite_instrument_subscription", 30,
                                     def.ToString() + ": " + doing + " as " + symbol + " threw: " + what);
}

void ReferenceSubscription::Unsubscribe(Component& component, bool forChange)
{
    const int linkNumber = std::exchange(component.link, 0);
    if (linkNumber == 0)
    {
        return;
    }
    ReferenceProviders::Link& link = m_providers.links.at(linkNumber);
    link.isUnsubscribing = true;
    link.isForChange = forChange;
    m_providers.expectations.Add(SpellProviderCall(link.provider, "Unsubscribe", linkNumber, link.symbol, ""));
    switch (m_providers.conditions.unsubscribe[Index(link.provider)])
    {
    case UnsubscribeOutcome::Ok:
        OnUnsubscribed(linkNumber, true);
        break;
    case UnsubscribeOutcome::Fails:
        OnUnsubscribed(linkNumber, false);
        break;
    case UnsubscribeOutcome::Throws:
        m_providers.expectations.faults.Count(Fault::UnsubscribeThrew);
        LogThrown("unsubscribing", kUnsubscribeFailure);
        OnUnsubscribed(linkNumber, false);
        break;
    default:
        break;
    }
}

void ReferenceSubscription::UnsubscribeComponents()
{
    if (m_isInChange)
    {
        m_providers.expectations.faults.Count(Fault::RenameMetUnsubscribe);
    }
    isEnding = true;
    isUnsubscribed = true;
    m_providers.expectations.Silence(def.marketId, number);
    for (Component& component : components)
    {
        Unsubscribe(component, false);
    }
    m_isTornDown = true;
    Settle();
}

void ReferenceSubscription::SubscribeAnew(int component)
{
    std::string why;
    bool isRefused = false;
    if (Subscribe(component, why, isRefused) == kFailed)
    {
        m_providers.expectations.LogFrom("composite_instrument_subscription", 20,
                                         def.ToString() + ": component " + std::to_string(component) +
                                             " could not be subscribed again as " + GetComponentSymbol(component) +
                                             ": " + (isRefused ? why : "the provider refused"));
        ReportFailure(component);
    }
}

void ReferenceSubscription::SwitchProvider(int component, ProviderType::Value newProvider)
{
    if (isEnding)
    {
        return;
    }
    m_providers.expectations.faults.Count(Fault::ProviderSwitched);
    provider = component == 0 ? newProvider : provider;
    for (int other = 0; other < 3; ++other)
    {
        Component& own = components[Index(other)];
        const ProviderType::Value before = own.provider;
        if (other == component)
        {
            own.provider = newProvider;
            own.isDecided = true;
        }
        else if (own.isWanted && !own.isDecided)
        {
            Decide(other);
        }
        const bool isServedSo = own.link != 0 && own.provider == before;
        if (!own.isWanted || !own.isDecided || isServedSo || isUnsubscribed)
        {
            continue;
        }
        Unsubscribe(own, false);
        if (other == component || own.provider != before)
        {
            SubscribeAnew(other);
        }
    }
}

} // namespace ps_ns::simulation
