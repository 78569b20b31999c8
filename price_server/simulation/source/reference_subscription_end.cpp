#include "simulation/reference_subscription.h"

#include <algorithm>
#include <utility>

namespace ps_ns::simulation
{

void ReferenceSubscription::UnsubscribeDirect(std::function<void(bool)> answered)
{
    isUnsubscribed = true;
    m_isInChange = true;
    m_isExpecting = true;
    m_isChangeOk = true;
    m_changeAnswered = std::move(answered);
    ReferenceProviders::Change& change = m_providers.changes[{def.marketId, symbol}];
    m_hasChangeFailed = change.hasFailed;
    if (!change.hasFailed)
    {
        change.members.push_back(number);
    }
    for (Component& component : components)
    {
        Unsubscribe(component, true);
    }
    m_isExpecting = false;
    Settle();
}

void ReferenceSubscription::ResubscribeDirect(const std::string& newSymbol)
{
    if (!isUnsubscribed)
    {
        return;
    }
    m_providers.changes.erase({def.marketId, symbol});
    symbol = newSymbol;
    isUnsubscribed = isEnding;
    for (int component = 0; component < 3 && !isEnding; ++component)
    {
        try
        {
            if (components[static_cast<std::size_t>(component)].isWanted)
            {
                SubscribeAnew(component);
            }
        }
        catch (const ModelThrows& error)
        {
            LogThrown("subscribing again", error.what());
        }
    }
    m_isInChange = false;
    Settle();
}

void ReferenceSubscription::OnUnsubscribed(int link, bool ok)
{
    if (!ok)
    {
        m_providers.expectations.faults.Count(Fault::UnsubscribeFailed);
    }
    if (m_providers.links.at(link).isForChange)
    {
        m_isChangeOk = m_isChangeOk && ok;
    }
    m_providers.links.erase(link);
    Settle();
}

void ReferenceSubscription::OnChangeFailed()
{
    m_hasChangeFailed = true;
    Settle();
}

/// The answer to a change of symbol first, then the end.
void ReferenceSubscription::Settle()
{
    const auto owes = [this](bool forChangeOnly)
    {
        return m_isExpecting || std::any_of(m_providers.links.begin(), m_providers.links.end(),
                                            [&](const auto& entry)
                                            {
                                                const ReferenceProviders::Link& link = entry.second;
                                                return link.subscription == this && link.isUnsubscribing &&
                                                       (link.isForChange || !forChangeOnly);
                                            });
    };
    if (m_changeAnswered && !owes(true))
    {
        std::exchange(m_changeAnswered, nullptr)(m_isChangeOk);
        if (!m_isChangeOk)
        {
            m_hasChangeFailed = true;
            ReferenceProviders::Change& change = m_providers.changes[{def.marketId, symbol}];
            change.hasFailed = true;
            for (const int member : std::exchange(change.members, {}))
            {
                if (const auto sibling = m_providers.subscriptions.find(member);
                    sibling != m_providers.subscriptions.end())
                {
                    sibling->second->OnChangeFailed();
                }
            }
        }
    }
    if (m_hasChangeFailed && !m_changeAnswered)
    {
        m_isInChange = false;
    }
    if (m_isTornDown && !m_isInChange && !owes(false) && m_completed)
    {
        std::exchange(m_completed, nullptr)();
    }
}

} // namespace ps_ns::simulation
