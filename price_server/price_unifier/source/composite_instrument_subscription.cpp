#include "price_unifier/source/composite_instrument_subscription.h"

#include "composite_instrument/subscription_ex.h"
#include "logging/logging.h"
#include "price_unifier/source/component_link.h"
#include "price_unifier/source/composite_subscription_mgr.h"
#include "price_unifier/source/symbol_prefixes.h"
#include "simple_subscription/simple_subscription_mgr.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <utility>

namespace ps_ns
{

using ps_messages_ns::SubscriptionResult;

namespace
{

constexpr std::array kComponentTypes{CompositeComponentType::Direct, CompositeComponentType::Implied,
                                     CompositeComponentType::Aggregated};

const std::shared_ptr<const zel::logging::Source>& LogSource()
{
    static const auto source = std::make_shared<const zel::logging::Source>("composite_instrument_subscription");
    return source;
}

/// What a provider knows a component by.
std::string GetComponentSymbol(CompositeComponentType::Type type, const std::string& symbol)
{
    switch (type)
    {
    case CompositeComponentType::Implied:
        return impliedSymbolPrefix + symbol;
    case CompositeComponentType::Aggregated:
        return aggregatorSymbolPrefix + symbol;
    case CompositeComponentType::Direct:
        break;
    }
    return symbol;
}

Submarket GetSubmarket(const CompositeInstrumentDef& def)
{
    return {def.marketId, def.submarketId};
}

} // namespace

CompositeInstrumentSubscription::CompositeInstrumentSubscription(
    SimpleSubscriptionMgr* simpleSubscriptionMgr, const CompositeInstrumentDef& def,
    const CompositeSubscriptionInfo& adjustedScope, const std::shared_ptr<ICompositePriceObserver>& observer,
    unsigned long handle, CompositeSubscriptionMgr* manager, bool skipUnchangedSnapshots, unsigned defaultDepth,
    unsigned maxDepth, unsigned emptySuppressInterval, unsigned instrumentMonitoringInterval_sec)
    : CompositeInstrumentSubscription(simpleSubscriptionMgr, CompositeInstrumentDef(def), adjustedScope, observer,
                                      handle, manager, skipUnchangedSnapshots, defaultDepth, maxDepth,
                                      emptySuppressInterval, instrumentMonitoringInterval_sec)
{
}

CompositeInstrumentSubscription::CompositeInstrumentSubscription(
    SimpleSubscriptionMgr* simpleSubscriptionMgr, CompositeInstrumentDef&& def,
    const CompositeSubscriptionInfo& adjustedScope, const std::shared_ptr<ICompositePriceObserver>& observer,
    unsigned long handle, CompositeSubscriptionMgr* manager, bool skipUnchangedSnapshots, unsigned /*defaultDepth*/,
    unsigned maxDepth, unsigned emptySuppressInterval, unsigned instrumentMonitoringInterval_sec)
    : m_simpleSubscriptionMgr(simpleSubscriptionMgr)
    , m_handle(handle)
    , m_core(std::make_shared<SubscriptionCore>(
          std::move(def), observer, manager, adjustedScope,
          SubscriptionCore::Settings{skipUnchangedSnapshots, maxDepth, emptySuppressInterval,
                                     instrumentMonitoringInterval_sec},
          simpleSubscriptionMgr->GetSurroundings(GetSubmarket(def)), static_cast<IUnsubscribeOwner*>(this)))
    , m_mergedScope(adjustedScope)
    , m_components(GetDefinition().components)
{
    m_simpleSubscriptionMgr->GetRegistry().Enrol(this);
}

CompositeInstrumentSubscription::~CompositeInstrumentSubscription()
{
    m_simpleSubscriptionMgr->GetRegistry().Leave(this);
    m_core->Silence();
    m_core->GetGate().Disarm();
    ForEachComponent([this](Component& component) { Unsubscribe(component, false); });
}

void CompositeInstrumentSubscription::OnAllUnsubscribed()
{
    m_core->GetManager()->OnUnsubscribeCompositeSubscription(this, GetDefinition());
}

// --- Components ------------------------------------------------------------------------------------------------------

void CompositeInstrumentSubscription::DecideProvider(CompositeComponentType::Type type)
{
    const CompositeInstrumentDef& def = GetDefinition();
    const bool isDirect = type == CompositeComponentType::Direct;
    const std::string prefixed = isDirect ? std::string() : GetComponentSymbol(type, GetSymbol());
    const auto [provider, isFinal] = m_simpleSubscriptionMgr->GetProviderType(
        ProviderFunction::Prices, def.marketId, def.submarketId, isDirect ? GetSymbol() : prefixed);
    Get(type).provider = provider;
    Get(type).isDecided = isFinal;
}

int CompositeInstrumentSubscription::Subscribe(CompositeComponentType::Type type, std::string& why)
{
    Component& component = Get(type);
    const int failure = component.isDecided ? SubscribeStatus::Failed : SubscribeStatus::Pending;
    IPriceProvider* const provider = m_simpleSubscriptionMgr->FindProvider(component.provider);
    if (provider == nullptr)
    {
        why = "no provider serves " + GetComponentSymbol(type, GetSymbol());
        return failure; // undecided: the switch to another provider may still come
    }
    m_core->BeginEpoch(type, m_provider, m_newSymbol);
    const auto link = std::make_shared<ComponentLink>(type, m_core);
    int status = SubscribeStatus::Failed;
    try
    {
        status = provider->Subscribe(
            {type, GetSubmarket(GetDefinition()), GetComponentSymbol(type, GetSymbol()), m_mergedScope}, link);
    }
    catch (const SubscriptionEx& error)
    {
        why = error.what();
        link->Abandon();
        return SubscribeStatus::Failed;
    }
    catch (...)
    {
        link->Abandon();
        throw;
    }
    if (status == SubscribeStatus::Failed)
    {
        link->Abandon();
        return status;
    }
    component.link = link;
    return status == SubscribeStatus::Subscribed && !component.isDecided ? SubscribeStatus::Pending : status;
}

void CompositeInstrumentSubscription::ReportFailure(CompositeComponentType::Type type)
{
    static const std::atomic<bool> kAlways{true};
    m_core->OnAnswer(kAlways, type, SubscriptionResult::DirectSubscriptionFailed, PriceFormat{});
}

int CompositeInstrumentSubscription::SubscribeComponents()
{
    m_hasBegun = true;
    std::string firstReason;
    int answer = SubscribeStatus::Failed;
    std::vector<CompositeComponentType::Type> failed;
    bool isFirst = true;
    for (const auto type : kComponentTypes)
    {
        if (!IsWanted(type))
        {
            continue;
        }
        DecideProvider(type);
        if (std::exchange(isFirst, false))
        {
            m_provider = Get(type).provider;
        }
        std::string why;
        const int status = Subscribe(type, why);
        if (Get(type).link == nullptr)
        {
            failed.push_back(type); // also one that is undecided, and has no provider to go on with
        }
        if (status == SubscribeStatus::Failed)
        {
            firstReason = firstReason.empty() ? why : firstReason;
        }
        else if (answer == SubscribeStatus::Failed)
        {
            answer = status;
            m_provider = Get(type).provider; // whose status decides how the subscription is counted and filed
        }
    }
    if (answer != SubscribeStatus::Failed)
    {
        // The others make up for them; who is interested hears of them as of any answer.
        for (const auto type : failed)
        {
            ReportFailure(type);
        }
        return answer;
    }
    if (isFirst)
    {
        throw SubscriptionEx("the definition wants no component");
    }
    if (!firstReason.empty())
    {
        throw SubscriptionEx(firstReason);
    }
    return answer;
}

/// Writes what is being handled as an exception.
void CompositeInstrumentSubscription::LogThrown(const char* doing) const noexcept
{
    zel::logging::Log(30, LogSource(),
                      [&](std::ostream& text)
                      {
                          text << GetDefinition().ToString() << ": " << doing << " as " << GetSymbol() << " threw: ";
                          try
                          {
                              throw;
                          }
                          catch (const std::exception& error)
                          {
                              text << error.what();
                          }
                          catch (...)
                          {
                              text << "something that is no exception";
                          }
                      });
}

void CompositeInstrumentSubscription::Unsubscribe(Component& component, bool forSymbolChange) noexcept
{
    const std::shared_ptr<ComponentLink> link = std::move(component.link);
    component.link.reset();
    if (link == nullptr)
    {
        return;
    }
    link->Detach(forSymbolChange);
    try
    {
        if (IPriceProvider* const provider = m_simpleSubscriptionMgr->FindProvider(component.provider))
        {
            provider->Unsubscribe(link);
        }
    }
    catch (...)
    {
        LogThrown("unsubscribing");
        link->OnUnsubscribed(false);
    }
}

void CompositeInstrumentSubscription::UnsubscribeComponents() noexcept
{
    m_isEnding = true;
    m_lifeState = DirectUnsubscribed;
    m_core->Silence();
    ForEachComponent([this](Component& component) { Unsubscribe(component, false); });
    m_core->GetGate().BeginTeardown();
}

void CompositeInstrumentSubscription::SubscribeAnew(CompositeComponentType::Type type)
{
    std::string why;
    if (Subscribe(type, why) == SubscribeStatus::Failed)
    {
        zel::logging::Log(20, LogSource(),
                          [&](std::ostream& text)
                          {
                              text << GetDefinition().ToString() << ": component " << static_cast<int>(type)
                                   << " could not be subscribed again as " << GetComponentSymbol(type, GetSymbol())
                                   << ": " << (why.empty() ? "the provider refused" : why);
                          });
        ReportFailure(type);
    }
}

void CompositeInstrumentSubscription::SwitchProvider(CompositeComponentType::Type type, ProviderType::Value provider)
{
    if (m_isEnding)
    {
        return;
    }
    if (type == CompositeComponentType::Direct)
    {
        m_provider = provider;
    }
    for (const auto other : kComponentTypes)
    {
        if (!IsWanted(other))
        {
            continue;
        }
        Component& component = Get(other);
        const ProviderType::Value before = component.provider;
        if (other == type)
        {
            component.provider = provider;
            component.isDecided = true;
        }
        else if (!component.isDecided)
        {
            DecideProvider(other); // what was undecided with it may be decided now
        }
        const bool isSame = component.provider == before && component.link != nullptr;
        if (isSame || !component.isDecided || m_lifeState == DirectUnsubscribed)
        {
            continue;
        }
        if (component.link != nullptr)
        {
            const ProviderType::Value after = std::exchange(component.provider, before);
            Unsubscribe(component, false);
            component.provider = after;
        }
        if (other == type || before != component.provider)
        {
            SubscribeAnew(other);
        }
    }
}

void CompositeInstrumentSubscription::UnsubscribeDirect(UnsubscribeAnswer answer) noexcept
{
    m_lifeState = DirectUnsubscribed;
    m_core->GetGate().BeginChange(
        m_core, m_simpleSubscriptionMgr->GetSymbolChangeGroups().Get(GetDefinition().marketId, GetSymbol()),
        [answer = std::move(answer), id = CompositeInstrumentID(GetDefinition())](bool ok) { answer(id, ok); });
    ForEachComponent([this](Component& component) { Unsubscribe(component, true); });
    m_core->GetGate().FinishExpecting();
}

void CompositeInstrumentSubscription::ResubscribeDirect(const std::string& newSymbol) noexcept
{
    if (m_lifeState == Active)
    {
        return; // subscribed again already
    }
    m_simpleSubscriptionMgr->GetSymbolChangeGroups().Drop(GetDefinition().marketId, GetSymbol());
    m_newSymbol = std::make_shared<const std::string>(newSymbol);
    if (!m_isEnding)
    {
        m_lifeState = Active;
        for (const auto type : kComponentTypes)
        {
            if (!IsWanted(type))
            {
                continue;
            }
            try
            {
                SubscribeAnew(type);
            }
            catch (...)
            {
                LogThrown("subscribing again");
            }
        }
    }
    m_core->GetGate().EndChange();
}

// --- Delivery --------------------------------------------------------------------------------------------------------

void CompositeInstrumentSubscription::GenerateMergedSnapshotViaExecutor(GenerateSnapshotReason reason)
{
    m_core->GenerateSnapshot(static_cast<std::uint32_t>(reason), m_lastAsker);
}

void CompositeInstrumentSubscription::RunViaExecutor(std::function<void()> task)
{
    m_core->RunViaExecutor(std::move(task));
    // Data may follow the last of the answers that are replayed to a client who has just joined.
    if (m_replaysToCome != 0 && --m_replaysToCome == 0)
    {
        m_core->ActivateClient(m_lastAsker, m_hadSnapshotAtJoin);
    }
}

// --- What the manager reads ------------------------------------------------------------------------------------------

SubscriptionResult::Value
CompositeInstrumentSubscription::GetSubscribeResult(CompositeComponentType::Type component) const
{
    return m_answersAtJoin != nullptr ? (*m_answersAtJoin)[static_cast<std::size_t>(component)].result
                                      : SubscriptionResult::None;
}

const PriceFormat& CompositeInstrumentSubscription::GetPriceFormat(CompositeComponentType::Type component) const
{
    static const PriceFormat kUnknown;
    return m_answersAtJoin != nullptr ? (*m_answersAtJoin)[static_cast<std::size_t>(component)].format : kUnknown;
}

ComponentView CompositeInstrumentSubscription::GetComponentView(CompositeComponentType::Type type) const
{
    const Component& component = m_components.Get(type);
    return {IsWanted(type),
            component.isDecided,
            component.link != nullptr,
            component.provider,
            GetComponentSymbol(type, GetSymbol()),
            m_core->GetAnswers()[static_cast<std::size_t>(type)].result};
}

std::string CompositeInstrumentSubscription::GetCountsAsString() const
{
    const CallbackCounts& counts = m_core->GetCounts();
    return "books=" + std::to_string(counts.books.load()) + " trades=" + std::to_string(counts.trades.load()) +
           " customFields=" + std::to_string(counts.customFields.load());
}

void CompositeInstrumentSubscription::Describe(std::ostream& out) const
{
    out << GetDefinition().ToString() << " subscribedAs=" << GetSymbol() << " handle=" << m_handle
        << " provider=" << static_cast<int>(m_provider) << " state=" << static_cast<int>(m_lifeState)
        << " scopes=" << m_scopes.GetSize() << " mergedScope " << m_mergedScope << " " << GetCountsAsString();
}

} // namespace ps_ns
