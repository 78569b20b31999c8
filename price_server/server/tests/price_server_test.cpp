#include "server/price_server.h"

#include "composite_instrument/local_observer_factory.h"
#include "gateway/instrument_list.h"
#include "logging/logging.h"
#include "program_test_kit.h"

#include <gtest/gtest.h>

#include <chrono>
#include <latch>
#include <thread>
#include <vector>

namespace ps_ns
{
namespace
{

using Clock = std::chrono::steady_clock;
using ps_messages_ns::SubscriptionResult;

constexpr auto kPatience = std::chrono::seconds(60);

/// Looks again and again; false: not in time.
template <class Condition>
bool WaitFor(Condition condition)
{
    const auto deadline = Clock::now() + kPatience;
    while (!condition())
    {
        if (Clock::now() > deadline)
        {
            return false;
        }
        std::this_thread::yield();
    }
    return true;
}

std::vector<CompositeInstrumentDef> GetDefinitions(const PriceServer& server)
{
    std::vector<CompositeInstrumentDef> defs;
    for (const ListedInstrument& instrument : ListInstruments(server.GetDirectoryEntries(), server.GetMarkets()))
    {
        defs.push_back(MakeDefinition(instrument));
    }
    return defs;
}

CompositeSubscriptionInfo MakeScope(std::int32_t depth)
{
    CompositeSubscriptionInfo scope;
    scope.depth = depth;
    scope.trades = true;
    return scope;
}

/// Subscribes, changes and unsubscribes on both interfaces until the server refuses.
void BeClient(PriceServer& server, const std::vector<CompositeInstrumentDef>& defs, LocalObserverFactory& factory,
              const std::shared_ptr<CallbackCounts>& counts, std::size_t number)
{
    const auto direct = MakeCountingObserver(counts);
    const auto flexible = MakeCountingFlexibleObserver(counts);
    bool isOpen = true;
    for (std::size_t round = number; isOpen; ++round)
    {
        const CompositeInstrumentDef& def = defs[round % defs.size()];
        const unsigned long id = 100 * (number + 1);
        isOpen = server.TryRequest(
            [&](CompositeSubscriptionMgr& manager)
            {
                const auto handle = manager.Subscribe(def, MakeScope(5), direct, id).first;
                manager.Subscribe(def, MakeScope(static_cast<std::int32_t>(1 + round % 7)), factory, flexible, id + 1);
                manager.ChangeScope(def, MakeScope(3), flexible, id + 1, true);
                if (round % 3 != 0)
                {
                    manager.Unsubscribe(def, flexible, id + 1);
                }
                if (handle != 0 && round % 2 == 0)
                {
                    manager.Unsubscribe(handle);
                }
            });
        std::this_thread::yield();
    }
}

TEST(PriceServer, StopsCleanlyUnderLoadFiftyTimesInOneProcess)
{
    LocalObserverFactory factory;
    constexpr std::size_t kClients = 3;
    std::uint64_t books = 0;
    for (unsigned run = 0; run < 50; ++run)
    {
        const auto counts = std::make_shared<CallbackCounts>();
        PriceServer server(MakeQuietConfig(500'000));
        server.Start();
        ASSERT_TRUE(WaitFor([&] { return server.IsDirectoryComplete(); }));
        const std::vector<CompositeInstrumentDef> defs = GetDefinitions(server);
        ASSERT_FALSE(defs.empty());

        std::latch begin(kClients + 1);
        std::vector<std::thread> clients;
        for (std::size_t number = 0; number < kClients; ++number)
        {
            clients.emplace_back(
                [&, number]
                {
                    begin.arrive_and_wait();
                    BeClient(server, defs, factory, counts, number);
                });
        }
        begin.arrive_and_wait();
        EXPECT_TRUE(WaitFor([&] { return counts->books.load() > 100 * (run % 5); })) << "in run " << run;
        server.Stop();
        const std::uint64_t atStop = counts->GetAll();
        for (std::thread& client : clients)
        {
            client.join();
        }
        server.Stop();
        EXPECT_EQ(counts->GetAll(), atStop) << "an observer was called after the stop, in run " << run;
        books += counts->books.load();
    }
    EXPECT_GT(books, 0U);
}

TEST(PriceServer, LetsObserversGoWhenItStops)
{
    auto counts = std::make_shared<CallbackCounts>();
    const std::weak_ptr<CallbackCounts> held = counts;
    PriceServer server(MakeQuietConfig(1000));
    server.Start();
    ASSERT_TRUE(WaitFor([&] { return server.IsDirectoryComplete(); }));
    for (const CompositeInstrumentDef& def : GetDefinitions(server))
    {
        server.TryRequest([&](CompositeSubscriptionMgr& manager)
                          { manager.Subscribe(def, MakeScope(5), MakeCountingObserver(counts), 1); });
    }
    ASSERT_TRUE(WaitFor([&] { return counts->books.load() > 100; }));
    counts.reset();
    EXPECT_FALSE(held.expired());
    server.Stop();
    EXPECT_TRUE(held.expired());
}

TEST(PriceServer, RefusesRequestsBeforeItHasStartedAndAfterItHasStopped)
{
    PriceServer server(MakeQuietConfig(100));
    const auto ask = [&] { return server.TryRequest([](CompositeSubscriptionMgr&) {}); };
    EXPECT_FALSE(ask());
    server.Start();
    EXPECT_TRUE(ask());
    server.Stop();
    EXPECT_FALSE(ask());
}

TEST(PriceServer, PlaysNothingBeforeItsPricesAreReleased)
{
    const auto counts = std::make_shared<CallbackCounts>();
    PriceServerOptions options;
    options.holdsPrices = true;
    ServerConfig config = MakeQuietConfig(1000);
    config.markets = {{1, "SPOT"}};
    config.mds->simulation.reset();
    config.mds->replay.emplace();
    config.mds->replay->speed = 0;
    config.mds->replay->files = {GetRecording("three_segments/spot.csv.zst")};
    PriceServer server(config, options);
    server.Start();
    ASSERT_TRUE(WaitFor([&] { return server.IsDirectoryComplete(); }));
    const std::vector<CompositeInstrumentDef> defs = GetDefinitions(server);
    ASSERT_EQ(defs.size(), 2U);
    server.TryRequest([&](CompositeSubscriptionMgr& manager)
                      { manager.Subscribe(defs[0], MakeScope(5), MakeCountingObserver(counts), 1); });
    ASSERT_TRUE(WaitFor([&] { return counts->answers.load() == 1; }));
    server.DrainExecutors();
    EXPECT_EQ(counts->books.load(), 0U);
    EXPECT_FALSE(server.HasEnded());

    server.ReleasePrices();
    ASSERT_TRUE(WaitFor([&] { return server.HasEnded(); }));
    server.DrainExecutors();
    EXPECT_GT(counts->books.load(), 100U);
    EXPECT_GT(counts->trades.load(), 100U);
}

TEST(PriceServer, StopsWhileItsPricesAreStillHeld)
{
    PriceServerOptions options;
    options.holdsPrices = true;
    PriceServer server(MakeQuietConfig(1000), options);
    server.Start();
    server.Stop();
    EXPECT_FALSE(server.TryRequest([](CompositeSubscriptionMgr&) {}));
}

TEST(PriceServer, NamesTheFileThatItCannotPlayAndLeavesNothingRunning)
{
    ServerConfig config = MakeQuietConfig(1000);
    config.mds->simulation.reset();
    config.mds->replay.emplace().files = {"/no/such/recording.csv"};
    PriceServer server(config);
    try
    {
        server.Start();
        FAIL() << "it started";
    }
    catch (const std::runtime_error& error)
    {
        EXPECT_NE(std::string(error.what()).find("/no/such/recording.csv"), std::string::npos) << error.what();
    }
    EXPECT_FALSE(server.TryRequest([](CompositeSubscriptionMgr&) {}));
}

/// Nobody listens on port 1.
constexpr const char* kNoBroker = "nats://127.0.0.1:1";

TEST(PriceServer, ServesItsOwnPricesWhileThereIsNoBroker)
{
    const auto counts = std::make_shared<CallbackCounts>();
    ServerConfig config = MakeQuietConfig(1000);
    config.zel.emplace().url = kNoBroker;
    PriceServer server(config);
    server.Start();
    ASSERT_TRUE(WaitFor([&] { return server.IsDirectoryComplete(); }));
    const std::vector<CompositeInstrumentDef> defs = GetDefinitions(server);
    ASSERT_FALSE(defs.empty());
    server.TryRequest([&](CompositeSubscriptionMgr& manager)
                      { manager.Subscribe(defs[0], MakeScope(5), MakeCountingObserver(counts), 1); });
    EXPECT_TRUE(WaitFor([&] { return counts->books.load() > 10; }));
    EXPECT_FALSE(server.HasEnded());
}

TEST(PriceServer, RunsWithoutPricesUntilThereIsABroker)
{
    const auto counts = std::make_shared<CallbackCounts>();
    ServerConfig config = MakeQuietConfig(1000);
    config.mds.reset();
    config.zel.emplace().url = kNoBroker;
    PriceServer server(config);
    server.Start();
    EXPECT_FALSE(server.IsDirectoryComplete());
    EXPECT_TRUE(server.GetDirectoryEntries().empty());
    EXPECT_FALSE(server.HasEnded());
    CompositeInstrumentDef def;
    def.marketId = 1;
    def.instrument = {"ANY", "SIM"};
    def.components = {true, false, false};
    EXPECT_TRUE(server.TryRequest([&](CompositeSubscriptionMgr& manager)
                                  { manager.Subscribe(def, MakeScope(5), MakeCountingObserver(counts), 1); }));
    server.Stop();
    EXPECT_EQ(counts->books.load(), 0U);
}

TEST(PriceServer, RefusesToStartWithoutAPasswordThatItNeeds)
{
    ServerConfig config = MakeQuietConfig(1000);
    config.zel.emplace().user = "server";
    config.zel->passwordFile = "/no/such/file";
    PriceServer server(config);
    EXPECT_THROW(server.Start(), std::runtime_error);
}

TEST(PriceServer, PutsTheProcessesLogBackWhenItStops)
{
    const int level = zel::logging::g_minLogLevel.load();
    PriceServer server(MakeQuietConfig(1000));
    server.Start();
    EXPECT_EQ(zel::logging::g_minLogLevel.load(), 100);
    server.Stop();
    EXPECT_EQ(zel::logging::g_minLogLevel.load(), level);
}

} // namespace
} // namespace ps_ns
