#include "golden_kit.h"

#include "price_publisher/publisher_run.h"

#include "mds/recording_scan.h"
#include "mds/replay_source.h"
#include "server/mds_wiring.h"
#include "server/price_server.h"
#include "zel/nats_transport.h"
#include "zel_testing/broker_process.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

namespace ps_ns::golden
{
namespace
{

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

template <class Condition>
bool WaitFor(Condition condition)
{
    const auto deadline = Clock::now() + 60s;
    while (!condition())
    {
        if (Clock::now() > deadline)
        {
            return false;
        }
        std::this_thread::sleep_for(2ms);
    }
    return true;
}

/// A server without prices of its own that delivers every book, whether or not it shows the same.
ServerConfig MakeConfig(const std::vector<Market>& markets, const std::string& broker)
{
    ServerConfig config = MakeBuiltInServerConfig();
    config.config = Config::LoadText("<PriceServer/>", "test");
    config.markets = markets;
    config.mds.reset();
    config.gateway.reset();
    config.logging.level = 100;
    config.zel.emplace().url = broker;
    return config;
}

void ExpectGoldenBooksThroughABroker(const std::string& folder, const std::vector<std::string>& names,
                                     std::size_t expectedRows, std::size_t expectedInstruments)
{
    const Golden golden = ReadGolden(Files(folder, {"golden_top10"}).front());
    ASSERT_EQ(golden.rowCount, expectedRows);
    ASSERT_EQ(golden.books.size(), expectedInstruments);
    const std::vector<std::string> files = Files(folder, names);
    const RecordedMarkets recorded = ReadRecordedMarkets(files);

    testing_ns::BrokerProcess broker;
    PriceServer server(MakeConfig(recorded.markets, broker.GetUrl()));
    server.Start();
    NatsOptions nats;
    nats.url = broker.GetUrl();
    NatsTransport transport(nats);
    price_publisher::Options options;
    options.replayFiles = files;
    options.speed = 20;
    std::atomic<bool> isStopped{false};
    std::atomic<bool> hasEnded{false};
    std::atomic<bool> areSubscribed{false};
    ReplayOptions replay;
    replay.files = files;
    replay.alignsStarts = recorded.wereApart;
    price_publisher::PublisherRun run(
        std::make_unique<ReplaySource>(replay, MarketTable(recorded.markets)), transport, options,
        [&] { return isStopped.load(); },
        [&](const price_publisher::ProgressSample& sample) { hasEnded.store(sample.hasEnded); });
    run.mayBegin = [&] { return areSubscribed.load(); };
    std::thread publishing([&] { run.Run(); });

    const bool isListed = WaitFor([&] { return server.GetDirectoryEntries().size() >= expectedInstruments; });
    EXPECT_TRUE(isListed);
    GoldenBooks seen;
    std::vector<std::shared_ptr<GoldenObserver>> observers;
    for (const auto& [name, wanted] : golden.books)
    {
        CompositeInstrumentDef def;
        def.marketId = server.GetMarkets().FindByName(name.first)->id;
        def.instrument = {name.second, name.first};
        def.instrumentId = std::hash<std::string>()(name.first + name.second);
        def.components = {true, false, false};
        const auto& observer = observers.emplace_back(std::make_shared<GoldenObserver>(wanted, seen[name]));
        server.TryRequest(
            [&](CompositeSubscriptionMgr& manager) {
                manager.Subscribe(def, {10, 0, false, false}, observer, 1);
            });
    }
    EXPECT_TRUE(WaitFor(
        [&]
        {
            return std::all_of(observers.begin(), observers.end(),
                               [](const auto& observer) { return observer->isAnswered.load(); });
        }));
    areSubscribed.store(true);
    EXPECT_TRUE(WaitFor([&] { return hasEnded.load(); }));
    isStopped.store(true);
    publishing.join();
    transport.Stop();
    // What the broker has taken is on its way: until nothing has come for a while.
    const auto countBooks = [&]
    {
        std::uint64_t books = 0;
        for (const auto& observer : observers)
        {
            books += observer->books.load();
        }
        return books;
    };
    for (std::uint64_t before = 0, now = countBooks(); now != before; now = countBooks())
    {
        before = now;
        std::this_thread::sleep_for(300ms);
    }
    server.Stop();
    std::size_t equalRows = 0;
    for (const auto& [name, times] : golden.books)
    {
        for (const auto& [time, rows] : times)
        {
            EXPECT_EQ(seen[name][time], rows) << name.first << " " << name.second << " at " << time;
            equalRows += seen[name][time] == rows ? rows.size() : 0;
        }
    }
    EXPECT_EQ(equalRows, expectedRows);
    EXPECT_EQ(run.GetCounts().unsent, 0U);
}

TEST(GoldenBooksThroughABroker, OfThreeSegmentsEqualAnIndependentBookBuildersInEveryRow)
{
    ExpectGoldenBooksThroughABroker("three_segments", {"spot", "usdm", "coinm"}, 1560, 6);
}

TEST(GoldenBooksThroughABroker, OfFortyOneInstrumentsEqualAnIndependentBookBuildersInEveryRow)
{
    ExpectGoldenBooksThroughABroker("many_instruments", {"bitflyer", "bitmex", "krakenfutures", "poloniex"}, 3800, 41);
}

} // namespace
} // namespace ps_ns::golden
