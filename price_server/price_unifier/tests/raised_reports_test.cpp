#include "flexible_fixture.h"

#include "base/queue_thread.h"

using namespace ps_ns;
using namespace ps_ns::testing;
using ps_messages_ns::SubscriptionResult;

namespace
{

constexpr const char* kPost = "executor.Post 0";

/// Reports that are handed to the subscription's executor: handed over first, written to the log then. And what states
/// the reports bring: the definition's flags with a failure, the subscription's own with a replay.
class RaisedReports : public FlexibleSubscribe
{
protected:
    /// What happens on the queue's thread, posts to the executor included.
    template <class Request>
    Events Record(const Request& request)
    {
        bench.executors->RecordPosts(bench.events);
        request();
        bench.queue.RunAll();
        bench.executors->SetOnPost(nullptr);
        return bench.events.Take();
    }
    Events Callbacks()
    {
        bench.executors->RunAll();
        return bench.events.Take();
    }
    std::string ChangeRequest(const std::string& rest) const
    {
        return "CompositeSubscriptionMgr: ChangeScope request for instrument " + def.ToString() + rest;
    }
    /// The same instrument, whose definition wants the last component only. Wishes are no part of an identity.
    CompositeInstrumentDef OtherWishes() const
    {
        CompositeInstrumentDef other = def;
        other.components = {false, false, true};
        return other;
    }
    /// The flags of OtherWishes and nothing of the subscription.
    static void ExpectOtherWishesOnly(const CompositeSubscriptionState& state)
    {
        EXPECT_FALSE(state.wantsDirect);
        EXPECT_FALSE(state.wantsImplied);
        EXPECT_TRUE(state.wantsAggregated);
        EXPECT_EQ(state.epoch, 0U);
        EXPECT_EQ(state.symbol, "");
        EXPECT_EQ(state.provider, 0);
        EXPECT_FALSE(state.isStale);
        EXPECT_FALSE(state.isLive);
    }
    /// Has MDS serve the direct component, so that the subscription's state differs from a fresh one in every field.
    void OpenOnMds()
    {
        bench.List(*bench.mds, def);
        bench.CompleteDirectories();
        Open();
    }
    static void ExpectOwnState(const CompositeSubscriptionState& state, std::uint64_t epoch = 3)
    {
        EXPECT_TRUE(state.wantsDirect);
        EXPECT_TRUE(state.wantsImplied);
        EXPECT_TRUE(state.wantsAggregated);
        EXPECT_EQ(state.epoch, epoch); // one for each component's subscribe
        EXPECT_EQ(state.symbol, "X");
        EXPECT_EQ(state.provider, 1);
        EXPECT_FALSE(state.isStale);
        EXPECT_FALSE(state.isLive);
    }
};

} // namespace

TEST_F(RaisedReports, OfADuplicateIdComeBeforeTheLine)
{
    Open();
    EXPECT_EQ(Record([&] { Subscribe(second, 1); }),
              (Events{kPost, LogLine(20, Request("AddScope", 1) + " failed - duplicate subscription_id=1")}));
    EXPECT_EQ(Callbacks(), Events{"G.OnSubscribe id=1 X result=23 component=0 @executor"});
}

TEST_F(RaisedReports, OfAFailedFirstSubscribeComeBeforeTheLine)
{
    for (const char* const symbol : {"X", "IM_X", "AI_X"})
    {
        bench.zel->Returns(symbol, 1);
    }
    const std::string scope = "depth=5 interval=0 trades=0 customFields=0";
    EXPECT_EQ(Record([&] { Subscribe(first, 1); }),
              (Events{"factory.CreateLocalObserver X @queue",
                      kPost, // the client is added
                      kPost, // data may go to it
                      LogLine(10, "SPLUNK_IGNORE | " + Request("Subscribe", 1) + " compositeSubscriptionInfo " + scope +
                                      " executed"),
                      kPost, "zel.Subscribe X component=0 " + scope, kPost, "zel.Subscribe IM_X component=1 " + scope,
                      kPost, "zel.Subscribe AI_X component=2 " + scope,
                      kPost, // the report
                      LogLine(20, "CompositeSubscriptionMgr: Subscription for instrument " + def.ToString() +
                                      " subscriptionID=1 failed when making the direct subscription.Details: "
                                      "CompositeInstrumentSubscription::SubscribeComponents() failed")}));
    EXPECT_EQ(Callbacks(), Events{"F.OnSubscribe id=1 X result=17 component=0 @executor"});
}

TEST_F(RaisedReports, OfAReplayComeBehindTheirLines)
{
    Open();
    bench.zel->Answer("X");
    bench.zel->Answer("IM_X");
    bench.Run();
    bench.events.Clear();
    const std::string replay = LogLine(10, Request("Subscribe", 2) + " - making OnSubscribe callback");
    EXPECT_EQ(Record([&] { Subscribe(second, 2); }),
              (Events{kPost, replay, kPost, replay, kPost, kPost,
                      LogLine(10, "SPLUNK_IGNORE | " + Request("AddScope", 2) +
                                      " executed. No changes to SubscriptionInfo depth=5 interval=0 trades=0 "
                                      "customFields=0")}));
}

