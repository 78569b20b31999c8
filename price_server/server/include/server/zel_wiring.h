#pragma once

#include "simple_subscription/market_table.h"
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
                                             ZelRenameStep renameStep = {});

} // namespace ps_ns
