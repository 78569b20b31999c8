#pragma once

#include "simple_subscription/market_table.h"
#include "zel/shard_service.h"
#include "zel/zel_provider.h"

#include <functional>
#include <memory>

namespace ps_ns
{

struct ZelSettings;

/// As ZelOptions::renameStep.
using ZelRenameStep = std::function<void(const std::vector<SymbolRename>& renames, const std::function<void()>& make)>;

/// The network provider that the settings ask for, not started, for all markets of the table. Throws
/// std::runtime_error when the password file cannot be read.
std::shared_ptr<ZelProvider> MakeZelProvider(const ZelSettings& settings, const MarketTable& markets,
                                             ZelRenameStep renameStep = {},
                                             std::function<bool(std::uint32_t shard)> isServedElsewhere = {});

/// What has the provider serve this server's shards; not started. `gatewayUrl`: for others, unless the settings name an
/// address. The provider is not owned, and outlives the service. The settings ask for shards. Throws as above.
std::unique_ptr<ShardService> MakeShardService(const ZelSettings& settings, const std::string& gatewayUrl,
                                               ZelProvider& provider);

} // namespace ps_ns
