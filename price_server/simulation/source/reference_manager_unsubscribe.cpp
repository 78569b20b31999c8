#include "reference_texts.h"
#include "simulation/reference_manager.h"

#include <algorithm>

namespace ps_ns::simulation
{

using namespace texts;
using ps_messages_ns::SubscriptionResult;

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
    Retarget(*subscription, begin, previous, Snapshot::Never, id);
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

} // namespace ps_ns::simulation
