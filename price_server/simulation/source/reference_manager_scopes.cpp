#include "reference_texts.h"
#include "simulation/reference_manager.h"

#include <algorithm>

namespace ps_ns::simulation
{

using namespace texts;
using ps_messages_ns::SubscriptionResult;

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
    Retarget(*subscription, begin, previous, Snapshot::Never, id);
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
    Retarget(*subscription, begin, previous, Snapshot::Never, id);
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
    Retarget(*subscription, begin, previous, generateSnapshot ? Snapshot::WhenAsked : Snapshot::Never, id);
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
    Retarget(*subscription, byObserver, previous, generateSnapshot ? Snapshot::WhenAsked : Snapshot::Never, id);
}

void ReferenceManager::Retarget(ReferenceSubscription& subscription, const std::string& begin, const Info& previous,
                                Snapshot snapshot, unsigned long id)
{
    const Info merged = subscription.mergedScope;
    if (merged == previous)
    {
        m_expectations.Log(10, kDone + begin + " executed. No changes to SubscriptionInfo " + SpellScope(previous) +
                                   (snapshot == Snapshot::WhenAsked ? " Generating a snapshot" : ""));
        const bool hasOne = m_hasSnapshot(subscription);
        if (snapshot == Snapshot::WhenAsked || (snapshot == Snapshot::WhenThereIsOne && hasOne))
        {
            ExpectSnapshot(subscription, id, !hasOne);
        }
        return;
    }
    m_expectations.Log(10, kDone + begin + " executed. PreviousSubscriptionInfo " + SpellScope(previous) +
                               " NewSubscriptionInfo " + SpellScope(merged));
    subscription.ChangeScope(merged);
}

/// To the flexible client that has the id, or to the own observer when a direct client has it.
void ReferenceManager::ExpectSnapshot(const ReferenceSubscription& subscription, unsigned long id, bool isOptional)
{
    constexpr unsigned kScopeUnchanged = 110;
    const std::string& client = subscription.scopes.at(id).observer;
    const std::string& observer = client.empty() ? subscription.observer : client;
    const unsigned long recipient = client.empty() ? 0 : id;
    m_expectations.Post(subscription.def.marketId,
                        {SpellSnapshot(observer, recipient, subscription.def, kScopeUnchanged), observer,
                         subscription.def.ToString(), subscription.number, recipient, true, isOptional});
}

} // namespace ps_ns::simulation
