#include "server/effective_config.h"

#include "server/mds_wiring.h"

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
    if (line.seed)
    {
        if (!config.mds || !config.mds->simulation)
        {
            throw UsageError("--seed is for the simulated market, and there is none");
        }
        config.mds->simulation->seed = *line.seed;
    }
    config.logging.level = line.logLevel.value_or(config.logging.level);
    return effective;
}

} // namespace ps_ns
