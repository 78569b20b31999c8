#include "simulation/reference_manager.h"

#include <algorithm>
#include <optional>

namespace ps_ns::simulation
{

using ps_messages_ns::SubscriptionResult;

namespace
{

const std::string kManager = "CompositeSubscriptionMgr: ";
const std::string kDone = "SPLUNK_IGNORE | ";

std::string Quote(const std::string& symbol)
{
    return '"' + symbol + '"';
}

std::string Of(unsigned long number)
{
    return std::to_string(number);
}

std::string Request(const char* operation, const CompositeInstrumentDef& def)
{
    return kManager + operation + " request for instrument " + def.ToString();
}

std::string WithId(const char* operation, const CompositeInstrumentDef& def, unsigned long id)
{
    return Request(operation, def) + " subscriptionID=" + Of(id);
}

std::string WithHandle(const char* operation, const CompositeInstrumentDef& def, unsigned long handle,
                       const std::string& observer)
{
    return Request(operation, def) + " handle=" + Of(handle) + " (observer=" + observer + ")";
}

std::string UnknownHandle(const char* operation, unsigned long handle)
{
    return kManager + operation + " request for instrument  handle=" + Of(handle) +
           " failed - there is no subscription";
}

} // namespace

ReferenceManager::ReferenceManager(const Conditions& conditions, Expectations& expectations, GetCounts getCounts)
    : providers(conditions, expectations)
    , m_expectations(expectations)
    , m_getCounts(std::move(getCounts))
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
    ReferenceSubscription& subscription = Open(def, adjusted, "local");
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
    Retarget(subscription, WithId("AddScope", def, id), previous, false);
}

// --- Unsubscribe -----------------------------------------------------------------------------------------------------

bool ReferenceManager::UnsubscribeHandle(unsigned long handle)
{
    const auto entry = byHandle.find(handle);
    if (entry == byHandle.end())
    {
        m_expectations.faults.Count(Fault::UnknownHandle);
        m_expectations.Log(20, UnknownHandle("Unsubscribe", handle));
        return false;
    }
    const DirectClient client = entry->second;
    byHandle.erase(entry);
    if (handleByInstrument.erase(CompositeInstrumentID(client.def)) == 0)
    {
        m_expectations.faults.Count(Fault::LostIdentity);
        m_expectations.Log(20, kManager + "Request to unsubscribe from instrument  handle=" + Of(handle) +
                                   " - could not find the entry in m_handleByCompositeInstrumentID");
    }
    m_expectations.PostAction([=, this] { RunDirectUnsubscribe(client.def, client.observer, handle); });
    return true;
}

void ReferenceManager::RunDirectUnsubscribe(const Def& def, const std::string& observer, unsigned long handle)
{
    ReferenceSubscription* const subscription = Find(def);
    if (subscription == nullptr)
    {
        m_expectations.faults.Count(Fault::NoSubscription);
        m_expectations.Call(observer, SpellUnsubscribe(observer, std::nullopt, def, SubscriptionResult::NoSubscription,
                                                       0, CompositeSubscriptionState(def.components), "queue"));
        m_expectations.Log(20, Request("Unsubscribe", def) + " (observer=" + observer +
                                   ") failed - there is no subscription");
        return;
    }
    m_expectations.Log(10, kDone + WithHandle("Unsubscribe", def, handle, observer) +
                               " executed. instrument_callbacks " + m_getCounts(*subscription));
    --GetGauge(*subscription);
    Park(def, *subscription);
}

void ReferenceManager::UnsubscribeFlexible(const Def& def, const std::string& observer, unsigned long id)
{
    m_expectations.PostAction([=, this] { RunFlexibleUnsubscribe(def, observer, id); });
}

