#include "flexible_fixture.h"

#include "composite_instrument/subscription_ex.h"
#include "price_unifier/source/notifications.h"

#include <sstream>
#include <stdexcept>

using namespace ps_ns;
using namespace ps_ns::testing;
using ps_messages_ns::SubscriptionResult;

TEST_F(FlexibleSubscribe, MakesTheSubscriptionForTheFirstClientAndRaisesNothingByItself)
{
    bench.manager->Subscribe(def, {}, bench.factory, first, 1);
    EXPECT_TRUE(bench.events.Take().empty());
    EXPECT_EQ(Take(),
              (Events{
                  "factory.CreateLocalObserver X @queue",
                  LogLine(10, "SPLUNK_IGNORE | " + Request("Subscribe", 1) +
                                  " compositeSubscriptionInfo depth=5 interval=0 trades=0 customFields=0 executed"),
                  "zel.Subscribe X component=0 depth=5 interval=0 trades=0 customFields=0",
                  "zel.Subscribe IM_X component=1 depth=5 interval=0 trades=0 customFields=0",
                  "zel.Subscribe AI_X component=2 depth=5 interval=0 trades=0 customFields=0",
              }));
    EXPECT_EQ(bench.manager->GetSubscriptionCounts().first, 1U);
    EXPECT_TRUE(bench.Access().SubscriptionByHandle().empty());
}

TEST_F(FlexibleSubscribe, MakesASubscriptionWithoutAHandle)
{
    Open();
    std::ostringstream text;
    Live().Describe(text);
    EXPECT_NE(text.str().find(" handle=0 "), std::string::npos) << text.str();
}

TEST_F(FlexibleSubscribe, TellsTheLocalObserverAndTheFirstClientWhatTheComponentsAnswer)
{
    Open();
    bench.zel->Answer("X");
    EXPECT_EQ(Take(), (Events{"local.OnSubscribe X result=0 component=0 @executor",
                              "F.OnSubscribe id=1 X result=0 component=0 @executor"}));
    EXPECT_FALSE(first->lastState.isLive);
}

TEST_F(FlexibleSubscribe, JoinsAnEqualOrNarrowerScopeWithoutRetargeting)
{
    Open();
    Subscribe(second, 2, {3, 0, false, false});
    EXPECT_EQ(Take(), Events{LogLine(10, "SPLUNK_IGNORE | " + Request("AddScope", 2) +
                                             " executed. No changes to SubscriptionInfo depth=5 interval=0 trades=0 "
                                             "customFields=0")});
}

TEST_F(FlexibleSubscribe, RetargetsToTheMergedScopeForAWiderClientAfterTheLine)
{
    Open({5, 100, false, false});
    Subscribe(second, 2, {-1, 200, true, false});
    EXPECT_EQ(Take(), (Events{
                          LogLine(10, "SPLUNK_IGNORE | " + Request("AddScope", 2) +
                                          " executed. PreviousSubscriptionInfo depth=5 interval=100 trades=0 "
                                          "customFields=0 NewSubscriptionInfo depth=20 interval=100 trades=1 "
                                          "customFields=0"),
                          "zel.ChangeScope X depth=20 interval=100 trades=1 customFields=0",
                          "zel.ChangeScope IM_X depth=20 interval=100 trades=1 customFields=0",
                          "zel.ChangeScope AI_X depth=20 interval=100 trades=1 customFields=0",
                      }));
}

TEST_F(FlexibleSubscribe, ReplaysToALateJoinerWhatTheComponentsHaveAnsweredInTheirOrder)
{
    Open();
    PriceFormat format;
    format.denominator = 1000;
    bench.zel->Answer("AI_X", SubscriptionResult::DirectSubscriptionFailed);
    bench.zel->Answer("X", SubscriptionResult::Success, format);
    bench.Run();
    bench.events.Clear();

    Subscribe(second, 2);
    const std::string replay = LogLine(10, Request("Subscribe", 2) + " - making OnSubscribe callback");
    EXPECT_EQ(bench.events.Take(),
              (Events{replay, replay,
                      LogLine(10, "SPLUNK_IGNORE | " + Request("AddScope", 2) +
                                      " executed. No changes to SubscriptionInfo depth=5 interval=0 trades=0 "
                                      "customFields=0")}));
    bench.executors->RunOne(0); // the client is added
    bench.executors->RunOne(0);
    EXPECT_EQ(bench.events.Take(), Events{"G.OnSubscribe id=2 X result=0 component=0 @executor"});
    EXPECT_EQ(second->lastFormat, format);
    EXPECT_EQ(Take(), Events{"G.OnSubscribe id=2 X result=17 component=2 @executor"});
    EXPECT_EQ(second->lastEventInfo, EventInfo{});
    EXPECT_EQ(second->lastReserved, 0U);
    EXPECT_FALSE(second->lastState.isLive);

    // What is answered later comes by itself, to everybody, once.
    bench.zel->Answer("IM_X");
    EXPECT_EQ(Take(), (Events{"local.OnSubscribe X result=0 component=1 @executor",
                              "F.OnSubscribe id=1 X result=0 component=1 @executor",
                              "G.OnSubscribe id=2 X result=0 component=1 @executor"}));
}

