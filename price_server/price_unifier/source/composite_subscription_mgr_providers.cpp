#include "price_unifier/source/composite_subscription_mgr.h"

#include "price_unifier/source/composite_instrument_subscription.h"
#include "price_unifier/source/detail/manager_log.h"
#include "simple_subscription/simple_subscription_mgr.h"

namespace ps_ns
{

void CompositeSubscriptionMgr::AddPendingSubscription(const CompositeInstrumentDef& def,
                                                      CompositeInstrumentSubscription* subscription)
{
    AssertOnQueueThread(m_dataQueue);
    m_pendingProviderSubscriptions[PendingSubscriptionID(def)].push_back(subscription);
    SubscriptionPendingGaugeInstance().Set(static_cast<double>(m_pendingProviderSubscriptions.size()));
}

void CompositeSubscriptionMgr::CheckProviderPendingSubscriptions()
{
    AssertOnQueueThread(m_dataQueue);
    std::size_t erased = 0;
    for (auto entry = m_pendingProviderSubscriptions.begin(); entry != m_pendingProviderSubscriptions.end();)
    {
        const PendingSubscriptionID& key = entry->first;
        const auto [provider, isFinal] = m_simpleSubscriptionMgr->GetProviderType(
            ProviderFunction::Prices, key.marketId, key.submarketId, key.symbol);
        if (!isFinal)
        {
            ++entry;
            continue;
        }
        detail::LogManager(10,
                           [&, finalProvider = provider](std::ostream& text)
                           {
                               text << "MonitorPendingSymbols: "
                                    << "marketId=" << key.marketId << " submarketId=" << key.submarketId << " symbol=\""
                                    << key.symbol << "\" finalProvider=" << finalProvider;
                           });
        if (provider == ProviderType::Mds)
        {
            for (CompositeInstrumentSubscription* const subscription : entry->second)
            {
                subscription->SwitchProvider(CompositeComponentType::Direct, ProviderType::Mds);
            }
            // They were counted under ZEL when they were parked.
            const auto count = static_cast<double>(entry->second.size());
            SubscriptionGaugeInstance(ProviderType::Zel) -= count;
            SubscriptionGaugeInstance(ProviderType::Mds) += count;
        }
        entry = m_pendingProviderSubscriptions.erase(entry);
        ++erased;
    }
    if (erased != 0)
    {
        SubscriptionPendingGaugeInstance().Set(static_cast<double>(m_pendingProviderSubscriptions.size()));
    }
}

void CompositeSubscriptionMgr::UnsubscribeAndMarkPending(const CompositeInstrumentDef& def,
                                                         SubscriptionMap::iterator it)
{
    AssertOnQueueThread(m_dataQueue);
    CompositeInstrumentSubscription* const subscription = it->second;
    subscription->UnsubscribeComponents();
    m_subscriptionByCompositeInstrumentID.erase(it);
    if (!m_compositeInstrumentIDBySubscription.emplace(subscription, CompositeInstrumentID(def)).second)
    {
        detail::LogManager(20,
                           [&](std::ostream& text)
                           {
                               text << "CompositeSubscriptionMgr: failed to add " << def.ToString()
                                    << " composite_id=" << static_cast<const void*>(subscription)
                                    << " already in pending delete list";
                           });
    }
}

} // namespace ps_ns
