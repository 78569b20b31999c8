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
    m_served.assign(m_options.shardCount, false);
}

ZelProvider::~ZelProvider()
{
    Stop();
}

void ZelProvider::Start()
{
    // First what is listened to: the answer to a question of the first connection would have no ear.
    for (const unsigned shard : m_options.shards)
    {
        m_transport->SubscribeShard(shard);
    }
    if (m_options.shardCount != 0)
    {
        m_transport->SubscribeControl();
    }
    else if (m_options.shards.empty())
    {
        m_transport->SubscribeShard(std::nullopt);
    }
    m_transport->Connect(*this);
    if (!m_options.isHandDriven)
    {
        m_thread = std::thread([this] { Run(); });
        m_renamesThread = std::thread([this] { RunRenames(); });
    }
}

void ZelProvider::Stop()
{
    {
        const std::lock_guard lock(m_wakeMutex);
        m_isStopping = true;
    }
    m_wake.notify_all();
    m_renamesWake.notify_all();
    m_pools.budget->Stop(); // a message that waits for room would hold up the transport's stop
    m_transport->Stop();
    for (std::thread* const thread : {&m_thread, &m_renamesThread})
    {
        if (thread->joinable())
        {
            thread->join();
        }
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
    counts.marketsLost = static_cast<std::uint64_t>(std::count_if(m_markets.begin(), m_markets.end(),
                                                                  [](const std::unique_ptr<ZelMarket>& market)
                                                                  { return market->epoch != 0 && market->isLost; }));
    return counts;
}

std::size_t ZelProvider::GetBehindCount() const
{
    const ScopedRoleLock lock(m_mutex, m_role);
    return m_behind.size();
}

ZelState ZelProvider::GetState() const
{
    const ScopedRoleLock lock(m_mutex, m_role);
    const auto hasBegun = [](const std::unique_ptr<ZelMarket>& market) { return market->epoch != 0; };
    if (std::none_of(m_markets.begin(), m_markets.end(), hasBegun))
    {
        return ZelState::Starting;
    }
    const bool isLost = !m_transport->IsConnected() || std::any_of(m_markets.begin(), m_markets.end(),
                                                                   [&](const std::unique_ptr<ZelMarket>& market)
                                                                   { return hasBegun(market) && market->isLost; });
    return isLost ? ZelState::Lost : ZelState::Running;
}

} // namespace ps_ns
