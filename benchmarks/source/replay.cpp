#include "clocks.h"
#include "comparison.h"
#include "composite_price/default_composite_price_factory.h"
#include "config/config.h"
#include "keep.h"
#include "mds/mds_provider.h"
#include "mds/recording_reader.h"
#include "mds/recording_scan.h"
#include "mds/replay_source.h"
#include "price_unifier/source/composite_subscription_mgr.h"
#include "quiet_observers.h"
#include "replay_by_hand.h"
#include "simple_subscription/simple_subscription_mgr.h"
#include "testing/hand_driven_executors.h"
#include "testing/hand_driven_queue.h"

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

namespace compare
{
namespace
{

using namespace ps_ns;

std::vector<std::string> ThreeSegments()
{
    const std::string folder = std::string(PRICE_SERVER_DATA) + "/three_segments/";
    return {folder + "spot.csv.zst", folder + "usdm.csv.zst", folder + "coinm.csv.zst"};
}

/// Recorded files in, one merged book of ten levels to one observer for each venue message.
Figures Replay(const RecordingScan& scan)
{
    ps_ns::testing::HandDrivenQueue queue;
    const auto executors = std::make_shared<ps_ns::testing::HandDrivenExecutors>();
    MdsOptions options;
    options.isHandDriven = true;
    const auto provider = std::make_shared<MdsProvider>(
        std::make_unique<ReplaySource>(ReplayOptions{ThreeSegments()}, MakeMarketTable(scan)), options);
    SimpleSubscriptionMgr simple(MakeMarketTable(scan), executors, std::make_shared<AsyncDispatcher>("compare"));
    simple.AddProvider(provider);
    provider->Start();
    auto manager = std::make_unique<CompositeSubscriptionMgr>(&simple);
    manager->UnitTestInit(Config::LoadText("<PriceServer/>", "compare"), &queue.Get(),
                          std::make_shared<DefaultCompositePriceFactory>());
    const auto observer = std::make_shared<QuietObserver>();
    for (const DirectoryEntry& entry : provider->GetDirectory().GetEntries())
    {
        CompositeInstrumentDef def;
        def.marketId = entry.submarket.marketId;
        def.instrument = {entry.symbol, entry.exchange};
        def.instrumentId = std::hash<std::string>()(entry.symbol) + static_cast<std::uint64_t>(def.marketId);
        manager->Subscribe(def, {10, 0, false, false}, observer, 1);
    }
    queue.RunAll();
    const double time_ns = MeasureCpu_ns(
        [&]
        {
            while (provider->Step())
            {
                executors->RunAll();
            }
        });
    if (observer->books == 0)
    {
        throw std::runtime_error("the replay has delivered nothing");
    }
    provider->Stop();
    executors->Stop();
    manager.reset();
    return {{"a row, ns", time_ns / static_cast<double>(scan.rows)}};
}

/// A book in two maps.
struct MapBook
{
    std::map<std::int64_t, std::int64_t, std::greater<>> bids;
    std::map<std::int64_t, std::int64_t> asks;
    bool inImage = false;

    void Apply(const RecordingRow& row)
    {
        if (row.event == RowEvent::Snap && !inImage)
        {
            bids.clear();
            asks.clear();
            inImage = true;
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
        row.side == 'B' ? apply(bids) : apply(asks);
    }
};

using Top = std::vector<std::pair<std::int64_t, std::int64_t>>;

template <class Levels>
void CopyTen(const Levels& levels, Top& top)
{
    std::size_t count = 0;
    for (auto level = levels.begin(); level != levels.end() && count < 10; ++level, ++count)
    {
        top.emplace_back(*level);
    }
}

/// The direct quantity and the implied one of a price.
using MergedQuantity = std::pair<std::int64_t, std::int64_t>;

struct MergedMaps
{
    std::map<std::int64_t, MergedQuantity, std::greater<>> bids;
    std::map<std::int64_t, MergedQuantity> asks;
};

template <class Levels, class Merged>
void MergeTen(const Levels& direct, const Levels& implied, Merged& merged)
{
    std::size_t count = 0;
    for (auto level = direct.begin(); level != direct.end() && count < 10; ++level, ++count)
    {
        merged[level->first].first += level->second;
    }
    count = 0;
    for (auto level = implied.begin(); level != implied.end() && count < 10; ++level, ++count)
    {
        merged[level->first].second += level->second;
    }
}

/// After a message the first ten levels are copied out: nothing is merged, and the observer is the loop itself.
struct CopyOut
{
    void operator()(const MapBook& book)
    {
        top.clear();
        CopyTen(book.bids, top);
        CopyTen(book.asks, top);
        Keep(top);
    }
    Top top;
};

/// After a message the book is merged with an implied one (which is empty, as those of these recordings are) into maps
/// of its own, which an observer gets to keep.
struct MergeAnew
{
    void operator()(const MapBook& book)
    {
        const auto merged = std::make_shared<MergedMaps>();
        MergeTen(book.bids, implied.bids, merged->bids);
        MergeTen(book.asks, implied.asks, merged->asks);
        last = merged;
        Keep(last);
    }
    const MapBook implied;
    std::shared_ptr<const MergedMaps> last;
};

/// The same files through the same reader into maps, on one thread, without a book for late subscribers.
template <class AfterMessage>
Figures ReplayIntoMaps(const RecordingScan& scan)
{
    std::uint64_t messages = 0;
    const double time_ns = MeasureCpu_ns(
        [&]
        {
            std::map<std::string, MapBook, std::less<>> books;
            AfterMessage afterMessage;
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
                    MapBook& book = found != books.end() ? found->second : books[std::string(row.instrument)];
                    book.Apply(row);
                    if (row.isLast)
                    {
                        book.inImage = false;
                        afterMessage(book);
                        ++messages;
                    }
                }
            }
        });
    Keep(messages);
    return {{"a row, ns", time_ns / static_cast<double>(scan.rows)}};
}

Figures ReplayWithStandardLibrary(const RecordingScan& scan)
{
    std::uint64_t books = 0;
    const double time_ns = MeasureCpu_ns([&] { books = ReplayByHand(ThreeSegments()); });
    if (books == 0)
    {
        throw std::runtime_error("the replay has delivered nothing");
    }
    return {{"a row, ns", time_ns / static_cast<double>(scan.rows)}};
}

} // namespace

void CompareReplay(Runner& runner)
{
    const std::string name = "three segments to merged books of ten levels, one observer";
    if (!runner.IsWanted("replay", name))
    {
        return;
    }
    const std::atomic<bool> stop{false};
    const RecordingScan scan = ScanRecordings(ThreeSegments(), LogProblems(), stop);
    runner.Run({"replay",
                name,
                {{"MdsProvider to observer", [&scan] { return Replay(scan); }},
                 {"std::map book behind the project's reader", [&scan] { return ReplayIntoMaps<CopyOut>(scan); }},
                 {"std::map book behind the project's reader, merged into a new one",
                  [&scan] { return ReplayIntoMaps<MergeAnew>(scan); }},
                 {"std::map book, rows read with the standard library",
                  [&scan] { return ReplayWithStandardLibrary(scan); }}}});
}

} // namespace compare
