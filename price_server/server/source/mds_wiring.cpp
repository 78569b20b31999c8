#include "server/mds_wiring.h"

#include "mds/market_simulation.h"
#include "mds/recording_scan.h"
#include "mds/replay_source.h"
#include "server/price_gate.h"
#include "server/server_config.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace ps_ns
{
namespace
{

ImpliedRule ToRule(const ImpliedRuleSettings& settings)
{
    using Kind = ImpliedRuleSettings::Kind;
    ImpliedRule rule;
    rule.marketId = settings.marketId;
    rule.symbol = settings.symbol;
    switch (settings.kind)
    {
    case Kind::Cross:
        rule.operation = ImpliedOperation::Ratio;
        rule.firstLeg = settings.numerator;
        rule.secondLeg = settings.denominator;
        break;
    case Kind::OutrightFromSpread:
        rule.operation = settings.near.empty() ? ImpliedOperation::Difference : ImpliedOperation::Sum;
        rule.firstLeg = settings.near.empty() ? settings.far : settings.near;
        rule.secondLeg = settings.spread;
        break;
    case Kind::SpreadFromOutrights:
        rule.operation = ImpliedOperation::Difference;
        rule.firstLeg = settings.far;
        rule.secondLeg = settings.near;
        break;
    }
    return rule;
}

TimedRename ToTimedRename(const RenameSettings& settings)
{
    constexpr short kEveryMarket = -1;
    return {settings.time_ns, {settings.marketId.value_or(kEveryMarket), settings.oldSymbol, settings.newSymbol}};
}

std::unique_ptr<IMarketSource> MakeSource(const MdsSettings& settings, const MarketTable& markets, bool alignsStarts)
{
    if (settings.replay)
    {
        ReplayOptions options;
        options.files = settings.replay->files;
        options.loops = settings.replay->loop;
        options.alignsStarts = alignsStarts;
        return std::make_unique<ReplaySource>(std::move(options), markets);
    }
    if (!settings.simulation || markets.GetAll().empty())
    {
        throw std::invalid_argument("the in-process provider has neither a replay nor a simulation with a market");
    }
    SimulationOptions options;
    options.seed = settings.simulation->seed;
    options.messagesPerSecond = settings.simulation->updatesPerSecond;
    options.marketId = markets.GetAll().front().id;
    options.market = markets.GetAll().front().name;
    return std::make_unique<MarketSimulation>(std::move(options));
}

} // namespace

std::shared_ptr<MdsProvider> MakeMdsProvider(const MdsSettings& settings, const MarketTable& markets, bool alignsStarts,
                                             const std::shared_ptr<PriceGate>& gate, MdsRenameStep renameStep)
{
    MdsOptions options;
    options.speed = settings.replay ? settings.replay->speed : 1.0;
    std::transform(settings.implied.begin(), settings.implied.end(), std::back_inserter(options.impliedRules), ToRule);
    std::transform(settings.renames.begin(), settings.renames.end(), std::back_inserter(options.renames),
                   ToTimedRename);
    options.renameStep = std::move(renameStep);
    return std::make_shared<MdsProvider>(
        std::make_unique<GatedSource>(MakeSource(settings, markets, alignsStarts), gate), std::move(options));
}

RecordedMarkets ReadRecordedMarkets(const std::vector<std::string>& files)
{
    constexpr std::uint64_t kHour_ns = 3'600'000'000'000;
    const std::atomic<bool> isStopped{false};
    const RecordingScan scan = ScanRecordings(files, KeepSilent(), isStopped); // the provider's own pass reports
    if (scan.markets.empty())
    {
        throw std::runtime_error("there are no prices in " + files.front() +
                                 (files.size() == 1 ? "" : " and the other files"));
    }
    const auto [first, last] = std::minmax_element(scan.firstTimes_ns.begin(), scan.firstTimes_ns.end());
    return {MakeMarketTable(scan).GetAll(), *last - *first > kHour_ns};
}

} // namespace ps_ns
