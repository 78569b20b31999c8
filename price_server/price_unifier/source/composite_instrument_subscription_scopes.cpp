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
    CompositeSubscriptionInfo merged = m_mergedScope; // no sentinel ever reaches a component: the last one stays
    bool isFirst = true;
    m_scopes.ForEach(
        [&](const Scope& scope) {
            merged = std::exchange(isFirst, false) ? scope.info : CompositeSubscriptionInfo::Merge(merged, scope.info);
        });
    return merged;
}

bool CompositeInstrumentSubscription::AddScope(const CompositeSubscriptionInfo& info, unsigned long subscriptionId,
                                               const std::shared_ptr<IFlexiblePriceObserver>& flexibleObserver,
                                               CompositeSubscriptionInfo& newAggregate)
{
    if (m_scopes.Find(subscriptionId) != nullptr)
    {
        return false;
    }
    std::shared_ptr<ClientScope> client;
    if (flexibleObserver != nullptr)
    {
        client = std::make_shared<ClientScope>(subscriptionId, flexibleObserver, info);
    }
    m_scopes.Add({subscriptionId, info, client});
    try
    {
        Join(client);
    }
    catch (...)
    {
        if (client != nullptr)
        {
            client->isRemoved.store(true); // should it have reached the delivery already
        }
        m_scopes.Remove(*m_scopes.Find(subscriptionId));
        throw;
    }
    m_lastAsker = client;
    m_mergedScope = MergeScopes();
    newAggregate = m_mergedScope;
    return true;
}

/// `client` is null for a direct client's scope.
void CompositeInstrumentSubscription::Join(const std::shared_ptr<ClientScope>& client)
{
    m_hadSnapshotAtJoin = m_core->AnySnapshotsReceived();
    ComponentAnswers answers;
    if (client != nullptr)
    {
        answers = m_core->AddClient(client);
    }
    else if (m_hasBegun)
    {
        answers = m_core->GetAnswers();
    }
    if (m_answersAtJoin != nullptr)
    {
        *m_answersAtJoin = answers;
    }
    else if (answers != ComponentAnswers{})
    {
        m_answersAtJoin = std::make_unique<ComponentAnswers>(answers);
    }
    const auto replays =
        std::count_if(answers.begin(), answers.end(),
                      [](const ComponentAnswer& answer) { return answer.result != SubscriptionResult::None; });
    m_replaysToCome = client != nullptr ? static_cast<std::uint8_t>(replays) : std::uint8_t{0};
    if (client != nullptr && replays == 0)
    {
        m_core->ActivateClient(client, m_hadSnapshotAtJoin);
    }
}

bool CompositeInstrumentSubscription::RemoveScope(unsigned long subscriptionId, CompositeSubscriptionInfo& newAggregate)
{
    Scope* const scope = m_scopes.Find(subscriptionId);
    if (scope == nullptr)
    {
        return false;
    }
    std::shared_ptr<ClientScope> client = m_scopes.Remove(*scope).client;
    m_mergedScope = MergeScopes();
    newAggregate = m_mergedScope;
    // The record moves to the executor, so that it is let go there: its timers must not lose it under their feet.
    if (client != nullptr)
    {
        m_lastAsker.reset();
        m_replaysToCome = 0;
        client->isRemoved.store(true);
        m_core->RemoveClient(std::move(client));
    }
    return true;
}

bool CompositeInstrumentSubscription::ChangeScope(const CompositeSubscriptionInfo& info, unsigned long subscriptionId,
                                                  CompositeSubscriptionInfo& newAggregate)
{
    Scope* const scope = m_scopes.Find(subscriptionId);
    if (scope == nullptr)
    {
        return false;
    }
    if (scope->client != nullptr)
    {
        m_core->ChangeClient(scope->client, info);
    }
    m_lastAsker = scope->client;
    m_replaysToCome = 0;
    scope->info = info;
    m_mergedScope = MergeScopes();
    newAggregate = m_mergedScope;
    return true;
}

void CompositeInstrumentSubscription::ChangeScope(const CompositeSubscriptionInfo& aggregate)
{
    ForEachComponent(
        [&](const Component& component)
        {
            if (component.link != nullptr)
            {
                if (IPriceProvider* const provider = m_simpleSubscriptionMgr->FindProvider(component.provider))
                {
                    provider->ChangeScope(component.link, aggregate);
                }
            }
        });
    m_core->SetMergedScope(aggregate);
}

bool CompositeInstrumentSubscription::GetScope(unsigned long subscriptionId, ScopeEntry& entry) const
{
    const Scope* const scope = m_scopes.Find(subscriptionId);
    if (scope == nullptr)
    {
        return false;
    }
    entry = {scope->info, scope->client != nullptr ? scope->client->observer : nullptr};
    return true;
}

} // namespace ps_ns
