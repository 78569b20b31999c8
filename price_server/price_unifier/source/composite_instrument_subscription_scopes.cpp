#include "price_unifier/source/composite_instrument_subscription.h"

#include "price_unifier/source/component_link.h"
#include "simple_subscription/simple_subscription_mgr.h"

#include <algorithm>
#include <utility>

namespace ps_ns
{

using ps_messages_ns::SubscriptionResult;

CompositeSubscriptionInfo CompositeInstrumentSubscription::MergeScopes() const
{
    if (m_scopes.empty())
    {
        return m_mergedScope; // no sentinel ever reaches a component: the last one stays
    }
    auto scope = m_scopes.begin();
    CompositeSubscriptionInfo merged = scope->second.info;
    while (++scope != m_scopes.end())
    {
        merged = CompositeSubscriptionInfo::Merge(merged, scope->second.info);
    }
    return merged;
}

bool CompositeInstrumentSubscription::AddScope(const CompositeSubscriptionInfo& info, unsigned long subscriptionId,
                                               const std::shared_ptr<IFlexiblePriceObserver>& flexibleObserver,
                                               CompositeSubscriptionInfo& newAggregate)
{
    Scope scope{info, flexibleObserver, nullptr};
    if (flexibleObserver != nullptr)
    {
        scope.client = std::make_shared<ClientScope>(subscriptionId, flexibleObserver, info);
    }
    const std::shared_ptr<ClientScope> client = scope.client;
    const auto [entry, isNew] = m_scopes.try_emplace(subscriptionId, std::move(scope));
    if (!isNew)
    {
        return false;
    }
    const bool hadSnapshot = m_core->AnySnapshotsReceived();
    try
    {
        m_answersAtJoin = client != nullptr ? m_core->AddClient(client) : m_core->GetAnswers();
        const auto replays =
            std::count_if(m_answersAtJoin.begin(), m_answersAtJoin.end(),
                          [](const ComponentAnswer& answer) { return answer.result != SubscriptionResult::None; });
        m_joining = Joining{};
        if (client != nullptr && replays == 0)
        {
            m_core->ActivateClient(client, hadSnapshot);
        }
        else if (client != nullptr)
        {
            m_joining = Joining{client, static_cast<unsigned>(replays), hadSnapshot};
        }
    }
    catch (...)
    {
        if (client != nullptr)
        {
            client->isRemoved.store(true); // should it have reached the delivery already
        }
        m_scopes.erase(entry);
        throw;
    }
    m_lastAsker = client;
    m_mergedScope = MergeScopes();
    newAggregate = m_mergedScope;
    return true;
}

bool CompositeInstrumentSubscription::RemoveScope(unsigned long subscriptionId, CompositeSubscriptionInfo& newAggregate)
{
    const auto entry = m_scopes.find(subscriptionId);
    if (entry == m_scopes.end())
    {
        return false;
    }
    // The record moves to the executor, so that it is let go there: its timers must not lose it under their feet.
    if (std::shared_ptr<ClientScope> client = std::move(entry->second.client))
    {
        m_lastAsker.reset();
        client->isRemoved.store(true);
        m_core->RemoveClient(std::move(client));
    }
    m_scopes.erase(entry);
    m_mergedScope = MergeScopes();
    newAggregate = m_mergedScope;
    return true;
}

bool CompositeInstrumentSubscription::ChangeScope(const CompositeSubscriptionInfo& info, unsigned long subscriptionId,
                                                  CompositeSubscriptionInfo& newAggregate)
{
    const auto entry = m_scopes.find(subscriptionId);
    if (entry == m_scopes.end())
    {
        return false;
    }
    if (entry->second.client != nullptr)
    {
        m_core->ChangeClient(entry->second.client, info);
    }
    m_lastAsker = entry->second.client;
    entry->second.info = info;
    m_mergedScope = MergeScopes();
    newAggregate = m_mergedScope;
    return true;
}

void CompositeInstrumentSubscription::ChangeScope(const CompositeSubscriptionInfo& aggregate)
{
    for (const Component& component : m_components)
    {
        if (component.link != nullptr)
        {
            if (IPriceProvider* const provider = m_simpleSubscriptionMgr->FindProvider(component.provider))
            {
                provider->ChangeScope(component.link, aggregate);
            }
        }
    }
    m_core->SetMergedScope(aggregate);
}

bool CompositeInstrumentSubscription::GetScope(unsigned long subscriptionId, ScopeEntry& scope) const
{
    const auto entry = m_scopes.find(subscriptionId);
    if (entry == m_scopes.end())
    {
        return false;
    }
    scope = {entry->second.info, entry->second.observer};
    return true;
}

} // namespace ps_ns