void ReferenceManager::RunFlexibleUnsubscribe(const Def& def, const std::string& observer, unsigned long id)
{
    if (def.IsSyntheticComposite())
    {
        return;
    }
    const std::string begin = WithId("Unsubscribe", def, id);
    ReferenceSubscription* const subscription = Find(def);
    if (subscription == nullptr)
    {
        m_expectations.faults.Count(Fault::NoSubscription);
        m_expectations.Call(observer, SpellUnsubscribe(observer, id, def, SubscriptionResult::NoSubscription, 0,
                                                       CompositeSubscriptionState(def.components), "queue"));
        m_expectations.Log(20, begin + " failed - there is no subscription");
        return;
    }
    const auto scope = subscription->scopes.find(id);
    if (scope == subscription->scopes.end())
    {
        m_expectations.faults.Count(Fault::UnknownId);
        RaiseUnsubscribe(*subscription, def, observer, id);
        m_expectations.Log(20, begin + " failed - unknown subscription_id=" + Of(id));
        return;
    }
    if (scope->second.observer != observer)
    {
        m_expectations.faults.Count(Fault::ForeignObserver);
        RaiseUnsubscribe(*subscription, def, observer, id);
        m_expectations.Log(20, begin + " failed - a different flexibleObserver was used when subscribing");
        return;
    }
    const Info previous = subscription->mergedScope;
    subscription->RemoveScope(id);
    Retarget(*subscription, begin, previous, false);
    if (subscription->scopes.empty())
    {
        m_expectations.Log(10, kDone + begin + " executed.  No scope remaining. instrument_callbacks " +
                                   m_getCounts(*subscription));
        if (expectsGaugeOnFlexibleUnsubscribe)
        {
            --GetGauge(*subscription);
        }
        Park(def, *subscription);
    }
}

void ReferenceManager::Park(const Def& def, ReferenceSubscription& subscription)
{
    subscription.UnsubscribeComponents();
    live.erase(CompositeInstrumentID(def));
    pendingDelete.emplace(subscription.number, CompositeInstrumentID(def));
}

void ReferenceManager::NullTeardown(const Def& def)
{
    m_expectations.faults.Count(Fault::NullTeardown);
    m_expectations.PostAction([=, this] { RunTeardown(0, def); });
}

void ReferenceManager::RunTeardown(int subscription, const Def& def)
{
    if (pendingDelete.erase(subscription) == 0)
    {
        m_expectations.Log(20, "OnUnsubscribeCompositeSubscription: couldn't find subscription for " + def.ToString() +
                                   " composite_id=0");
    }
    pendingProvider.erase(PendingSubscriptionID(def));
    subscriptions.erase(subscription);
}

// --- Scopes ----------------------------------------------------------------------------------------------------------

bool ReferenceManager::AddScope(unsigned long handle, const Info& info, unsigned long id)
{
    const auto client = byHandle.find(handle);
    if (client == byHandle.end())
    {
        m_expectations.faults.Count(Fault::UnknownHandle);
        m_expectations.Log(20, UnknownHandle("AddScope", handle));
        return false;
    }
    m_expectations.PostAction([=, this, client = client->second]
                              { RunAddScope(client.def, client.observer, handle, info, id); });
    return true;
}

bool ReferenceManager::RemoveScope(unsigned long handle, unsigned long id)
{
    const auto client = byHandle.find(handle);
    if (client == byHandle.end())
    {
        m_expectations.faults.Count(Fault::UnknownHandle);
        m_expectations.Log(20, UnknownHandle("RemoveScope", handle));
        return false;
    }
    m_expectations.PostAction([=, this, client = client->second]
                              { RunRemoveScope(client.def, client.observer, handle, id); });
    return true;
}

bool ReferenceManager::ChangeScope(unsigned long handle, const Info& info, unsigned long id, bool generateSnapshot)
{
    const auto client = byHandle.find(handle);
    if (client == byHandle.end())
    {
        m_expectations.faults.Count(Fault::UnknownHandle);
        m_expectations.Log(20, UnknownHandle("ChangeScope", handle));
        return false;
    }
    m_expectations.PostAction([=, this, client = client->second]
                              { RunChangeScope(client.def, client.observer, handle, info, id, generateSnapshot); });
    return true;
}

void ReferenceManager::ReportNoSubscription(const char* operation, const char* callback, const Def& def,
                                            const std::string& observer, unsigned long handle)
{
    m_expectations.faults.Count(Fault::NoSubscription);
    m_expectations.Call(observer, SpellScopeAnswer(observer, callback, "handle", handle, def,
                                                   SubscriptionResult::NoSubscription, "queue"));
    m_expectations.Log(20, Request(operation, def) + " (observer=" + observer + ") failed - there is no subscription");
}

