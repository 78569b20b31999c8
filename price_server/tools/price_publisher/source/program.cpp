#include "price_publisher/program.h"

#include "logging/logging.h"
#include "mds/market_simulation.h"
#include "mds/replay_source.h"
#include "price_publisher/publisher_run.h"
#include "server/mds_wiring.h"
#include "server/stop_signals.h"
#include "server/terminal.h"
#include "zel/nats_transport.h"
#include "zel/password_file.h"

#include <cstdio>
#include <exception>
#include <memory>
#include <string>
#include <unistd.h>

namespace ps_ns::price_publisher
{
namespace
{

constexpr std::int64_t kLastValuesBytes = 256'000'000; // some 25,000 images of 10 kB

NatsOptions MakeNatsOptions(const Options& options)
{
    NatsOptions nats;
    nats.url = options.broker;
    nats.clientName = "price_publisher";
    nats.user = options.user;
    nats.lastValuesBytes = options.keepsLastValues ? kLastValuesBytes : 0;
    if (!options.passwordFile.empty())
    {
        nats.password = ReadPasswordFile(options.passwordFile);
    }
    return nats;
}

std::unique_ptr<IMarketSource> MakeSource(const Options& options)
{
    if (!options.replayFiles.empty())
    {
        const RecordedMarkets recorded = ReadRecordedMarkets(options.replayFiles);
        ReplayOptions replay;
        replay.files = options.replayFiles;
        replay.loops = options.loops;
        replay.alignsStarts = recorded.wereApart && options.renames.empty(); // renames have dates
        return std::make_unique<ReplaySource>(std::move(replay), MarketTable(recorded.markets));
    }
    SimulationOptions simulation;
    simulation.seed = options.seed;
    simulation.market = options.market;
    simulation.messagesPerSecond = options.rate;
    return std::make_unique<MarketSimulation>(std::move(simulation));
}

/// Standard error: a line that is redrawn in place on a terminal, a line now and then elsewhere.
class ProgressLine
{
public:
    void Show(const ProgressSample& sample)
    {
        if (!m_isTerminal && sample.time - m_shown.time < kSeldom)
        {
            return;
        }
        const std::string line = FormatProgress(sample, m_shown, m_isTerminal && m_hasColors);
        std::fprintf(stderr, m_isTerminal ? "\r%s\x1b[K" : "price_publisher: %s\n", line.c_str());
        m_isOpen = m_isTerminal;
        m_shown = sample;
    }
    void End()
    {
        if (m_isOpen)
        {
            std::fputs("\n", stderr);
        }
    }

private:
    static constexpr std::chrono::seconds kSeldom{5};

    const bool m_isTerminal = IsLadderTerminal(STDERR_FILENO);
    const bool m_hasColors = WantsColors();
    bool m_isOpen = false;
    ProgressSample m_shown;
};

ExitCode Publish(const Options& options)
{
    StopSignals signals([] {}, [] {}); // before anything that has a thread
    NatsTransport transport(MakeNatsOptions(options));
    ProgressLine progress;
    PublisherRun run(
        MakeSource(options), transport, options, [&] { return signals.IsStopRequested(); },
        [&](const ProgressSample& sample)
        {
            if (!options.isQuiet)
            {
                progress.Show(sample);
            }
        });
    // Also when the run throws: the transport calls it until it is stopped.
    const auto stop = [](NatsTransport* stopped) { stopped->Stop(); };
    std::unique_ptr<NatsTransport, decltype(stop)> stopper(&transport, stop);
    const ExitCode code = run.Run();
    stopper.reset();
    progress.End();
    if (!options.isQuiet)
    {
        std::fprintf(stderr, "price_publisher: %s\n", FormatSummary(run.GetCounts()).c_str());
    }
    return code;
}

} // namespace

ExitCode RunProgram(const Options& options)
{
    try
    {
        return Publish(options);
    }
    catch (const std::exception& error)
    {
        std::fprintf(stderr, "price_publisher: %s\n", error.what());
        return ExitCode::Failure;
    }
}

} // namespace ps_ns::price_publisher
