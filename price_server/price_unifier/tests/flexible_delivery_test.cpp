#include "flexible_fixture.h"

#include <stdexcept>

using namespace ps_ns;
using namespace ps_ns::testing;

namespace
{

using FlexibleDelivery = FlexibleSubscribe;

/// Three clients of one instrument that skips what shows the same, at depths of 1, 3 and 3. The second update has
/// brought nothing new at depth 1.
struct SkippingClients
{
    explicit SkippingClients(const CompositeInstrumentDef& def)
    {
        bench.manager->Subscribe(def, {1, 0, false, false}, bench.factory, narrow, 1);
        bench.manager->Subscribe(def, {3, 0, false, false}, bench.factory, wide, 2);
        bench.manager->Subscribe(def, {3, 0, false, false}, bench.factory, changing, 3);
        bench.Run();
        bench.zel->Answer("X");
        bench.zel->SendImage("X", {{kBid, "10", "1"}, {kBid, "9", "1"}});
        bench.zel->SendChange("X", {{kBid, "9", "2"}});
        bench.Run();
    }

    ManagerBench bench{{.configuration = R"(<PriceServer><General SkipUnchangedSnapshots="1"/></PriceServer>)"}};
    const std::shared_ptr<RecordingFlexibleObserver> narrow = bench.MakeFlexibleObserver("N");
    const std::shared_ptr<RecordingFlexibleObserver> wide = bench.MakeFlexibleObserver("W");
    const std::shared_ptr<RecordingFlexibleObserver> changing = bench.MakeFlexibleObserver("C");
};

} // namespace

TEST_F(FlexibleDelivery, GivesEachClientItsOwnDepthPaceAndKindsOfData)
{
    using namespace std::chrono_literals;
    Open({2, 0, false, false});
    Subscribe(second, 2, {1, 100, true, false});
    bench.zel->Answer("X");
    bench.Run();
    bench.events.Clear();
    bench.zel->SendImage("X", {{kBid, "10", "1"}, {kBid, "9", "1"}});
    bench.zel->SendChange("X", {{kBid, "10", "2"}});
    bench.zel->SendTrade("X", "10", "5");
    EXPECT_EQ(Take(), (Events{
                          "local.OnOrderBook X 10x1+0 9x1+0 |  @executor",
                          "F.OnOrderBook id=1 X 10x1+0 9x1+0 |  @executor",
                          "G.OnOrderBook id=2 X 10x1+0 |  @executor",
                          "local.OnOrderBook X 10x2+0 9x1+0 |  @executor",
                          "F.OnOrderBook id=1 X 10x2+0 9x1+0 |  @executor",
                          "local.OnTrades X 10x5 @executor",
                          "G.OnTrades id=2 X 10x5 @executor",
                      }));
    bench.time.Advance(100ms);
    EXPECT_EQ(Take(), Events{"G.OnOrderBook id=2 X 10x2+0 |  @executor"});
}

TEST_F(FlexibleDelivery, SharesOneObjectAmongClientsOfTheSameDepth)
{
    Open({1, 0, false, false});
    Subscribe(second, 2, {1, 0, false, false});
    const auto third = bench.MakeFlexibleObserver("H");
    Subscribe(third, 3, {5, 0, false, false});
    bench.zel->Answer("X");
    bench.zel->SendImage("X", {{kBid, "10", "1"}, {kBid, "9", "1"}});
    bench.Run();
    EXPECT_EQ(first->books.back(), second->books.back());
    EXPECT_NE(first->books.back(), third->books.back());
    EXPECT_EQ(FormatBook(*third->books.back()), "10x1+0 9x1+0 | ");
}

TEST_F(FlexibleDelivery, DeliversTheFirstImageToAClientThatJoinedWhileItWasUnderWay)
{
    Open();
    bench.zel->Answer("X");
    bench.zel->SendImage("X", {{kBid, "10", "1"}}); // posted, not merged: no snapshot as far as the manager can see
    Subscribe(second, 2);
    Take();
    ASSERT_EQ(second->books.size(), 1U);
    EXPECT_EQ(FormatBook(*second->books.back()), "10x1+0 | ");
}

TEST_F(FlexibleDelivery, ServesTheOthersWhenAnObserverThrows)
{
    Open();
    Subscribe(second, 2);
    Take();
    first->onCallback = [] { throw std::runtime_error("thrown by a client"); };
    bench.zel->Answer("X");
    bench.zel->SendImage("X", {{kBid, "10", "1"}});
    const std::string line = LogLine(30, def.ToString() + ": observer F threw: thrown by a client");
    EXPECT_EQ(Take(),
              (Events{"local.OnSubscribe X result=0 component=0 @executor",
                      "F.OnSubscribe id=1 X result=0 component=0 @executor", line,
                      "G.OnSubscribe id=2 X result=0 component=0 @executor", "local.OnOrderBook X 10x1+0 |  @executor",
                      "F.OnOrderBook id=1 X 10x1+0 |  @executor", line, "G.OnOrderBook id=2 X 10x1+0 |  @executor"}));
}

TEST_F(FlexibleDelivery, SendsASnapshotOnlyToWhoJoined)
{
    Open();
    bench.zel->Answer("X");
    bench.zel->SendImage("X", {{kBid, "10", "1"}});
    bench.Run();
    bench.manager->ChangeScope(def, {3, 0, false, false}, first, 1, false); // asks for no snapshot
    bench.manager->ChangeScope(def, {5, 0, false, false}, first, 1, false);
    bench.Run();
    bench.events.Clear();
    Subscribe(second, 2);
    bench.Run();
    EXPECT_TRUE(bench.events.Filter("F.").empty());
    EXPECT_EQ(bench.events.Filter("G.OnOrderBook").size(), 1U);
}

