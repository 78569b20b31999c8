#include "server/zel_wiring.h"

#include "server/server_config.h"
#include "zel/nats_lease_store.h"
#include "zel/nats_transport.h"
#include "zel/password_file.h"

#include <array>
#include <random>
#include <sstream>
#include <unistd.h>
#include <utility>

namespace ps_ns
{
namespace
{

/// "host-1234"
std::string MakeServerName()
{
    std::array<char, 256> host{};
    ::gethostname(host.data(), host.size() - 1);
    return std::string(host.data()) + '-' + std::to_string(::getpid());
}

/// No two runs have the same.
std::string MakeSession(const std::string& server)
{
    std::random_device device;
    std::ostringstream text;
    text << server << '.' << std::hex << device() << device();
    return text.str();
}

NatsOptions MakeNatsOptions(const ZelSettings& settings)
{
    NatsOptions nats;
    nats.url = settings.url;
    nats.connectTimeout = std::chrono::milliseconds(settings.connectTimeout_ms);
    if (!settings.user.empty())
    {
        nats.user = settings.user;
        nats.password = ReadPasswordFile(settings.passwordFile);
    }
    return nats;
}

} // namespace

std::shared_ptr<ZelProvider> MakeZelProvider(const ZelSettings& settings, const MarketTable& markets,
                                             ZelRenameStep renameStep,
                                             std::function<bool(std::uint32_t shard)> isServedElsewhere)
{
    ZelOptions options;
    options.shardCount = settings.shards;
    options.isServedElsewhere = std::move(isServedElsewhere);
    for (const Market& market : markets.GetAll())
    {
        options.markets.push_back({market.id, market.name});
    }
    options.renameStep = std::move(renameStep);
    return std::make_shared<ZelProvider>(std::make_unique<NatsTransport>(MakeNatsOptions(settings)),
                                         std::move(options));
}

std::unique_ptr<ShardService> MakeShardService(const ZelSettings& settings, const std::string& gatewayUrl,
                                               ZelProvider& provider)
{
    LeaseOptions options;
    options.shards = settings.shards;
    options.server = settings.server.empty() ? MakeServerName() : settings.server;
    options.session = MakeSession(options.server);
    options.address = settings.address.empty() ? gatewayUrl : settings.address;
    options.lease = std::chrono::milliseconds(settings.lease_ms);
    auto store = std::make_unique<NatsLeaseStore>(MakeNatsOptions(settings), settings.brokers, options.session);
    return std::make_unique<ShardService>(
        std::move(store), std::move(options),
        LeaseKeeper::Events{[&provider](std::uint32_t shard) { provider.ServeShard(shard); },
                            [&provider](std::uint32_t shard) { provider.LeaveShard(shard); }});
}

} // namespace ps_ns
