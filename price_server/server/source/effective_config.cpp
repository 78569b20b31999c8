#include "server/effective_config.h"

#include "config/detail/quoted.h"
#include "server/mds_wiring.h"
#include "server/rename_file.h"

#include <algorithm>
#include <utility>

namespace ps_ns
{
namespace
{

void Replay(const CommandLine& line, EffectiveConfig& effective)
{
    ServerConfig& config = effective.config;
    if (line.configFile.empty())
    {
        const RecordedMarkets recorded = ReadRecordedMarkets(line.replayFiles);
        config.markets = recorded.markets;
        effective.alignsStarts = recorded.wereApart;
    }
    MdsSettings settings;
    settings.replay.emplace().files = line.replayFiles;
    if (config.mds)
    {
        settings.implied = config.mds->implied;
        settings.renames = config.mds->renames;
    }
    config.mds = std::move(settings);
    config.zel.reset();
    effective.endsWithPrices = !line.loops;
}

void ChangeReplay(const CommandLine& line, EffectiveConfig& effective)
{
    ReplaySettings& replay = *effective.config.mds->replay;
    replay.speed = line.speed.value_or(replay.speed);
    replay.loop = !line.playsOnce && (line.loops || replay.loop);
    effective.endsWithPrices = effective.endsWithPrices || line.playsOnce;
}

void AddRenameFile(const std::string& path, std::vector<RenameSettings>& renames)
{
    RenameFile file = ReadRenameFile(path);
    if (!file.problems.empty())
    {
        throw ConfigError(path, std::move(file.problems));
    }
    for (RenameFile::Row& row : file.rows)
    {
        renames.push_back({std::nullopt, std::move(row.oldSymbol), std::move(row.newSymbol), row.time_ns});
    }
}

RenameSettings ReadRename(const AskedRename& asked, const std::vector<Market>& markets)
{
    RenameSettings rename{std::nullopt, asked.oldSymbol, asked.newSymbol, 0};
    const auto market =
        std::find_if(markets.begin(), markets.end(),
                     [&](const Market& known) { return asked.oldSymbol.starts_with(known.name + ":"); });
    if (market != markets.end())
    {
        rename.marketId = market->id;
        rename.oldSymbol.erase(0, market->name.size() + 1);
    }
    const std::string begin = "--rename " + asked.oldSymbol + " " + asked.newSymbol + " " + asked.when + ": ";
    if (rename.oldSymbol.empty() || rename.newSymbol.empty() || rename.oldSymbol == rename.newSymbol)
    {
        throw UsageError(begin + "two different symbols are expected");
    }
    const auto day = ParseLastDay(asked.when);
    const auto time_ns = day ? day : ParseUtcTime(asked.when);
    if (!time_ns)
    {
        throw UsageError(begin + detail::Quoted(asked.when) + " is neither " + std::string(kExpectedLastDay) + " nor " +
                         std::string(kExpectedUtcTime));
    }
    rename.time_ns = *time_ns;
    return rename;
}

/// After the markets are known.
void AddRenames(const CommandLine& line, EffectiveConfig& effective)
{
    if (line.renameFiles.empty() && line.renames.empty())
    {
        return;
    }
    if (!effective.config.mds)
    {
        throw UsageError("--renames and --rename are for recordings and the simulated market; there is neither");
    }
    std::vector<RenameSettings>& renames = effective.config.mds->renames;
    for (const std::string& path : line.renameFiles)
    {
        AddRenameFile(path, renames);
    }
    std::transform(line.renames.begin(), line.renames.end(), std::back_inserter(renames),
                   [&](const AskedRename& asked) { return ReadRename(asked, effective.config.markets); });
    // Renames have dates: files of different days are played on their own days then.
    effective.alignsStarts = false;
}

} // namespace

EffectiveConfig MakeEffectiveConfig(const CommandLine& line)
{
    EffectiveConfig effective;
    effective.config = line.configFile.empty() ? MakeBuiltInServerConfig() : LoadServerConfig(line.configFile);
    if (!line.replayFiles.empty())
    {
        Replay(line, effective);
    }
    ServerConfig& config = effective.config;
    if (config.mds && config.mds->replay)
    {
        ChangeReplay(line, effective);
    }
    else if (line.speed || line.loops || line.playsOnce)
    {
        throw UsageError("--speed, --loop and --once are for recordings; there is none to play");
    }
    AddRenames(line, effective);
    if (line.seed)
    {
        if (!config.mds || !config.mds->simulation)
        {
            throw UsageError("--seed is for the simulated market, and there is none");
        }
        config.mds->simulation->seed = *line.seed;
    }
    if (line.port)
    {
        GatewaySettings& gateway = config.gateway ? *config.gateway : config.gateway.emplace();
        gateway.port = static_cast<std::uint16_t>(*line.port);
    }
    if (line.servesNobody)
    {
        config.gateway.reset();
    }
    effective.takesAnyPort = line.configFile.empty() && !line.port;
    config.logging.level = line.logLevel.value_or(config.logging.level);
    return effective;
}

} // namespace ps_ns