void ReferenceManager::RunAddScope(const Def& def, const std::string& observer, unsigned long handle, const Info& info,
                                   unsigned long id)
{
    ReferenceSubscription* const subscription = Find(def);
    if (subscription == nullptr)
    {
        ReportNoSubscription("AddScope", "OnAddScope", def, observer, handle);
        return;
    }
    const Info previous = subscription->mergedScope;
    const std::string begin = WithHandle("AddScope", def, handle, observer);
    if (!subscription->AddScope(Adjust(def, info), id, ""))
    {
        m_expectations.faults.Count(Fault::DuplicateId);
        m_expectations.Call(observer, SpellScopeAnswer(observer, "OnAddScope", "handle", handle, def,
                                                       SubscriptionResult::DuplicateSubscriptionId, "queue"));
        m_expectations.Log(20, begin + " failed - duplicate subscription_id=" + Of(id));
        return;
    }
    Retarget(*subscription, begin, previous, false);
}

void ReferenceManager::RunRemoveScope(const Def& def, const std::string& observer, unsigned long handle,
                                      unsigned long id)
{
    ReferenceSubscription* const subscription = Find(def);
    if (subscription == nullptr)
    {
        ReportNoSubscription("RemoveScope", "OnRemoveScope", def, observer, handle);
        return;
    }
    const Info previous = subscription->mergedScope;
    const std::string begin = WithHandle("RemoveScope", def, handle, observer);
    if (!subscription->RemoveScope(id))
    {
        m_expectations.faults.Count(Fault::UnknownId);
        m_expectations.Call(observer, SpellScopeAnswer(observer, "OnRemoveScope", "handle", handle, def,
                                                       SubscriptionResult::UnknownSubscriptionId, "queue"));
        m_expectations.Log(20, begin + " failed - unknown subscription_id=" + Of(id));
        return;
    }
    Retarget(*subscription, begin, previous, false);
}

void ReferenceManager::RunChangeScope(const Def& def, const std::string& observer, unsigned long handle,
                                      const Info& info, unsigned long id, bool generateSnapshot)
{
    ReferenceSubscription* const subscription = Find(def);
    if (subscription == nullptr)
    {
        ReportNoSubscription("ChangeScope", "OnChangeScope", def, observer, handle);
        return;
    }
    const Info previous = subscription->mergedScope;
    const std::string begin = WithHandle("ChangeScope", def, handle, observer);
    if (!subscription->ChangeScope(Adjust(def, info), id))
    {
        m_expectations.faults.Count(Fault::UnknownId);
        m_expectations.Call(observer, SpellScopeAnswer(observer, "OnChangeScope", "handle", handle, def,
                                                       SubscriptionResult::UnknownSubscriptionId, "queue"));
        m_expectations.Log(20, begin + " failed - unknown subscription_id=" + Of(id));
        return;
    }
    Retarget(*subscription, begin, previous, generateSnapshot);
}

void ReferenceManager::ChangeFlexibleScope(const Def& def, const Info& info, const std::string& observer,
                                           unsigned long id, bool generateSnapshot)
{
    m_expectations.PostAction([=, this] { RunChangeFlexibleScope(def, info, observer, id, generateSnapshot); });
}

