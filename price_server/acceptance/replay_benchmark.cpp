#include "composite_price/default_composite_price_factory.h"
#include "composite_price/merged_order_book.h"
#include "config/config.h"
#include "mds/mds_provider.h"
#include "mds/recording_reader.h"
#include "mds/recording_scan.h"
#include "mds/replay_source.h"
#include "price_unifier/source/composite_subscription_mgr.h"
#include "simple_subscription/simple_subscription_mgr.h"
#include "testing/hand_driven_executors.h"
#include "testing/hand_driven_queue.h"
#include "testing/hand_driven_time.h"

#include <benchmark/benchmark.h>

#include <functional>
#include <map>

using namespace ps_ns;
using namespace ps_ns::testing;

namespace
{

std::vector<std::string> ThreeSegments()
{
    const std::string folder = std::string(PRICE_SERVER_DATA) + "/three_segments/";
    return {folder + "spot.csv.zst", folder + "usdm.csv.zst", folder + "coinm.csv.zst"};
}

class CountingObserver final : public ICompositePriceObserver
{
public:
    CountingObserver()
        : ICompositePriceObserver("counting")
    {
    }
    void OnSubscribe(const CompositeInstrumentDef&, const EventInfo&, Result, unsigned long, const PriceFormat&,
                     CompositeComponentType::Type, const CompositeSubscriptionState&) override
    {
    }
    void OnAddScope(const CompositeInstrumentDef&, unsigned long, Result) override {}
    void OnChangeScope(const CompositeInstrumentDef&, unsigned long, Result) override {}
    void OnRemoveScope(const CompositeInstrumentDef&, unsigned long, Result) override {}
    void OnOrderBook(const CompositeInstrumentDef&, const std::shared_ptr<const MergedOrderBook>& book) override
    {
        ++books;
        benchmark::DoNotOptimize(book->bids.count);
    }
    void OnTrades(const CompositeInstrumentDef&, const std::shared_ptr<const std::vector<Trade>>&) override {}
    void OnCustomFields(const CompositeInstrumentDef&, const std::shared_ptr<const CustomFields>&) override {}
    void OnUnsubscribe(const CompositeInstrumentDef&, Result, CompositeComponentType::Type,
                       const CompositeSubscriptionState&) override
    {
    }
    std::uint64_t books = 0;
};

/// Recorded files in, one merged book of ten levels to one observer for each venue message; everything on one core.
void ReplayToOneObserver(benchmark::State& state)
{
    zel::logging::g_minLogLevel = 100;
    const std::atomic<bool> stop{false};
    const RecordingScan scan = ScanRecordings(ThreeSegments(), LogProblems(), stop);
    std::uint64_t books = 0;
    for (auto _ : state)
    {
        state.PauseTiming();
        HandDrivenTime time;
        HandDrivenQueue queue;
        const auto executors = std::make_shared<HandDrivenExecutors>();
        MdsOptions options;
        options.isHandDriven = true;
        const auto provider = std::make_shared<MdsProvider>(
            std::make_unique<ReplaySource>(ReplayOptions{ThreeSegments()}, MakeMarketTable(scan)), options);
        auto simple = std::make_unique<SimpleSubscriptionMgr>(MakeMarketTable(scan), executors,
                                                              std::make_shared<AsyncDispatcher>("benchmark"));
        simple->AddProvider(provider);
        provider->Start();
        auto manager = std::make_unique<CompositeSubscriptionMgr>(simple.get());
        manager->UnitTestInit(Config::LoadText("<PriceServer/>", "benchmark"), &queue.Get(),
                              std::make_shared<DefaultCompositePriceFactory>());
        const auto observer = std::make_shared<CountingObserver>();
        for (const DirectoryEntry& entry : provider->GetDirectory().GetEntries())
        {
            CompositeInstrumentDef def;
            def.marketId = entry.submarket.marketId;
            def.instrument = {entry.symbol, entry.exchange};
            def.instrumentId = std::hash<std::string>()(entry.symbol) + static_cast<std::uint64_t>(def.marketId);
            manager->Subscribe(def, {10, 0, false, false}, observer, 1);
        }
        queue.RunAll();
        state.ResumeTiming();
        while (provider->Step())
        {
            executors->RunAll();
        }
        state.PauseTiming();
        books += observer->books;
        provider->Stop();
        executors->Stop();
        manager.reset();
        simple.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(scan.rows));
    state.counters["books"] = benchmark::Counter(static_cast<double>(books), benchmark::Counter::kIsRate);
}
BENCHMARK(ReplayToOneObserver)->Unit(benchmark::kMillisecond);

/// The peer: the same files through the same reader into a std::map for each side, and its first ten levels copied out
/// after each message.
void ReplayToAMapBook(benchmark::State& state)
{
    const std::atomic<bool> stop{false};
    const RecordingScan scan = ScanRecordings(ThreeSegments(), LogProblems(), stop);
    struct Book
    {
        std::map<std::int64_t, std::int64_t, std::greater<>> bids;
        std::map<std::int64_t, std::int64_t> asks;
        bool inImage = false;
    };
    for (auto _ : state)
    {
        std::map<std::string, Book, std::less<>> books;
        std::vector<std::pair<std::int64_t, std::int64_t>> top;
        for (const std::string& file : ThreeSegments())
        {
            ProblemLog problems(file, LogProblems());
            RecordingReader reader(file, problems);
            RecordingRow row;
            while (reader.Next(row))
            {
                if (row.event == RowEvent::Trade)
                {
                    continue;
                }
                const auto found = books.find(row.instrument);
                Book& book = found != books.end() ? found->second : books[std::string(row.instrument)];
                if (row.event == RowEvent::Snap && !book.inImage)
                {
                    book.bids.clear();
                    book.asks.clear();
                    book.inImage = true;
                }
                const auto apply = [&](auto& levels)
                {
                    if (row.quantity == 0)
                    {
                        levels.erase(row.price);
                    }
                    else
                    {
                        levels[row.price] = row.quantity;
                    }
                };
                row.side == 'B' ? apply(book.bids) : apply(book.asks);
                if (row.isLast)
                {
                    book.inImage = false;
                    top.clear();
                    const auto copy = [&](const auto& levels)
                    {
                        std::size_t count = 0;
                        for (auto level = levels.begin(); level != levels.end() && count < 10; ++level, ++count)
                        {
                            top.emplace_back(*level);
                        }
                    };
                    copy(book.bids);
                    copy(book.asks);
                    benchmark::DoNotOptimize(top.data());
                }
            }
        }
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(scan.rows));
}
BENCHMARK(ReplayToAMapBook)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
