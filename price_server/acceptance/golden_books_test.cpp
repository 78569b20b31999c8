#include "golden_kit.h"

#include "config/config.h"
#include "mds/mds_provider.h"
#include "mds/recording_scan.h"
#include "mds/replay_source.h"
#include "testing/manager_bench.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>
#include <sstream>

using namespace ps_ns;
using namespace ps_ns::testing;
using namespace ps_ns::golden;

namespace
{

__extension__ using WideInteger = __int128;

/// A manager over a replay, everything in the test's hand: recorded files in, merged books out.
class ReplayBench
{
public:
    explicit ReplayBench(const std::vector<std::string>& files)
    {
        const std::atomic<bool> stop{false};
        const MarketTable markets = MakeMarketTable(ScanRecordings(files, LogProblems(), stop));
        MdsOptions options;
        options.isHandDriven = true;
        ReplayOptions replay;
        replay.files = files;
        provider = std::make_shared<MdsProvider>(std::make_unique<ReplaySource>(replay, markets), options);
        simple = std::make_unique<SimpleSubscriptionMgr>(markets, executors, std::make_shared<AsyncDispatcher>("test"));
        simple->AddProvider(provider);
        provider->Start();
        manager = std::make_unique<CompositeSubscriptionMgr>(simple.get());
        manager->UnitTestInit(Config::LoadText("<PriceServer/>", "test"), &queue.Get(),
                              std::make_shared<DefaultCompositePriceFactory>());
    }
    ~ReplayBench()
    {
        manager->Shutdown();
        provider->Stop();
        queue.RunAll();
        queue.Get().shutdown();
        executors->Stop();
        manager.reset();
        simple.reset();
    }

    CompositeInstrumentDef MakeDef(const InstrumentName& name, bool withImplied) const
    {
        CompositeInstrumentDef def;
        def.marketId = simple->GetMarkets().FindByName(name.first)->id;
        def.instrument = {name.second, name.first};
        def.instrumentId = std::hash<std::string>()(name.first + name.second);
        def.components = {true, withImplied, false};
        return def;
    }
    void Subscribe(const CompositeInstrumentDef& def, const std::shared_ptr<ICompositePriceObserver>& observer)
    {
        const CompositeSubscriptionInfo top10{10, 0, false, false};
        EXPECT_EQ(manager->Subscribe(def, top10, observer, 1).second, ps_messages_ns::SubscriptionResult::Accepted);
        queue.RunAll();
    }
    bool Step()
    {
        const bool any = provider->Step();
        executors->RunAll();
        return any;
    }

    EventLog events;
    LogCapture capture{events};
    HandDrivenTime time;
    HandDrivenQueue queue;
    std::shared_ptr<HandDrivenExecutors> executors = std::make_shared<HandDrivenExecutors>();
    std::shared_ptr<MdsProvider> provider;
    std::unique_ptr<SimpleSubscriptionMgr> simple;
    std::unique_ptr<CompositeSubscriptionMgr> manager;
};

void ExpectGoldenBooks(const std::string& folder, const std::vector<std::string>& names, std::size_t expectedRows,
                       std::size_t expectedInstruments)
{
    const Golden golden = ReadGolden(Files(folder, {"golden_top10"}).front());
    ASSERT_EQ(golden.rowCount, expectedRows);
    ASSERT_EQ(golden.books.size(), expectedInstruments);

    ReplayBench bench(Files(folder, names));
    GoldenBooks seen;
    for (const auto& [name, wanted] : golden.books)
    {
        bench.Subscribe(bench.MakeDef(name, false), std::make_shared<GoldenObserver>(wanted, seen[name]));
    }
    while (bench.Step())
    {
    }
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
}

} // namespace

TEST(GoldenBooks, OfThreeSegmentsEqualAnIndependentBookBuildersInEveryRow)
{
    ExpectGoldenBooks("three_segments", {"spot", "usdm", "coinm"}, 1560, 6);
}

TEST(GoldenBooks, OfFortyOneInstrumentsEqualAnIndependentBookBuildersInEveryRow)
{
    ExpectGoldenBooks("many_instruments", {"bitflyer", "bitmex", "krakenfutures", "poloniex"}, 3800, 41);
}

TEST(ImpliedComponent, ShowsTheCrossOfTheRecordedLegs)
{
    ReplayBench bench(Files("many_instruments", {"poloniex"}));
    const std::map<std::uint64_t, Rows> none;
    std::map<std::uint64_t, Rows> unused;
    const auto follow = [&](const std::string& symbol, bool withImplied)
    {
        auto observer = std::make_shared<GoldenObserver>(none, unused);
        bench.Subscribe(bench.MakeDef({"POLONIEX", symbol}, withImplied), observer);
        return observer;
    };
    const auto cross = follow("BCH_BTC", true);
    const auto numerator = follow("BCH_USDT", false);
    const auto denominator = follow("BTC_USDT", false);

    const auto bestImplied = [](const BookSide<MergedOrderBook::Level>& side)
    {
        const auto levels = side.GetLevels();
        const auto found = std::find_if(levels.begin(), levels.end(),
                                        [](const MergedOrderBook::Level& level) { return level.impliedQuantity > 0; });
        return found == levels.end() ? 0 : found->price;
    };
    // Bids are rounded down, asks up, to a unit of the price.
    const auto divide = [](std::int64_t a, std::int64_t b, bool up)
    {
        const WideInteger scaled = WideInteger(a) * kPriceUnitsPerOne + (up ? b - 1 : 0);
        return static_cast<std::int64_t>(scaled / b);
    };
    std::size_t compared = 0;
    std::set<std::int64_t> differentBids;
    while (bench.Step())
    {
        const auto isTwoSided = [](const auto& observer) {
            return observer->latest != nullptr && observer->latest->bids.count != 0 &&
                   observer->latest->asks.count != 0;
        };
        if (!isTwoSided(numerator) || !isTwoSided(denominator) || cross->latest == nullptr)
        {
            continue;
        }
        const auto best = [](const BookSide<MergedOrderBook::Level>& side) { return side.GetLevels()[0].price; };
        const std::int64_t bid = divide(best(numerator->latest->bids), best(denominator->latest->asks), false);
        const std::int64_t ask = divide(best(numerator->latest->asks), best(denominator->latest->bids), true);
        // The merged book shows ten levels of both components together: the implied best may lie below them.
        if (const std::int64_t shown = bestImplied(cross->latest->bids))
        {
            ASSERT_EQ(shown, bid);
            ++compared;
            differentBids.insert(shown);
        }
        if (const std::int64_t shown = bestImplied(cross->latest->asks))
        {
            ASSERT_EQ(shown, ask);
            ++compared;
        }
    }
    EXPECT_GT(compared, 100U);
    EXPECT_GT(differentBids.size(), 5U);
}