TEST_F(RaisedReports, OfAnUnsubscribeComeBeforeTheLine)
{
    Open();
    EXPECT_EQ(Record([&] { bench.manager->Unsubscribe(def, first, 4); }),
              (Events{kPost, LogLine(20, Request("Unsubscribe", 4) + " failed - unknown subscription_id=4")}));
    EXPECT_EQ(Callbacks(), Events{"F.OnUnsubscribe id=4 X result=24 component=0 @executor"});
    EXPECT_EQ(Record([&] { bench.manager->Unsubscribe(def, second, 1); }),
              (Events{kPost, LogLine(20, Request("Unsubscribe", 1) +
                                             " failed - a different flexibleObserver was used when subscribing")}));
    EXPECT_EQ(Callbacks(), Events{"G.OnUnsubscribe id=1 X result=24 component=0 @executor"});
}

TEST_F(RaisedReports, OfAChangeOfScopeComeBeforeTheLine)
{
    Open();
    EXPECT_EQ(Record([&] { bench.manager->ChangeScope(def, {}, first, 4, true); }),
              (Events{kPost, LogLine(20, ChangeRequest(" subscriptionID=4 failed - unknown subscription_id=4"))}));
    EXPECT_EQ(Callbacks(), Events{"F.OnChangeScope id=4 X result=24 @executor"});
    EXPECT_EQ(Record([&] { bench.manager->ChangeScope(def, {}, second, 1, true); }),
              (Events{kPost, LogLine(20, ChangeRequest(" subscriptionID=1 failed - a different flexibleObserver was "
                                                       "used when subscribing"))}));
    EXPECT_EQ(Callbacks(), Events{"G.OnChangeScope id=1 X result=24 @executor"});
}

TEST_F(RaisedReports, ReplayTheSubscriptionsOwnStateWhateverTheJoinersDefinitionWants)
{
    OpenOnMds();
    bench.mds->Answer("X");
    bench.Run();
    bench.manager->Subscribe(OtherWishes(), {5, 0, false, false}, bench.factory, second, 2);
    bench.Run();
    EXPECT_EQ(bench.events.Filter("G."), Events{"G.OnSubscribe id=2 X result=0 component=0 @executor"});
    ExpectOwnState(second->lastState);
}

TEST_F(RaisedReports, BringTheSubscriptionsOwnStateWithAnAnswerThatComesLater)
{
    OpenOnMds();
    bench.mds->Answer("X");
    bench.Run();
    ExpectOwnState(first->lastState);
}

TEST_F(RaisedReports, BringTheDefinitionsFlagsOnlyWithEveryFailureOnTheFlexibleInterface)
{
    OpenOnMds();
    bench.manager->Subscribe(OtherWishes(), {}, bench.factory, second, 1);
    bench.Run();
    EXPECT_EQ(bench.events.Filter("G."), Events{"G.OnSubscribe id=1 X result=23 component=0 @executor"});
    ExpectOtherWishesOnly(second->lastState);

    const auto unknown = bench.MakeFlexibleObserver("U");
    bench.manager->Unsubscribe(OtherWishes(), unknown, 9);
    bench.Run();
    EXPECT_EQ(bench.events.Filter("U."), Events{"U.OnUnsubscribe id=9 X result=24 component=0 @executor"});
    ExpectOtherWishesOnly(unknown->lastState);

    const auto different = bench.MakeFlexibleObserver("V");
    bench.manager->Unsubscribe(OtherWishes(), different, 1);
    bench.Run();
    EXPECT_EQ(bench.events.Filter("V."), Events{"V.OnUnsubscribe id=1 X result=24 component=0 @executor"});
    ExpectOtherWishesOnly(different->lastState);
}

TEST_F(RaisedReports, BringTheDefinitionsFlagsOnlyWhenThereIsNoSubscription)
{
    bench.manager->Unsubscribe(OtherWishes(), first, 1);
    bench.Run();
    EXPECT_EQ(bench.events.Filter("F."), Events{"F.OnUnsubscribe id=1 X result=13 component=0 @queue"});
    ExpectOtherWishesOnly(first->lastState);

    const auto direct = bench.MakeObserver("A");
    bench.Access().UnsubscribeImpl(OtherWishes(), direct, 1);
    bench.Run();
    EXPECT_EQ(bench.events.Filter("A."), Events{"A.OnUnsubscribe X result=13 component=0 @queue"});
    ExpectOtherWishesOnly(direct->lastState);
}

TEST_F(RaisedReports, BringTheDefinitionsFlagsOnlyWithAFailedFirstSubscribe)
{
    bench.zel->Returns("AI_X", 1);
    bench.manager->Subscribe(OtherWishes(), {}, bench.factory, first, 1);
    bench.Run();
    EXPECT_EQ(bench.events.Filter("F."), Events{"F.OnSubscribe id=1 X result=17 component=0 @executor"});
    ExpectOtherWishesOnly(first->lastState); // the subscription's own epoch would be 1

    bench.zel->Returns("AI_X", 1);
    const auto direct = bench.MakeObserver("A");
    bench.manager->Subscribe(OtherWishes(), {}, direct, 1);
    bench.Run();
    EXPECT_EQ(bench.events.Filter("A."), Events{"A.OnSubscribe X result=25 component=0 @queue"});
    ExpectOtherWishesOnly(direct->lastState);
}

TEST_F(RaisedReports, BringTheDefinitionsFlagsOnlyToADirectClientWhoFindsTheInstrumentTaken)
{
    OpenOnMds();
    const auto direct = bench.MakeObserver("A");
    bench.manager->Subscribe(OtherWishes(), {}, direct, 7);
    bench.Run();
    EXPECT_EQ(bench.events.Filter("A."), Events{"A.OnSubscribe X result=12 component=0 @queue"});
    ExpectOtherWishesOnly(direct->lastState);
    EXPECT_EQ(direct->lastFormat, (PriceFormat{0, false, 0, 'D', 1}));
}
