#include "price_unifier/source/composite_instrument_subscription.h"

#include "price_unifier/source/component_link.h"
#include "simple_subscription/simple_subscription_mgr.h"

#include <algorithm>
#include <utility>

namespace ps_ns
{

using ps_messages_ns::SubscriptionResult;

std::size_t CompositeInstrumentSubscription::FindPlace(unsigned long subscriptionId) const
{
    const auto place = std::lower_bound(m_scopes.begin(), m_scopes.end(), subscriptionId,
                                        [](const Scope& scope, unsigned long id) { return scope.id < id; });
    return static_cast<std::size_t>(place - m_scopes.begin());
}

CompositeSubscriptionInfo CompositeInstrumentSubscription::MergeScopes() const
{
    if (m_scopes.empty())
    {
        return m_mergedScope; // no sentinel ever reaches a component: the last one stays
    }
    CompositeSubscriptionInfo merged = m_scopes.front().info;
    for (std::size_t i = 1; i < m_scopes.size(); ++i)
    {
        merged = CompositeSubscriptionInfo::Merge(merged, m_scopes[i].info);
    }
    return merged;
}

bool CompositeInstrumentSubscription::AddScope(const CompositeSubscriptionInfo& info, unsigned long subscriptionId,
                                               const std::shared_ptr<IFlexiblePriceObserver>& flexibleObserver,
                                               CompositeSubscriptionInfo& newAggregate)
{
    const std::size_t place = FindPlace(subscriptionId);
    if (HasScopeAt(place, subscriptionId))
    {
        return false;
    }
    std::shared_ptr<ClientScope> client;
    if (flexibleObserver != nullptr)
    {
        client = std::make_shared<ClientScope>(subscriptionId, flexibleObserver, info);
    }
    const auto entry =
        m_scopes.insert(m_scopes.begin() + static_cast<std::ptrdiff_t>(place), Scope{subscriptionId, info, client});
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
        m_scopes.erase(entry);
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
    const ComponentAnswers answers = client != nullptr ? m_core->AddClient(client) : m_core->GetAnswers();
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
    const std::size_t place = FindPlace(subscriptionId);
    if (!HasScopeAt(place, subscriptionId))
    {
        return false;
    }
    std::shared_ptr<ClientScope> client = std::move(m_scopes[place].client);
    m_scopes.erase(m_scopes.begin() + static_cast<std::ptrdiff_t>(place));
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
    const std::size_t place = FindPlace(subscriptionId);
    if (!HasScopeAt(place, subscriptionId))
    {
        return false;
    }
    Scope& scope = m_scopes[place];
    if (scope.client != nullptr)
    {
        m_core->ChangeClient(scope.client, info);
    }
    m_lastAsker = scope.client;
    m_replaysToCome = 0;
    scope.info = info;
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

bool CompositeInstrumentSubscription::GetScope(unsigned long subscriptionId, ScopeEntry& entry) const
{
    const std::size_t place = FindPlace(subscriptionId);
    if (!HasScopeAt(place, subscriptionId))
    {
        return false;
    }
    const Scope& scope = m_scopes[place];
    entry = {scope.info, scope.client != nullptr ? scope.client->observer : nullptr};
    return true;
}

} // namespace ps_ns