TEST_F(FlexibleSubscribe, TellsAClientOnceOfAnAnswerThatMeetsItsJoin)
{
    Open();
    bench.zel->Answer("X"); // stored and posted, not delivered yet
    Subscribe(second, 2);
    Take();
    EXPECT_EQ(bench.events.Take(), Events{});
    const auto answers = [&](const std::string& name)
    {
        bench.Run();
        return bench.events.Filter(name + ".OnSubscribe").size();
    };
    bench.zel->Answer("IM_X");
    EXPECT_EQ(answers("F"), 1U);
    EXPECT_EQ(answers("G"), 1U);
}

TEST_F(FlexibleSubscribe, AsksForASnapshotForAJoinerOnlyWhenSnapshotsHaveArrived)
{
    Open();
    bench.zel->Answer("X");
    bench.zel->SendImage("X", {{kBid, "10", "1"}, {kBid, "9", "1"}});
    bench.Run();
    bench.events.Clear();
    Subscribe(second, 2, {1, 0, false, false});
    const Events events = Take();
    ASSERT_EQ(events.size(), 4U);
    EXPECT_EQ(events[2], "G.OnSubscribe id=2 X result=0 component=0 @executor");
    EXPECT_EQ(events[3], "G.OnOrderBook id=2 X 10x1+0 |  @executor"); // its own depth, and nobody else is bothered
    EXPECT_EQ(second->books.back()->snapshotReason, 110U);
}

TEST_F(FlexibleSubscribe, RefusesAnIdThatIsTakenAndLeavesTheOtherAlone)
{
    Open();
    Subscribe(second, 1, {20, 0, true, true});
    EXPECT_EQ(Take(), (Events{LogLine(20, Request("AddScope", 1) + " failed - duplicate subscription_id=1"),
                              "G.OnSubscribe id=1 X result=23 component=0 @executor"}));
    EXPECT_EQ(second->lastFormat, (PriceFormat{0, false, 0, 'D', 1}));
    EXPECT_TRUE(second->lastState.wantsImplied); // from the definition's flags
    EXPECT_EQ(Live().GetMergedScope(), (CompositeSubscriptionInfo{5, 0, false, false}));
    CompositeInstrumentSubscription::ScopeEntry scope;
    ASSERT_TRUE(Live().GetScope(1, scope));
    EXPECT_EQ(std::get<1>(scope), first);
}

TEST_F(FlexibleSubscribe, SharesOneSpaceOfIdsWithTheDirectClient)
{
    CompositeInstrumentDef own = def;
    bench.manager->Subscribe(own, {5, 0, false, false}, bench.MakeObserver("A"), 7);
    bench.Run();
    bench.events.Clear();
    Subscribe(second, 7);
    EXPECT_EQ(Take().back(), "G.OnSubscribe id=7 X result=23 component=0 @executor");
}

TEST_F(FlexibleSubscribe, ReportsAFailedFirstSubscribeAndStartsAfreshWithTheNextRequest)
{
    for (const char* const symbol : {"X", "IM_X", "AI_X"})
    {
        bench.zel->Returns(symbol, 1);
    }
    Subscribe(first, 1);
    Events events = bench.events.Take();
    ASSERT_EQ(events.size(), 6U);
    // No blank before "Details: ", unlike the direct interface's line.
    EXPECT_EQ(events[5], LogLine(20, "CompositeSubscriptionMgr: Subscription for instrument " + def.ToString() +
                                         " subscriptionID=1 failed when making the direct subscription.Details: "
                                         "CompositeInstrumentSubscription::SubscribeComponents() failed"));
    EXPECT_FALSE(IsLive());
    EXPECT_EQ(Take(), Events{"F.OnSubscribe id=1 X result=17 component=0 @executor"});
    EXPECT_EQ(bench.manager->GetSubscriptionCounts().first, 0U);

    Subscribe(first, 1);
    EXPECT_TRUE(IsLive());
    EXPECT_EQ(bench.simple->GetRegistry().GetSize(), 2U); // the failed one is left to the registry
}

TEST_F(FlexibleSubscribe, ReportsTheTextOfASubscriptionException)
{
    bench.zel->Throws("X", [] { throw SubscriptionEx("refused by the venue"); });
    bench.zel->Returns("IM_X", 1);
    bench.zel->Returns("AI_X", 1);
    Subscribe(first, 1);
    EXPECT_TRUE(bench.events.Filter("log 20").front().ends_with("subscription.Details: refused by the venue"));
}

TEST_F(FlexibleSubscribe, LetsOtherExceptionsOut)
{
    bench.zel->Throws("X", [] { throw std::logic_error("unexpected"); });
    bench.manager->Subscribe(def, {}, bench.factory, first, 1);
    EXPECT_THROW(bench.queue.RunAll(), std::logic_error);
    EXPECT_TRUE(IsLive());
}

