#include "server/price_server.h"

#include "mds/mds_provider.h"
#include "server/zel_wiring.h"
#include "zel/instrument_shard.h"
#include "zel/shard_service.h"

#include <algorithm>

namespace ps_ns
{
namespace
{

gateway::ServerPlace MakePlace(const ServerNotice& server)
{
    return {server.server, server.address, server.shards};
}

} // namespace

/// After the gateway, whose address the others are told.
void PriceServer::StartShards()
{
    if (!m_config.zel || m_config.zel->shards == 0)
    {
        return;
    }
    m_shards = MakeShardService(*m_config.zel, GetUrl(), *m_zel);
    m_shardsSeen = m_shards.get();
    m_shards->Start();
}

bool PriceServer::IsServedElsewhere(std::uint32_t shard) const
{
    const ShardService* const shards = m_shardsSeen.load();
    const std::optional<ServerNotice> server = shards == nullptr ? std::nullopt : shards->FindServer(shard);
    return server && server->session != shards->GetSession();
}

std::optional<ShardView> PriceServer::GetShardView() const
{
    const ShardService* const shards = m_shardsSeen.load();
    return shards == nullptr ? std::nullopt : std::optional(shards->GetView());
}

std::optional<gateway::ShardsView> PriceServer::GetShards() const
{
    const std::optional<ShardView> view = GetShardView();
    if (!view)
    {
        return std::nullopt;
    }
    gateway::ShardsView shards{view->shards, {}};
    std::transform(view->servers.begin(), view->servers.end(), std::back_inserter(shards.servers), MakePlace);
    return shards;
}

/// What the in-process provider has is served here.
std::optional<gateway::ShardPlace> PriceServer::FindShard(const DirectoryEntry& entry) const
{
    constexpr short kAnySubmarket = -1;
    const ShardService* const shards = m_shardsSeen.load();
    const short marketId = entry.submarket.marketId;
    if (shards == nullptr || (m_mds != nullptr && m_mds->GetDirectory().Find(marketId, kAnySubmarket, entry.symbol)))
    {
        return std::nullopt;
    }
    const std::string& first = entry.firstSymbol.empty() ? entry.symbol : entry.firstSymbol;
    gateway::ShardPlace place;
    place.shard = GetShard(m_markets.Get(marketId).name, first, m_config.zel->shards);
    if (const std::optional<ServerNotice> server = shards->FindServer(place.shard))
    {
        place.isHere = server->session == shards->GetSession();
        place.server = MakePlace(*server);
    }
    return place;
}

} // namespace ps_ns