TEST_F(FlexibleDelivery, KeepsAWaitingBookThroughAChangeOfScope)
{
    Open({5, 1000, false, false});
    bench.zel->Answer("X");
    bench.zel->SendImage("X", {{kBid, "10", "1"}});
    bench.zel->SendChange("X", {{kBid, "10", "2"}});
    Take();
    ASSERT_EQ(FormatBook(*first->books.back()), "10x1+0 | ");
    bench.manager->ChangeScope(def, {5, 1000, false, false}, first, 1, false);
    bench.Run();
    EXPECT_EQ(FormatBook(*first->books.back()), "10x2+0 | ");
}

TEST_F(FlexibleDelivery, KeepsTheIntervalAfterAnImageToo)
{
    using namespace std::chrono_literals;
    Open();
    bench.zel->Answer("X");
    bench.zel->SendImage("X", {{kBid, "10", "1"}});
    bench.Run();
    Subscribe(second, 2, {5, 1000, false, false});
    bench.Run();
    ASSERT_EQ(second->books.size(), 1U);
    bench.zel->SendChange("X", {{kBid, "10", "2"}});
    bench.Run();
    EXPECT_EQ(second->books.size(), 1U);
    bench.time.Advance(1000ms);
    bench.Run();
    EXPECT_EQ(second->books.size(), 2U);
}

TEST_F(FlexibleDelivery, NeverShowsAnOlderBookWhenTheMergedDepthShrinksAndGrows)
{
    ManagerBench::Options options;
    options.configuration = R"(<PriceServer><General SkipUnchangedSnapshots="1"/></PriceServer>)";
    // Benches do not nest: this one lives in its own test body only.
    bench.DestroyManager();
    ManagerBench skipping(options);
    const auto narrow = skipping.MakeFlexibleObserver("N");
    const auto wide = skipping.MakeFlexibleObserver("W");
    const auto subscribe = [&](const auto& observer, unsigned long id, int depth)
    {
        skipping.manager->Subscribe(def, {depth, 0, false, false}, skipping.factory, observer, id);
        skipping.Run();
    };
    subscribe(narrow, 1, 1);
    subscribe(wide, 2, 3);
    skipping.zel->Answer("X");
    const auto send = [&](const char* best)
    {
        skipping.zel->SendImage("X", {{kBid, best, "1"}, {kBid, "9", "1"}});
        skipping.Run();
    };
    send("10");
    skipping.manager->Unsubscribe(def, wide, 2);
    skipping.Run();
    send("11");
    send("10");
    subscribe(wide, 3, 3);
    send("12");
    std::uint64_t last = 0;
    for (const auto& book : narrow->books)
    {
        EXPECT_GT(book->sequence, last);
        last = book->sequence;
    }
    EXPECT_EQ(FormatBook(*narrow->books.back()), "12x1+0 | ");
}

TEST_F(FlexibleDelivery, NeverGoesBackInSequenceWhenAClientChangesToADepthThatHasLongShownTheSame)
{
    bench.DestroyManager(); // benches do not nest
    SkippingClients clients(def);
    ASSERT_EQ(clients.narrow->books.size(), 1U);
    ASSERT_EQ(clients.changing->books.size(), 2U);
    clients.bench.manager->ChangeScope(def, {1, 0, false, false}, clients.changing, 3, true);
    clients.bench.Run();
    ASSERT_EQ(clients.changing->books.size(), 3U);
    EXPECT_EQ(FormatBook(*clients.changing->books.back()), "10x1+0 | ");
    EXPECT_EQ(clients.changing->books.back()->sequence, clients.changing->books[1]->sequence);
    EXPECT_EQ(clients.changing->books.back()->snapshotReason,
              static_cast<std::uint32_t>(GenerateSnapshotReason::ScopeUnchanged));
    clients.bench.zel->SendChange("X", {{kBid, "9", "3"}});
    clients.bench.Run();
    EXPECT_EQ(clients.narrow->books.size(), 1U); // it still sees what it saw
    EXPECT_EQ(clients.changing->books.size(), 3U);
}

TEST_F(FlexibleDelivery, NeverGoesBackInSequenceWithTheNextChangeEither)
{
    bench.DestroyManager(); // benches do not nest
    SkippingClients clients(def);
    clients.bench.manager->ChangeScope(def, {1, 0, false, false}, clients.changing, 3, false);
    clients.bench.Run();
    clients.bench.zel->SendChange("X", {{kBid, "9", "3"}});
    clients.bench.Run();
    ASSERT_EQ(clients.changing->books.size(), 3U);
    EXPECT_EQ(FormatBook(*clients.changing->books.back()), "10x1+0 | ");
    EXPECT_EQ(clients.changing->books.back()->sequence, clients.wide->books.back()->sequence);
    EXPECT_EQ(clients.narrow->books.size(), 1U); // it still sees what it saw
}

TEST_F(FlexibleDelivery, NeverMergesMoreLevelsThanTheMarketHas)
{
    Open({2'000'000'000, 0, false, false});
    bench.zel->Answer("X");
    bench.zel->SendImage("X", {{kBid, "10", "1"}});
    bench.Run();
    ASSERT_EQ(first->books.size(), 1U);
    EXPECT_EQ(first->books.back()->bids.depth, 20U);
}
