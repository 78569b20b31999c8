#include "simulation/reference_manager.h"

#include "reference_texts.h"

#include <algorithm>
#include <optional>

namespace ps_ns::simulation
{

using namespace texts;
using ps_messages_ns::SubscriptionResult;

ReferenceManager::ReferenceManager(const Conditions& conditions, Expectations& expectations, GetCounts getCounts,
                                   HasSnapshot hasSnapshot)
    : providers(conditions, expectations)
    , m_expectations(expectations)
    , m_getCounts(std::move(getCounts))
    , m_hasSnapshot(std::move(hasSnapshot))
{
}

ReferenceSubscription* ReferenceManager::Find(const Def& def) const
{
    const auto found = live.find(CompositeInstrumentID(def));
    return found == live.end() ? nullptr : found->second;
}

CompositeSubscriptionInfo ReferenceManager::Adjust(const Def& def, const Info& info) const
{
    Info adjusted = info;
    const MarketDefaults market = GetMarketDefaults(def.marketId);
    adjusted.depth = info.depth == -2 ? market.defaultDepth : info.depth == -1 ? market.maxDepth : info.depth;
    return adjusted;
}

double& ReferenceManager::GetGauge(const ReferenceSubscription& subscription)
{
    return subscription.provider == ProviderType::Mds ? gauges.mds : gauges.zel;
}

// --- Subscribe -------------------------------------------------------------------------------------------------------

std::pair<unsigned long, Result> ReferenceManager::SubscribeDirect(const Def& def, const Info& info,
                                                                   const std::string& observer, unsigned long id)
{
    const CompositeInstrumentID identity(def);
    if (handleByInstrument.count(identity) != 0)
    {
        m_expectations.faults.Count(Fault::DuplicateHandle);
        m_expectations.Log(30, Request("Subscribe", def) + " (observer=" + observer + ") rejected as a duplicate");
        return {0, SubscriptionResult::Refused};
    }
    const unsigned long handle = nextHandle++;
    handleByInstrument.emplace(identity, handle);
    byHandle.emplace(handle, DirectClient{def, observer});
    if (def.IsSyntheticComposite())
    {
        m_expectations.faults.Count(Fault::SyntheticRefused);
        m_expectations.Log(
            30, kManager + "UnifierSynthetic. request for " + def.ToString() + " not supported on windows or KEEL SDK",
            0);
        return {0, SubscriptionResult::Refused};
    }
    m_expectations.PostAction([=, this] { RunDirectSubscribe(def, observer, handle, info, id); });
    return {handle, SubscriptionResult::Accepted};
}

void ReferenceManager::RunDirectSubscribe(const Def& def, const std::string& observer, unsigned long handle,
                                          const Info& info, unsigned long id)
{
    const auto report = [&](Result result)
    {
        m_expectations.Call(observer, SpellSubscribe(observer, std::nullopt, def, {}, result, 0, {}, 0,
                                                     CompositeSubscriptionState(def.components), "queue"));
    };
    if (Find(def) != nullptr)
    {
        m_expectations.faults.Count(Fault::DuplicateOnQueue);
        report(SubscriptionResult::DuplicateSubscription);
        m_expectations.Log(20, WithHandle("Subscribe", def, handle, observer) + " rejected as a duplicate");
        return;
    }
    const Info adjusted = Adjust(def, info);
    ReferenceSubscription& subscription = Open(def, adjusted, observer);
    subscription.AddScope(adjusted, id, "");
    m_expectations.Log(10, kDone + WithHandle("Subscribe", def, handle, observer) + " compositeSubscriptionInfo " +
                               SpellScope(adjusted) + " executed");
    const std::string failure = SubscribeComponents(def, subscription);
    if (!failure.empty())
    {
        report(SubscriptionResult::SubscribeComponentsFailed);
        m_expectations.Log(20, kManager + "Subscription for instrument " + def.ToString() + " (observer=" + observer +
                                   ") failed when making the direct subscription. Details: " + failure);
        live.erase(CompositeInstrumentID(def));
    }
}

ReferenceSubscription& ReferenceManager::Open(const Def& def, const Info& adjusted, const std::string& observer)
{
    if (std::find(executors.begin(), executors.end(), def.marketId) == executors.end())
    {
        executors.push_back(def.marketId);
    }
    const int number = ++m_lastSubscription;
    const auto completed = [this, number, def] { m_expectations.PostAction([=, this] { RunTeardown(number, def); }); };
    auto subscription = std::make_unique<ReferenceSubscription>(number, def, observer, adjusted, providers, completed);
    live.emplace(CompositeInstrumentID(def), subscription.get());
    return *(subscriptions[number] = std::move(subscription));
}

std::string ReferenceManager::SubscribeComponents(const Def& def, ReferenceSubscription& subscription)
{
    std::string reason;
    const int status = subscription.SubscribeComponents(reason);
    if (!reason.empty())
    {
        return reason;
    }
    if (status == 1)
    {
        return "CompositeInstrumentSubscription::SubscribeComponents() failed";
    }
    if (status == 2)
    {
        pendingProvider[PendingSubscriptionID(def)].push_back(subscription.number);
        gauges.pending = static_cast<double>(pendingProvider.size());
    }
    if (status == 0 || status == 2)
    {
        ++GetGauge(subscription);
    }
    return "";
}

void ReferenceManager::SubscribeFlexible(const Def& def, const Info& info, const std::string& observer,
                                         unsigned long id)
{
    m_expectations.PostAction([=, this] { RunFlexibleSubscribe(def, info, observer, id); });
}

void ReferenceManager::RunFlexibleSubscribe(const Def& def, const Info& info, const std::string& observer,
                                            unsigned long id)
{
    if (def.IsSyntheticComposite())
    {
        m_expectations.faults.Count(Fault::SyntheticRefused);
        m_expectations.Log(
            30, kManager + "UnifierSynthetic. request for " + def.ToString() + " not supported on windows", 0);
        return;
    }
    if (ReferenceSubscription* const existing = Find(def))
    {
        Join(*existing, def, info, observer, id);
        return;
    }
    const Info adjusted = Adjust(def, info);
    m_expectations.Call("factory", "factory.CreateLocalObserver " + SpellDef(def) + " @queue");
    ReferenceSubscription& subscription = Open(def, adjusted, "local" + std::to_string(++m_lastLocalObserver));
    subscription.AddScope(adjusted, id, observer);
    m_expectations.Log(10, kDone + WithId("Subscribe", def, id) + " compositeSubscriptionInfo " + SpellScope(adjusted) +
                               " executed");
    const std::string failure = SubscribeComponents(def, subscription);
    if (!failure.empty())
    {
        RaiseSubscribe(subscription, def, observer, id, SubscriptionResult::DirectSubscriptionFailed, {}, 0,
                       CompositeSubscriptionState(def.components));
        m_expectations.Log(20, kManager + "Subscription for instrument " + def.ToString() + " subscriptionID=" +
                                   Of(id) + " failed when making the direct subscription.Details: " + failure);
        live.erase(CompositeInstrumentID(def));
    }
}

void ReferenceManager::Join(ReferenceSubscription& subscription, const Def& def, const Info& info,
                            const std::string& observer, unsigned long id)
{
    const Info previous = subscription.mergedScope;
    if (!subscription.AddScope(Adjust(def, info), id, observer))
    {
        m_expectations.faults.Count(Fault::DuplicateId);
        RaiseSubscribe(subscription, def, observer, id, SubscriptionResult::DuplicateSubscriptionId, {}, 0,
                       CompositeSubscriptionState(def.components));
        m_expectations.Log(20, WithId("AddScope", def, id) + " failed - duplicate subscription_id=" + Of(id));
        return;
    }
    for (int component = 0; component < 3; ++component)
    {
        const ReferenceSubscription::Answer& answer = subscription.answers[static_cast<std::size_t>(component)];
        if (answer.result != SubscriptionResult::None)
        {
            m_expectations.Log(10, WithId("Subscribe", def, id) + " - making OnSubscribe callback");
            RaiseSubscribe(subscription, def, observer, id, answer.result, answer.format, component,
                           subscription.state);
        }
    }
    Retarget(subscription, WithId("AddScope", def, id), previous, Snapshot::WhenThereIsOne, id);
}

// --- What is raised on the executor ----------------------------------------------------------------------------------

void ReferenceManager::RaiseSubscribe(const ReferenceSubscription& subscription, const Def& def,
                                      const std::string& observer, unsigned long id, Result result,
                                      const PriceFormat& format, int component, const CompositeSubscriptionState& state)
{
    m_expectations.Post(
        subscription.def.marketId,
        {SpellSubscribe(observer, id, def, {}, result, 0, format, component, state, "executor"), observer, "", 0, 0});
}

void ReferenceManager::RaiseUnsubscribe(const ReferenceSubscription& subscription, const Def& def,
                                        const std::string& observer, unsigned long id)
{
    m_expectations.Post(subscription.def.marketId,
                        {SpellUnsubscribe(observer, id, def, SubscriptionResult::UnknownSubscriptionId, 0,
                                          CompositeSubscriptionState(def.components), "executor"),
                         observer, "", 0, 0});
}

void ReferenceManager::RaiseChangeScope(const ReferenceSubscription& subscription, const Def& def,
                                        const std::string& observer, unsigned long id)
{
    m_expectations.Post(subscription.def.marketId,
                        {SpellScopeAnswer(observer, "OnChangeScope", "id", id, def,
                                          SubscriptionResult::UnknownSubscriptionId, "executor"),
                         observer, "", 0, 0});
}

} // namespace ps_ns::simulation
