#include "async/thread_pool.h"
#include "common/channel_task.h"
#include "common/queue_reader.h"
#include "composite_price/default_composite_price_factory.h"
#include "config/config.h"
#include "mds/market_simulation.h"
#include "mds/mds_provider.h"
#include "price_unifier/source/composite_subscription_mgr.h"
#include "simple_subscription/simple_subscription_mgr.h"

#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <future>
#include <random>
#include <thread>

using namespace ps_ns;
using ps_messages_ns::SubscriptionResult;

namespace
{

/// Counts what it is called with, on whatever thread.
class CountingObserver final : public ICompositePriceObserver
{
public:
    CountingObserver()
        : ICompositePriceObserver("counting")
    {
    }
    void OnOrderBook(const CompositeInstrumentDef&, const std::shared_ptr<const MergedOrderBook>&) override
    {
        books.fetch_add(1);
    }
    void OnSubscribe(const CompositeInstrumentDef&, const EventInfo&, Result result, unsigned long, const PriceFormat&,
                     CompositeComponentType::Type, const CompositeSubscriptionState&) override
    {
        (result == SubscriptionResult::Success ? answers : refusals).fetch_add(1);
    }
    void OnAddScope(const CompositeInstrumentDef&, unsigned long, Result) override {}
    void OnChangeScope(const CompositeInstrumentDef&, unsigned long, Result) override {}
    void OnRemoveScope(const CompositeInstrumentDef&, unsigned long, Result) override {}
    void OnTrades(const CompositeInstrumentDef&, const std::shared_ptr<const std::vector<Trade>>&) override {}
    void OnCustomFields(const CompositeInstrumentDef&, const std::shared_ptr<const CustomFields>&) override {}
    void OnUnsubscribe(const CompositeInstrumentDef&, Result, CompositeComponentType::Type,
                       const CompositeSubscriptionState&) override
    {
        missing.fetch_add(1);
    }

    std::atomic<std::uint64_t> books{0};
    std::atomic<std::uint64_t> answers{0};
    std::atomic<std::uint64_t> refusals{0};
    std::atomic<std::uint64_t> missing{0};
};

/// Returns when a task posted behind everything else has found nothing behind it: actions post actions.
void RunBehindEverything(DataQueue<DataMsgTask>& queue)
{
    for (bool isDry = false; !isDry;)
    {
        std::promise<bool> foundNothing;
        queue.insert(new ChannelTask<Task>([&] { foundNothing.set_value(queue.size() == 0); }, "dry"));
        isDry = foundNothing.get_future().get();
    }
}

} // namespace

TEST(ManagerOnThreads, SurvivesDirectClientsThatComeAndGoUnderAFullSpeedFeed)
{
    const int level = zel::logging::g_minLogLevel.exchange(31);
    const auto pool = std::make_shared<ThreadPool>(2);
    SimulationOptions simulation;
    auto source = std::make_unique<MarketSimulation>(simulation);
    std::vector<Market> markets;
    for (const short id : source->GetMarketIds())
    {
        markets.push_back({id, "market " + std::to_string(id)});
    }
    auto simple = std::make_unique<SimpleSubscriptionMgr>(MarketTable(markets), pool,
                                                          std::make_shared<AsyncDispatcher>("simple"));
    MdsOptions options;
    options.speed = 0;
    const auto provider = std::make_shared<MdsProvider>(std::move(source), options);
    simple->AddProvider(provider);
    DataQueue<DataMsgTask> queue("test", {});
    QueueReader<> reader(queue);
    auto manager = std::make_unique<CompositeSubscriptionMgr>(simple.get());
    manager->UnitTestInit(Config::LoadText("<PriceServer/>", "test"), &queue,
                          std::make_shared<DefaultCompositePriceFactory>());
    reader.Start();
    provider->Start();
    while (!provider->GetDirectory().IsComplete(markets.front().id))
    {
        std::this_thread::yield();
    }

    constexpr int kThreads = 3;
    constexpr int kCyclesPerThread = 400;
    const std::vector<DirectoryEntry> entries = provider->GetDirectory().GetEntries();
    ASSERT_FALSE(entries.empty());
    const auto observer = std::make_shared<CountingObserver>();
    std::atomic<std::uint64_t> accepted{0};
    std::barrier start(kThreads);
    std::vector<std::thread> clients;
    for (int thread = 0; thread < kThreads; ++thread)
    {
        clients.emplace_back(
            [&, seed = 100U + static_cast<unsigned>(thread)]
            {
                std::mt19937 random(seed);
                start.arrive_and_wait();
                for (int cycle = 0; cycle < kCyclesPerThread; ++cycle)
                {
                    const DirectoryEntry& entry = entries[random() % entries.size()];
                    CompositeInstrumentDef def;
                    def.marketId = entry.submarket.marketId;
                    def.submarketId = entry.submarket.submarketId;
                    def.instrument = {entry.symbol, entry.exchange};
                    def.instrumentId = random() % 64;
                    const auto [handle, result] = manager->Subscribe(def, {5, 0, true, false}, observer, 1);
                    if (result == SubscriptionResult::Accepted)
                    {
                        accepted.fetch_add(1);
                        manager->AddScope(handle, {7, 0, false, false}, 2);
                        manager->ChangeScope(handle, {3, 5, false, false}, 2, true);
                        manager->RemoveScope(handle, 2);
                        EXPECT_TRUE(manager->Unsubscribe(handle));
                        EXPECT_FALSE(manager->Unsubscribe(handle));
                    }
                }
            });
    }
    for (std::thread& client : clients)
    {
        client.join();
    }
    CompositeInstrumentDef last;
    last.marketId = entries.front().submarket.marketId;
    last.instrument = {entries.front().symbol, entries.front().exchange};
    last.instrumentId = 1000;
    manager->Subscribe(last, {5, 0, true, false}, observer, 1);
    RunBehindEverything(queue);
    const std::uint64_t before = observer->books.load();
    while (observer->books.load() < before + 100)
    {
        std::this_thread::yield();
    }

    // The server's stopping order.
    manager->Shutdown();
    provider->Stop();
    RunBehindEverything(queue);
    queue.shutdown();
    reader.Stop();
    RunDry(queue);
    pool->Stop();
    EXPECT_EQ(manager->GetSubscriptionCounts(), (std::pair<std::uint64_t, std::uint64_t>(0, 1)));
    EXPECT_EQ(simple->GetRegistry().GetSize(), 1U);
    EXPECT_GT(accepted.load(), 0U);
    // Between forgetting a handle and posting its unsubscribe another client may subscribe the instrument: it is told
    // 12, and whoever unsubscribes second finds nothing.
    EXPECT_EQ(observer->refusals.load(), observer->missing.load());
    manager.reset();
    simple.reset();
    EXPECT_EQ(observer.use_count(), 1);
    zel::logging::g_minLogLevel.store(level);
}
