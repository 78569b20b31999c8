#include "zel/zel_provider.h"

#include "zel_market.h"

#include <algorithm>
#include <utility>

namespace ps_ns
{

ZelProvider::ZelProvider(std::unique_ptr<IProviderTransport> transport, ZelOptions options)
    : m_options(std::move(options))
    , m_transport(std::move(transport))
    , m_pools(m_options.updatesInFlight)
{
    for (const ZelMarketName& market : m_options.markets)
    {
        m_markets.push_back(std::make_unique<ZelMarket>(market.id, market.name));
        m_byName.emplace(market.name, m_markets.back().get());
        m_directory.AddMarket(market.id);
    }
}

ZelProvider::~ZelProvider()
{
    Stop();
}

void ZelProvider::Start()
{
    m_transport->Connect(*this);
    for (const unsigned shard : m_options.shards)
    {
        m_transport->SubscribeShard(shard);
    }
    if (m_options.shards.empty())
    {
        m_transport->SubscribeShard(std::nullopt);
    }
    if (!m_options.isHandDriven)
    {
        m_thread = std::thread([this] { Run(); });
    }
}

void ZelProvider::Stop()
{
    {
        const std::lock_guard lock(m_wakeMutex);
        m_isStopping = true;
    }
    m_wake.notify_all();
    m_pools.budget->Stop(); // a message that waits for room would hold up the transport's stop
    m_transport->Stop();
    if (m_thread.joinable())
    {
        m_thread.join();
    }
    std::unordered_map<const IComponentListener*, Subscription> left; // let go without the lock
    const ScopedRoleLock lock(m_mutex, m_role);
    m_isClosed = true;
    for (const std::unique_ptr<ZelMarket>& market : m_markets)
    {
        for (const std::unique_ptr<ZelInstrument>& instrument : market->instruments)
        {
            instrument->feed.DropAll();
        }
    }
    left.swap(m_subscriptions);
}

ZelMarket* ZelProvider::FindMarket(std::string_view name) const
{
    const auto found = m_byName.find(std::string(name));
    return found == m_byName.end() ? nullptr : found->second;
}

ZelMarket* ZelProvider::FindMarket(short id) const
{
    const auto found = std::find_if(m_markets.begin(), m_markets.end(),
                                    [id](const std::unique_ptr<ZelMarket>& market) { return market->id == id; });
    return found == m_markets.end() ? nullptr : found->get();
}

ZelCounts ZelProvider::GetCounts() const
{
    const ScopedRoleLock lock(m_mutex, m_role);
    ZelCounts counts = m_counts;
    counts.marketsLost = static_cast<std::uint64_t>(std::count_if(
        m_markets.begin(), m_markets.end(), [](const std::unique_ptr<ZelMarket>& market) { return market->isLost; }));
    return counts;
}

} // namespace ps_ns