void ReferenceManager::RunChangeFlexibleScope(const Def& def, const Info& info, const std::string& observer,
                                              unsigned long id, bool generateSnapshot)
{
    if (def.IsSyntheticComposite())
    {
        return;
    }
    const std::string byObserver = Request("ChangeScope", def) + " (observer=" + observer + ")";
    ReferenceSubscription* const subscription = Find(def);
    if (subscription == nullptr)
    {
        m_expectations.faults.Count(Fault::NoSubscription);
        m_expectations.Call(observer, SpellScopeAnswer(observer, "OnChangeScope", "id", id, def,
                                                       SubscriptionResult::NoSubscription, "queue"));
        m_expectations.Log(20, byObserver + " failed - there is no subscription");
        return;
    }
    const auto scope = subscription->scopes.find(id);
    if (scope == subscription->scopes.end())
    {
        m_expectations.faults.Count(Fault::UnknownId);
        RaiseChangeScope(*subscription, def, observer, id);
        m_expectations.Log(20, WithId("ChangeScope", def, id) + " failed - unknown subscription_id=" + Of(id));
        return;
    }
    if (scope->second.observer != observer)
    {
        m_expectations.faults.Count(Fault::ForeignObserver);
        RaiseChangeScope(*subscription, def, observer, id);
        m_expectations.Log(20, WithId("ChangeScope", def, id) +
                                   " failed - a different flexibleObserver was used when subscribing");
        return;
    }
    const Info previous = subscription->mergedScope;
    subscription->ChangeScope(Adjust(def, info), id);
    Retarget(*subscription, byObserver, previous, generateSnapshot);
}

