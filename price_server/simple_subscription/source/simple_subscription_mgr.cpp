#include "simple_subscription/simple_subscription_mgr.h"

#include "logging/logging.h"

#include <algorithm>
#include <stdexcept>

namespace ps_ns
{
namespace
{

const std::shared_ptr<const zel::logging::Source>& LogSource()
{
    static const auto source = std::make_shared<const zel::logging::Source>("simple_subscription_mgr");
    return source;
}

} // namespace

SimpleSubscriptionMgr::SimpleSubscriptionMgr(MarketTable markets, std::shared_ptr<IExecutorFactory> executors,
                                             std::shared_ptr<AsyncDispatcher> timers)
    : m_markets(std::move(markets))
    , m_executorFactory(std::move(executors))
    , m_timers(std::move(timers))
{
    m_gauges.Create(0, {"subscriptions_stale", "number of composite subscriptions with a silent component", {}});
}

SimpleSubscriptionMgr::~SimpleSubscriptionMgr() = default;

void SimpleSubscriptionMgr::AddProvider(std::shared_ptr<IPriceProvider> provider)
{
    if (HasProvider(provider->GetType()))
    {
        throw std::invalid_argument("there is a provider of type " + std::to_string(provider->GetType()) + " already");
    }
    m_providers.push_back(std::move(provider));
}

IPriceProvider* SimpleSubscriptionMgr::FindProvider(ProviderType::Value type) const noexcept
{
    const auto found = std::find_if(m_providers.begin(), m_providers.end(),
                                    [type](const auto& provider) { return provider->GetType() == type; });
    return found == m_providers.end() ? nullptr : found->get();
}

std::pair<ProviderType::Value, bool> SimpleSubscriptionMgr::GetProviderType(ProviderFunction::Value, short marketId,
                                                                            short submarketId,
                                                                            const std::string& symbol) const
{
    bool allComplete = true;
    for (const auto& provider : m_providers)
    {
        const InstrumentDirectory& directory = provider->GetDirectory();
        const bool isReading = directory.IsReading(marketId); // asked first: what comes after that may be the last
        if (provider->GetType() == ProviderType::Mds && directory.Has(marketId, submarketId, symbol))
        {
            return {ProviderType::Mds, true};
        }
        allComplete = allComplete && !isReading;
    }
    return {ProviderType::Zel, allComplete};
}

std::shared_ptr<Executor> SimpleSubscriptionMgr::GetExecutor(const Submarket& submarket, const std::string&,
                                                             const std::string&)
{
    return m_markets.Has(submarket.marketId) ? GetSubscriptionExecutor(submarket) : nullptr;
}

std::shared_ptr<Executor> SimpleSubscriptionMgr::GetSubscriptionExecutor(const Submarket& submarket)
{
    return GetSurroundings(submarket)->executor;
}

std::shared_ptr<const SubscriptionSurroundings> SimpleSubscriptionMgr::GetSurroundings(const Submarket& submarket)
{
    const Submarket key = m_markets.Has(submarket.marketId) ? submarket : Submarket{};
    const std::lock_guard lock(m_surroundingsMutex);
    std::shared_ptr<const SubscriptionSurroundings>& surroundings = m_surroundings[key];
    if (surroundings == nullptr)
    {
        surroundings = std::make_shared<const SubscriptionSurroundings>(
            SubscriptionSurroundings{m_executorFactory->MakeExecutor(), m_timers, GetStaleGauge()});
    }
    return surroundings;
}

void SimpleSubscriptionMgr::DumpSubscriptions(unsigned long limit) const
{
    unsigned long count = 0;
    m_registry.ForEach(
        [&](const EnrolledSubscription& subscription)
        {
            ++count;
            if (limit == 0 || count <= limit)
            {
                zel::logging::Log(10, LogSource(),
                                  [&](std::ostream& text)
                                  {
                                      text << "DumpSubscriptions: ";
                                      subscription.Describe(text);
                                  });
            }
        });
    zel::logging::Log(10, LogSource(),
                      [&](std::ostream& text) { text << "DumpSubscriptions: " << count << " in all"; });
}

} // namespace ps_ns
