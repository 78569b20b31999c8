#pragma once

#include "mds/mds_provider.h"
#include "simple_subscription/market_table.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace ps_ns
{

struct MdsSettings;
class PriceGate;

/// As MdsOptions::renameStep.
using MdsRenameStep = std::function<void(const std::vector<SymbolRename>& renames, const std::function<void()>& make)>;

/// The in-process provider that the settings ask for, not started; its messages wait for the gate. `alignsStarts`: as
/// in ReplayOptions. A simulation plays the first market of the table. Throws std::invalid_argument when the settings
/// have neither a replay nor a simulation, or there is no market.
std::shared_ptr<MdsProvider> MakeMdsProvider(const MdsSettings& settings, const MarketTable& markets, bool alignsStarts,
                                             const std::shared_ptr<PriceGate>& gate, MdsRenameStep renameStep = {});

/// What recorded files tell a server that has no configuration for them.
struct RecordedMarkets
{
    std::vector<Market> markets;
    bool wereApart = false; ///< not recorded at the same time: more than an hour between their first rows
};

/// Reads the files once, from front to back. Throws std::runtime_error, naming the file, when one cannot be read, and
/// when there is no market in them.
RecordedMarkets ReadRecordedMarkets(const std::vector<std::string>& files);

} // namespace ps_ns