TEST_F(FlexibleSubscribe, ParksAnUndecidedSubscriptionAndCountsIt)
{
    bench.zel->Directory().AddMarket(1);
    Subscribe(first, 1);
    EXPECT_EQ(bench.Access().PendingProvider().count(PendingSubscriptionID(def)), 1U);
    EXPECT_EQ(bench.manager->SubscriptionPendingGaugeInstance().Get(), 1);
    EXPECT_EQ(bench.manager->GetSubscriptionCounts().first, 1U);
}

TEST_F(FlexibleSubscribe, SendsASyntheticToTheSyntheticPathAndDoesNothingElse)
{
    const CompositeInstrumentDef synthetic = MakeSyntheticDef("S");
    bench.manager->Subscribe(synthetic, {}, bench.factory, first, 1);
    EXPECT_EQ(Take(), Events{LogLine(30, 0,
                                     "CompositeSubscriptionMgr: UnifierSynthetic. request for " + synthetic.ToString() +
                                         " not supported on windows")});
    EXPECT_TRUE(bench.Access().Subscriptions().empty());
}

TEST_F(FlexibleSubscribe, TellsALateJoinerALaterAnswerThatSaysSomethingElse)
{
    Open();
    bench.zel->Answer("X");
    bench.Run();
    Subscribe(second, 2);
    Take();
    PriceFormat other;
    other.denominator = 8;
    bench.zel->Answer("X", SubscriptionResult::Success, other);
    EXPECT_EQ(Take(), (Events{"local.OnSubscribe X result=0 component=0 @executor",
                              "F.OnSubscribe id=1 X result=0 component=0 @executor",
                              "G.OnSubscribe id=2 X result=0 component=0 @executor"}));
    EXPECT_EQ(second->lastFormat, other);
}

TEST_F(FlexibleSubscribe, TellsAnAnswerThatChangesDuringTheReplayAfterTheReplay)
{
    Open();
    bench.zel->Answer("X");
    bench.Run();
    // The provider answers anew while the manager writes the line before the replay.
    class AnsweringSink final : public zel::logging::ISink
    {
    public:
        explicit AnsweringSink(ScriptedProvider& provider)
            : m_provider(provider)
        {
        }
        void Write(const zel::logging::Record& record) noexcept override
        {
            if (record.text.ends_with("making OnSubscribe callback"))
            {
                m_provider.Answer("X", SubscriptionResult::DirectSubscriptionFailed);
            }
        }

    private:
        ScriptedProvider& m_provider;
    };
    const auto previous = zel::logging::Logger::SetSink(std::make_shared<AnsweringSink>(*bench.zel));
    bench.events.Clear();
    Subscribe(second, 2);
    zel::logging::Logger::SetSink(previous);
    bench.Run();
    EXPECT_EQ(bench.events.Filter("G."), (Events{"G.OnSubscribe id=2 X result=0 component=0 @executor",
                                                 "G.OnSubscribe id=2 X result=17 component=0 @executor"}));
}

TEST(Notifications, DropTheEventInfoAndTheReservedNumberOnPurpose)
{
    struct Subscription
    {
        void RunViaExecutor(std::function<void()> task) { tasks.push_back(std::move(task)); }
        std::vector<std::function<void()>> tasks;
    } subscription;
    EventLog events;
    const auto observer = std::make_shared<RecordingFlexibleObserver>("F", events, nullptr);
    const CompositeInstrumentDef def = MakeDef("X");
    CompositeSubscriptionState state;
    state.isLive = true;
    state.epoch = 4;
    PriceFormat format;
    format.denominator = 7;
    RaiseOnSubscribe(&subscription, observer, 5, def, EventInfo{1, 2, 3}, SubscriptionResult::Success, 99, format,
                     CompositeComponentType::Aggregated, state);
    RaiseOnChangeScope(&subscription, observer, 5, def, SubscriptionResult::NoSubscription);
    RaiseOnUnsubscribe(&subscription, observer, 5, def, SubscriptionResult::UnknownSubscriptionId,
                       CompositeComponentType::Direct, state);
    EXPECT_TRUE(events.Take().empty());
    for (const auto& task : subscription.tasks)
    {
        task();
    }
    EXPECT_EQ(events.Take(),
              (Events{"F.OnSubscribe id=5 X result=0 component=2 @queue", "F.OnChangeScope id=5 X result=13 @queue",
                      "F.OnUnsubscribe id=5 X result=24 component=0 @queue"}));
    EXPECT_EQ(observer->lastEventInfo, EventInfo{});
    EXPECT_EQ(observer->lastReserved, 0U);
    EXPECT_EQ(observer->lastFormat, format);
    EXPECT_EQ(observer->lastState.epoch, 4U);
    EXPECT_FALSE(observer->lastState.isLive);
}
