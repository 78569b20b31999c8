#include "flexible_fixture.h"

#include <chrono>
#include <new>

using namespace ps_ns;
using namespace ps_ns::testing;

namespace
{

/// Which clients get which data, and when: who asked, who is still there, and nobody before what it has missed.
class ClientData : public FlexibleSubscribe
{
protected:
    static constexpr CompositeSubscriptionInfo kEverything{5, 0, true, true};

    void SendOneOfEach()
    {
        bench.zel->SendImage("X", {{kBid, "10", "1"}});
        bench.zel->SendTrade("X", "10", "5");
        bench.zel->SendCustomFields("X");
    }
    Events Heard(const std::string& client)
    {
        bench.Run();
        return bench.events.Filter(client + ".");
    }
};

} // namespace

TEST_F(ClientData, OfTradesAndCustomFieldsGoToWhoAskedForThem)
{
    const auto both = bench.MakeFlexibleObserver("H");
    Open({5, 0, false, false});
    Subscribe(second, 2, {5, 0, true, false});
    Subscribe(both, 3, {5, 0, false, true});
    bench.zel->Answer("X");
    bench.Run();
    bench.events.Clear();
    bench.zel->SendTrade("X", "10", "5");
    bench.zel->SendCustomFields("X");
    EXPECT_EQ(Take(), (Events{"local.OnTrades X 10x5 @executor", "G.OnTrades id=2 X 10x5 @executor",
                              "local.OnCustomFields X @executor", "H.OnCustomFields id=3 X @executor"}));
}

TEST_F(ClientData, OfTradesAndCustomFieldsFollowAChangeOfTheClientsMind)
{
    Open(kEverything);
    Subscribe(second, 2, kEverything);
    bench.zel->Answer("X");
    bench.manager->ChangeScope(def, {5, 0, false, false}, second, 2, false); // F still wants them
    bench.Run();
    bench.events.Clear();
    bench.zel->SendTrade("X", "10", "5");
    bench.zel->SendCustomFields("X");
    EXPECT_EQ(Take(), (Events{"local.OnTrades X 10x5 @executor", "F.OnTrades id=1 X 10x5 @executor",
                              "local.OnCustomFields X @executor", "F.OnCustomFields id=1 X @executor"}));
}

TEST_F(ClientData, NeverGoToAClientWhoHasLeftEvenIfTheyWereUnderWay)
{
    Open(kEverything);
    Subscribe(second, 2, kEverything);
    bench.zel->Answer("X");
    bench.Run();
    bench.events.Clear();
    SendOneOfEach(); // posted before the removal, delivered after it
    bench.manager->Unsubscribe(def, first, 1);
    bench.queue.RunAll();
    bench.events.Clear();
    EXPECT_EQ(Take(), (Events{"local.OnOrderBook X 10x1+0 |  @executor", "G.OnOrderBook id=2 X 10x1+0 |  @executor",
                              "local.OnTrades X 10x5 @executor", "G.OnTrades id=2 X 10x5 @executor",
                              "local.OnCustomFields X @executor", "G.OnCustomFields id=2 X @executor"}));
}

TEST_F(ClientData, NeverGoToAClientWhoLeavesWhileItsIntervalEnds)
{
    using namespace std::chrono_literals;
    const auto third = bench.MakeFlexibleObserver("H");
    Open();
    Subscribe(second, 2, {5, 100, false, false});
    Subscribe(third, 3, {5, 100, false, false});
    bench.zel->Answer("X");
    bench.zel->SendImage("X", {{kBid, "10", "1"}});
    bench.zel->SendChange("X", {{kBid, "10", "2"}}); // waits for the end of both intervals
    bench.Run();
    bench.events.Clear();
    bench.time.Advance(100ms); // posted before the removal, run after it
    bench.manager->Unsubscribe(def, second, 2);
    bench.queue.RunAll();
    bench.events.Clear();
    EXPECT_EQ(Take(), Events{"H.OnOrderBook id=3 X 10x2+0 |  @executor"});
}

TEST_F(ClientData, NeverComeBeforeTheReplayedResults)
{
    Open(kEverything);
    for (const char* const symbol : {"X", "IM_X", "AI_X"})
    {
        bench.zel->Answer(symbol);
    }
    bench.Run();
    bench.events.Clear();
    {
        // The provider sends while the manager works through the replays.
        const LogHook hook("making OnSubscribe callback", [&] { SendOneOfEach(); });
        Subscribe(second, 2, kEverything);
    }
    const Events heard = Heard("G");
    ASSERT_GE(heard.size(), 3U);
    EXPECT_EQ((Events{heard.begin(), heard.begin() + 3}),
              (Events{"G.OnSubscribe id=2 X result=0 component=0 @executor",
                      "G.OnSubscribe id=2 X result=0 component=1 @executor",
                      "G.OnSubscribe id=2 X result=0 component=2 @executor"}));
    // Then the present book, once; what was traded before is not repeated.
    EXPECT_EQ((Events{heard.begin() + 3, heard.end()}), Events{"G.OnOrderBook id=2 X 10x1+0 |  @executor"});
    bench.events.Clear();
    SendOneOfEach();
    EXPECT_EQ(Heard("G"), (Events{"G.OnOrderBook id=2 X 10x1+0 |  @executor", "G.OnTrades id=2 X 10x5 @executor",
                                  "G.OnCustomFields id=2 X @executor"}));
}

TEST_F(ClientData, NeverComeBeforeTheReplayedResultsWhenTheMergedScopeChangesMeanwhile)
{
    Open({1, 0, false, false});
    bench.zel->Answer("X");
    bench.zel->SendImage("X", {{kBid, "10", "1"}, {kBid, "9", "1"}});
    bench.Run();
    bench.events.Clear();
    Subscribe(second, 2, {2, 0, false, false}); // widens: a new book for it is due as well
    EXPECT_EQ(Heard("G"), (Events{"G.OnSubscribe id=2 X result=0 component=0 @executor",
                                  "G.OnOrderBook id=2 X 10x1+0 9x1+0 |  @executor"}));
}

TEST_F(ClientData, NeverComeToAClientWhoseReplaysCouldNotBePosted)
{
    Open({1, 0, false, false});
    bench.zel->Answer("X");
    bench.zel->SendImage("X", {{kBid, "10", "1"}, {kBid, "9", "1"}});
    bench.Run();
    bench.events.Clear();
    unsigned posts = 0;
    bench.executors->SetOnPost(
        [&posts](std::size_t)
        {
            if (++posts == 2) // the client is added; its replay fails
            {
                throw std::bad_alloc();
            }
        });
    bench.manager->Subscribe(def, {2, 0, true, true}, bench.factory, second, 2);
    EXPECT_THROW(bench.queue.RunAll(), std::bad_alloc);
    bench.executors->SetOnPost(nullptr);
    bench.manager->ChangeScope(def, {5, 0, true, true}, first, 1, false);
    bench.Run();
    bench.zel->SendChange("X", {{kBid, "10", "3"}});
    bench.zel->SendTrade("X", "10", "5");
    bench.zel->SendCustomFields("X");
    EXPECT_TRUE(Heard("G").empty());
    EXPECT_EQ(Heard("F").size(), 4U); // two books, a trade, custom fields
    // It is there all the same, and can leave.
    bench.manager->Unsubscribe(def, second, 2);
    bench.Run();
    EXPECT_TRUE(Heard("G").empty());
    EXPECT_TRUE(IsLive());
}