void ReferenceManager::Retarget(ReferenceSubscription& subscription, const std::string& begin, const Info& previous,
                                bool generateSnapshot)
{
    const Info merged = subscription.mergedScope;
    if (merged == previous)
    {
        m_expectations.Log(10, kDone + begin + " executed. No changes to SubscriptionInfo " + SpellScope(previous) +
                                   (generateSnapshot ? " Generating a snapshot" : ""));
        return;
    }
    m_expectations.Log(10, kDone + begin + " executed. PreviousSubscriptionInfo " + SpellScope(previous) +
                               " NewSubscriptionInfo " + SpellScope(merged));
    subscription.ChangeScope(merged);
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

// --- Providers, symbols, synthetics ----------------------------------------------------------------------------------

void ReferenceManager::PostCheckPending()
{
    m_expectations.PostAction([this] { RunCheckPending(); });
}

void ReferenceManager::RunCheckPending()
{
    bool hasErased = false;
    for (auto entry = pendingProvider.begin(); entry != pendingProvider.end();)
    {
        const PendingSubscriptionID& key = entry->first;
        const auto [provider, isFinal] = providers.conditions.Decide(key.marketId, key.symbol);
        if (!isFinal)
        {
            ++entry;
            continue;
        }
        m_expectations.Log(10, "MonitorPendingSymbols: marketId=" + std::to_string(key.marketId) +
                                   " submarketId=" + std::to_string(key.submarketId) + " symbol=" + Quote(key.symbol) +
                                   " finalProvider=" + std::to_string(provider));
        if (provider == ProviderType::Mds)
        {
            for (const int subscription : entry->second)
            {
                subscriptions.at(subscription)->SwitchProvider(0, ProviderType::Mds);
            }
            gauges.zel -= static_cast<double>(entry->second.size());
            gauges.mds += static_cast<double>(entry->second.size());
        }
        entry = pendingProvider.erase(entry);
        hasErased = true;
    }
    if (hasErased)
    {
        gauges.pending = static_cast<double>(pendingProvider.size());
    }
}

void ReferenceManager::ChangeSymbol(short marketId, const std::string& oldSymbol, const std::string& newSymbol)
{
    m_expectations.PostAction([=, this] { RunSymbolChange(marketId, oldSymbol, newSymbol); });
}

void ReferenceManager::RunSymbolChange(short marketId, const std::string& oldSymbol, const std::string& newSymbol)
{
    const std::string begin = "CompositeSubscriptionMgr::ChangeSymbol:";
    const std::string tail =
        "oldSymbol=" + Quote(oldSymbol) + " newSymbol=" + Quote(newSymbol) + " marketId=" + std::to_string(marketId);
    std::map<std::string, std::string>& changes = symbolChanges[marketId];
    if (const auto pending = changes.find(oldSymbol); pending != changes.end())
    {
        m_expectations.faults.Count(Fault::RenameRejected);
        m_expectations.Log(30, begin + " rejecting change. symbol=" + Quote(oldSymbol) +
                                   " is already pending a change to newSymbol=" + Quote(pending->second) +
                                   " marketId=" + std::to_string(marketId));
        return;
    }
    unsigned redirected = 0;
    for (auto& [from, to] : changes)
    {
        if (to == oldSymbol)
        {
            to = newSymbol;
            ++redirected;
        }
    }
    if (redirected != 0)
    {
        m_expectations.faults.Count(Fault::RenameRedirected);
        m_expectations.Log(10, begin + " change to symbol=" + Quote(oldSymbol) +
                                   " in flight, pendingCount=" + Of(redirected) + " " + tail);
        return;
    }
    unsigned waiting = 0;
    for (const auto& [id, subscription] : live)
    {
        if (subscription->def.marketId != marketId || subscription->symbol != oldSymbol || subscription->isUnsubscribed)
        {
            continue;
        }
        ++waiting;
        const CompositeInstrumentID own(subscription->def);
        const int number = subscription->number;
        symbolChangeResponses[marketId][oldSymbol].push_back({own, ResponseState::Awaited, number});
        subscription->UnsubscribeDirect(
            [=, this](bool ok) {
                m_expectations.PostAction([=, this] { RunSymbolChangeResponse(own, number, ok, newSymbol, marketId); });
            });
    }
    if (waiting != 0)
    {
        changes[oldSymbol] = newSymbol;
    }
    m_expectations.Log(10, begin + " waitingResponses=" + Of(waiting) + " " + tail);
}

void ReferenceManager::RunSymbolChangeResponse(const CompositeInstrumentID& id, int subscription, bool ok,
                                               const std::string& newSymbol, short marketId)
{
    const std::string oldSymbol = subscriptions.at(subscription)->symbol;
    const auto market = symbolChangeResponses.find(id.marketId);
    if (market == symbolChangeResponses.end() || market->second.count(oldSymbol) == 0)
    {
        return;
    }
    std::vector<Response>& responses = market->second.at(oldSymbol);
    bool isAwaited = false;
    bool hasFailed = false;
    for (Response& response : responses)
    {
        response.state = !(response.id == id) ? response.state
                         : ok                 ? ResponseState::Unsubscribed
                                              : ResponseState::Failed;
        isAwaited = isAwaited || response.state == ResponseState::Awaited;
        hasFailed = hasFailed || response.state == ResponseState::Failed;
    }
    if (isAwaited)
    {
        return;
    }
    const auto log = [&](int level, const char* what, const std::string& to)
    {
        m_expectations.Log(level, std::string("CompositeSubscriptionMgr::ChangeSymbol: ") + what +
                                      "oldSymbol=" + Quote(oldSymbol) + " newSymbol=" + Quote(to) +
                                      " marketId=" + std::to_string(marketId));
    };
    if (hasFailed)
    {
        m_expectations.faults.Count(Fault::RenameStuck);
        log(30, "at least one Unsubscribe failed! Cannot resubscribe. ", newSymbol);
        return;
    }
    std::map<std::string, std::string>& changes = symbolChanges[id.marketId];
    const auto recorded = changes.find(oldSymbol);
    if (recorded == changes.end())
    {
        log(30, "no newSymbol found! Cannot resubscribe. ", newSymbol);
        return;
    }
    const std::string recordedSymbol = recorded->second;
    changes.erase(recorded);
    log(10, "all Unsubscribe responses received. Resubscribing. ", recordedSymbol);
    for (const Response& response : responses)
    {
        subscriptions.at(response.subscription)->ResubscribeDirect(recordedSymbol);
    }
    market->second.erase(oldSymbol);
}

void ReferenceManager::CompleteSynthetic(unsigned long handle, const Def& def)
{
    m_expectations.PostAction(
        [=, this]
        {
            const std::string begin = kManager + "UnifierSynthetic. OnSyntheticUnsubscribeComplete. cdef " +
                                      def.ToStringShortCached() + " handle=" + Of(handle);
            if (syntheticByHandle.erase(handle) != 0 || syntheticByInstrument.erase(CompositeInstrumentID(def)) != 0)
            {
                m_expectations.Log(0, begin + " lifecycle complete", 0);
                return;
            }
            m_expectations.Log(20, begin + " not found", 0);
        });
}

} // namespace ps_ns::simulation
