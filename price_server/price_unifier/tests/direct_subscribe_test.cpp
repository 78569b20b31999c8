#include "testing/manager_bench.h"

#include "composite_instrument/subscription_ex.h"
#include "price_unifier/source/composite_instrument_subscription.h"

#include <gtest/gtest.h>

#include <stdexcept>

using namespace ps_ns;
using namespace ps_ns::testing;
using ps_messages_ns::SubscriptionResult;

namespace
{

using Events = std::vector<std::string>;
using Answer = std::pair<unsigned long, SubscriptionResult::Value>;

class DirectSubscribe : public ::testing::Test
{
protected:
    /// The line that a successful direct subscribe of market 1's default depth writes.
    static std::string ExecutedLine(const CompositeInstrumentDef& instrument, unsigned long handle,
                                    const std::string& name,
                                    const std::string& scope = "depth=5 interval=0 trades=0 customFields=0")
    {
        return LogLine(10, "SPLUNK_IGNORE | CompositeSubscriptionMgr: Subscribe request for instrument " +
                               instrument.ToString() + " handle=" + std::to_string(handle) + " (observer=" + name +
                               ") compositeSubscriptionInfo " + scope + " executed");
    }
    static std::string FailedLine(const CompositeInstrumentDef& instrument, const std::string& name,
                                  const std::string& why)
    {
        return LogLine(20, "CompositeSubscriptionMgr: Subscription for instrument " + instrument.ToString() +
                               " (observer=" + name + ") failed when making the direct subscription. Details: " + why);
    }
    bool IsLive(const CompositeInstrumentDef& instrument)
    {
        return bench.Access().Subscriptions().count(CompositeInstrumentID(instrument)) != 0;
    }
    double Zel() { return bench.manager->SubscriptionGaugeInstance(ProviderType::Zel).Get(); }
    double Mds() { return bench.manager->SubscriptionGaugeInstance(ProviderType::Mds).Get(); }
    double Pending() { return bench.manager->SubscriptionPendingGaugeInstance().Get(); }

    ManagerBench bench;
    const CompositeInstrumentDef def = MakeDef("X");
};

} // namespace

TEST_F(DirectSubscribe, AnswersAtOnceAndDoesTheWorkOnTheQueueThread)
{
    bench.CompleteDirectories();
    const auto observer = bench.MakeObserver("A");
    EXPECT_EQ(bench.manager->Subscribe(def, {}, observer, 7), Answer(1, SubscriptionResult::Accepted));
    EXPECT_TRUE(bench.events.Take().empty());
    bench.Run();
    // The line precedes the subscribe of the components.
    EXPECT_EQ(bench.events.Take(), (Events{
                                       ExecutedLine(def, 1, "A"),
                                       "zel.Subscribe X component=0 depth=5 interval=0 trades=0 customFields=0",
                                   }));
    EXPECT_TRUE(IsLive(def));
    EXPECT_EQ(Zel(), 1);
    EXPECT_EQ(Mds(), 0);
}

TEST_F(DirectSubscribe, TellsTheObserverWhatEachComponentAnswersOnTheExecutor)
{
    CompositeInstrumentDef all = def;
    all.components = {true, true, true};
    const auto observer = bench.MakeObserver("A");
    bench.manager->Subscribe(all, {}, observer, 7);
    bench.Run();
    bench.events.Clear();
    PriceFormat format;
    format.denominator = 100;
    bench.zel->Answer("AI_X");
    bench.zel->Answer("X", SubscriptionResult::Success, format);
    bench.Run();
    EXPECT_EQ(bench.events.Take(), (Events{"A.OnSubscribe X result=0 component=2 @executor",
                                           "A.OnSubscribe X result=0 component=0 @executor"}));
    EXPECT_EQ(observer->lastFormat, format);
    EXPECT_TRUE(observer->lastState.wantsAggregated);
    EXPECT_FALSE(observer->lastState.isLive);
}

TEST_F(DirectSubscribe, RefusesASecondDirectClientOfTheSameInstrument)
{
    const auto first = bench.MakeObserver("A");
    const auto second = bench.MakeObserver("B");
    EXPECT_EQ(bench.manager->Subscribe(def, {}, first, 7), Answer(1, SubscriptionResult::Accepted));
    EXPECT_EQ(bench.manager->Subscribe(def, {}, second, 8), Answer(0, SubscriptionResult::Refused));
    EXPECT_EQ(bench.events.Take(), Events{LogLine(30, "CompositeSubscriptionMgr: Subscribe request for instrument " +
                                                          def.ToString() + " (observer=B) rejected as a duplicate")});
    EXPECT_EQ(bench.queue.GetWaiting(), 1U);
    EXPECT_EQ(std::get<1>(bench.Access().SubscriptionByHandle().at(1)), first);
    EXPECT_EQ(bench.manager->Subscribe(MakeDef("Y"), {}, second, 8), Answer(2, SubscriptionResult::Accepted));
}

TEST_F(DirectSubscribe, TellsInstrumentsApartByIdentityNotBySymbol)
{
    CompositeInstrumentDef other = def;
    other.attrD = -1;
    CompositeInstrumentDef renamed = def;
    renamed.instrument.symbol = "Z";
    const auto observer = bench.MakeObserver("A");
    EXPECT_EQ(bench.manager->Subscribe(def, {}, observer, 7).second, SubscriptionResult::Accepted);
    EXPECT_EQ(bench.manager->Subscribe(other, {}, observer, 7).second, SubscriptionResult::Accepted);
    EXPECT_EQ(bench.manager->Subscribe(renamed, {}, observer, 7).second, SubscriptionResult::Refused);
}

TEST_F(DirectSubscribe, RefusesASyntheticAfterTheBookkeepingAndTakesNothingBack)
{
    const CompositeInstrumentDef synthetic = MakeSyntheticDef("S");
    const auto observer = bench.MakeObserver("A");
    EXPECT_EQ(bench.manager->Subscribe(def, {}, observer, 7), Answer(1, SubscriptionResult::Accepted));
    EXPECT_EQ(bench.manager->Subscribe(synthetic, {}, observer, 7), Answer(0, SubscriptionResult::Refused));
    EXPECT_EQ(bench.events.Take(), Events{LogLine(30, 0,
                                                  "CompositeSubscriptionMgr: UnifierSynthetic. request for " +
                                                      synthetic.ToString() + " not supported on windows or KEEL SDK")});
    EXPECT_EQ(bench.Access().HandleByInstrument().at(CompositeInstrumentID(synthetic)), 2U);
    EXPECT_EQ(std::get<1>(bench.Access().SubscriptionByHandle().at(2)), observer);
    EXPECT_EQ(bench.queue.GetWaiting(), 1U);
    // The handle is used up: the next one is two above the last accepted.
    EXPECT_EQ(bench.manager->Subscribe(MakeDef("Y"), {}, observer, 7), Answer(3, SubscriptionResult::Accepted));
}

TEST_F(DirectSubscribe, RefusesARepeatedSyntheticAsADuplicateFirst)
{
    const CompositeInstrumentDef synthetic = MakeSyntheticDef("S");
    bench.manager->Subscribe(synthetic, {}, bench.MakeObserver("A"), 7);
    bench.events.Clear();
    EXPECT_EQ(bench.manager->Subscribe(synthetic, {}, bench.MakeObserver("A"), 7),
              Answer(0, SubscriptionResult::Refused));
    EXPECT_EQ(bench.events.Take(),
              Events{LogLine(30, "CompositeSubscriptionMgr: Subscribe request for instrument " + synthetic.ToString() +
                                     " (observer=A) rejected as a duplicate")});
}

TEST_F(DirectSubscribe, KeepsTheOldEntryOfAHandleThatIsFiledAlready)
{
    const auto old = bench.MakeObserver("old");
    bench.Access().SubscriptionByHandle().try_emplace(1, MakeDef("OLD"), old);
    EXPECT_EQ(bench.manager->Subscribe(def, {}, bench.MakeObserver("A"), 7), Answer(1, SubscriptionResult::Accepted));
    EXPECT_EQ(std::get<1>(bench.Access().SubscriptionByHandle().at(1)), old);
}

TEST_F(DirectSubscribe, ReplacesTheDepthSentinelsByTheMarketsDepths)
{
    const auto observer = bench.MakeObserver("A");
    bench.manager->Subscribe(MakeDef("D"), {-2, 5, true, false}, observer, 1);
    bench.manager->Subscribe(MakeDef("M"), {-1, 0, false, true}, observer, 1);
    bench.manager->Subscribe(MakeDef("L"), {3, 0, false, false}, observer, 1);
    bench.manager->Subscribe(MakeDef("T", 2), {-1, 0, false, false}, observer, 1);
    bench.Run();
    EXPECT_EQ(bench.events.Filter("zel.Subscribe"),
              (Events{"zel.Subscribe D component=0 depth=5 interval=5 trades=1 customFields=0",
                      "zel.Subscribe M component=0 depth=20 interval=0 trades=0 customFields=1",
                      "zel.Subscribe L component=0 depth=3 interval=0 trades=0 customFields=0",
                      "zel.Subscribe T component=0 depth=100 interval=0 trades=0 customFields=0"}));
    const Events lines = bench.events.Filter("log 10");
    ASSERT_EQ(lines.size(), 4U);
    EXPECT_EQ(lines[1], ExecutedLine(MakeDef("M"), 2, "A", "depth=20 interval=0 trades=0 customFields=1"));
}

TEST_F(DirectSubscribe, ParksASubscriptionWhoseProviderIsUndecidedAndCountsIt)
{
    const auto observer = bench.MakeObserver("A");
    bench.zel->Directory().AddMarket(1); // it can know the symbol, and has not been read
    bench.manager->Subscribe(def, {}, observer, 7);
    bench.Run();
    EXPECT_TRUE(IsLive(def));
    EXPECT_EQ(Zel(), 1);
    EXPECT_EQ(Pending(), 1);
    ASSERT_EQ(bench.Access().PendingProvider().count(PendingSubscriptionID(def)), 1U);
}

TEST_F(DirectSubscribe, ReportsAFailedSubscribeThenLogsThenForgetsTheSubscriptionButNotTheHandle)
{
    bench.zel->Returns("X", 1);
    const auto observer = bench.MakeObserver("A");
    bool wasLiveInCallback = false;
    observer->onCallback = [&] { wasLiveInCallback = IsLive(def); };
    bench.manager->Subscribe(def, {}, observer, 7);
    bench.Run();
    EXPECT_EQ(bench.events.Take(),
              (Events{
                  ExecutedLine(def, 1, "A"),
                  "zel.Subscribe X component=0 depth=5 interval=0 trades=0 customFields=0",
                  "A.OnSubscribe X result=25 component=0 @queue",
                  FailedLine(def, "A", "CompositeInstrumentSubscription::SubscribeComponents() failed"),
              }));
    EXPECT_TRUE(wasLiveInCallback);
    EXPECT_FALSE(IsLive(def));
    EXPECT_EQ(Zel(), 0);
    EXPECT_EQ(bench.Access().SubscriptionByHandle().size(), 1U);
    EXPECT_EQ(bench.Access().HandleByInstrument().size(), 1U);
    // The object is left to the registry.
    EXPECT_EQ(bench.simple->GetRegistry().GetSize(), 1U);
}

TEST_F(DirectSubscribe, ReportsAnEmptyEventTheUsualFormatAndTheDefinitionsFlagsWithAFailure)
{
    CompositeInstrumentDef two = def;
    two.components = {true, false, true};
    bench.zel->Returns("X", 1);
    bench.zel->Returns("AI_X", 1);
    const auto observer = bench.MakeObserver("A");
    bench.manager->Subscribe(two, {}, observer, 7);
    bench.Run();
    EXPECT_EQ(observer->lastEventInfo, EventInfo{});
    EXPECT_EQ(observer->lastFormat, (PriceFormat{0, false, 0, 'D', 1}));
    EXPECT_TRUE(observer->lastState.wantsDirect);
    EXPECT_FALSE(observer->lastState.wantsImplied);
    EXPECT_TRUE(observer->lastState.wantsAggregated);
}

TEST_F(DirectSubscribe, ReportsTheTextOfASubscriptionExceptionAsTheFailure)
{
    bench.zel->Throws("X", [] { throw SubscriptionEx("no route to the venue"); });
    bench.manager->Subscribe(def, {}, bench.MakeObserver("A"), 7);
    bench.Run();
    const Events events = bench.events.Take();
    ASSERT_EQ(events.size(), 4U);
    EXPECT_EQ(events[2], "A.OnSubscribe X result=25 component=0 @queue");
    EXPECT_EQ(events[3], FailedLine(def, "A", "no route to the venue"));
    EXPECT_FALSE(IsLive(def));
}

TEST_F(DirectSubscribe, LetsOtherExceptionsOutToTheQueuesReader)
{
    bench.zel->Throws("X", [] { throw std::runtime_error("unexpected"); });
    bench.manager->Subscribe(def, {}, bench.MakeObserver("A"), 7);
    EXPECT_THROW(bench.Run(), std::runtime_error);
    EXPECT_TRUE(IsLive(def)); // nothing is undone
    EXPECT_EQ(Zel(), 0);
}

TEST_F(DirectSubscribe, LetsOutWhatAnObserverThrowsBeforeTheLineAndTheErase)
{
    bench.zel->Returns("X", 1);
    const auto observer = bench.MakeObserver("A");
    observer->onCallback = [] { throw std::runtime_error("thrown by a client"); };
    bench.manager->Subscribe(def, {}, observer, 7);
    EXPECT_THROW(bench.Run(), std::runtime_error);
    EXPECT_TRUE(IsLive(def));
    EXPECT_TRUE(bench.events.Filter("log 20").empty());
}

TEST_F(DirectSubscribe, DoesNothingForAnyOtherStatus)
{
    for (const int status : {3, -1, 255})
    {
        const CompositeInstrumentDef other = MakeDef("S" + std::to_string(status));
        bench.zel->Returns(other.GetSymbol(), status);
        bench.manager->Subscribe(other, {}, bench.MakeObserver("A"), 7);
        bench.Run();
        EXPECT_TRUE(IsLive(other));
    }
    EXPECT_EQ(Zel(), 0);
    EXPECT_EQ(Pending(), 0);
    EXPECT_TRUE(bench.events.Filter("A.").empty());
}

TEST_F(DirectSubscribe, RejectsOnTheQueueAnInstrumentThatAFlexibleClientHas)
{
    const auto flexible = bench.MakeFlexibleObserver("F");
    bench.manager->Subscribe(def, {}, bench.factory, flexible, 1);
    EXPECT_EQ(bench.manager->Subscribe(def, {}, bench.MakeObserver("A"), 7), Answer(1, SubscriptionResult::Accepted));
    bench.Run();
    Events events = bench.events.Take();
    ASSERT_GE(events.size(), 2U);
    events.erase(events.begin(), events.end() - 2);
    EXPECT_EQ(events, (Events{"A.OnSubscribe X result=12 component=0 @queue",
                              LogLine(20, "CompositeSubscriptionMgr: Subscribe request for instrument " +
                                              def.ToString() + " handle=1 (observer=A) rejected as a duplicate")}));
    EXPECT_EQ(Zel(), 1);
    EXPECT_EQ(bench.Access().SubscriptionByHandle().size(), 1U); // the handle stays
}

TEST_F(DirectSubscribe, BehavesTheSameForALegWhateverItsNumber)
{
    const auto observer = bench.MakeObserver("A");
    EXPECT_EQ(bench.manager->SyntheticLegSubscribe(99, def, {}, observer, 7), Answer(1, SubscriptionResult::Accepted));
    EXPECT_EQ(bench.manager->SyntheticLegSubscribe(0, def, {}, observer, 7), Answer(0, SubscriptionResult::Refused));
    bench.events.Clear();
    bench.Run();
    EXPECT_EQ(bench.events.Take(), (Events{
                                       ExecutedLine(def, 1, "A"),
                                       "zel.Subscribe X component=0 depth=5 interval=0 trades=0 customFields=0",
                                   }));
}

TEST_F(DirectSubscribe, GivesOutAHandleThatNobodyHearsOfWhenTheQueueIsShutDown)
{
    bench.queue.Get().shutdown();
    const auto observer = bench.MakeObserver("A");
    EXPECT_EQ(bench.manager->Subscribe(def, {}, observer, 7), Answer(1, SubscriptionResult::Accepted));
    const Events events = bench.events.Take();
    ASSERT_EQ(events.size(), 1U);
    EXPECT_TRUE(events[0].starts_with("log 0 13 1 DataQueue hand_driven @"));
    bench.Run();
    EXPECT_FALSE(IsLive(def));
    EXPECT_EQ(observer.use_count(), 2); // ours and the handle map's
}

TEST_F(DirectSubscribe, WritesNothingBelowTheMinimumLevelAndWorksAllTheSame)
{
    zel::logging::g_minLogLevel = 31;
    bench.manager->Subscribe(def, {}, bench.MakeObserver("A"), 7);
    bench.manager->Subscribe(def, {}, bench.MakeObserver("B"), 7);
    bench.Run();
    EXPECT_EQ(bench.events.Take(), Events{"zel.Subscribe X component=0 depth=5 interval=0 trades=0 customFields=0"});
    EXPECT_TRUE(IsLive(def));
}

TEST_F(DirectSubscribe, FailsWhenNoProviderServesTheSymbol)
{
    ManagerBench::Options options;
    options.withZel = false;
    ManagerBench mdsOnly(options);
    mdsOnly.CompleteDirectories();
    mdsOnly.manager->Subscribe(def, {}, mdsOnly.MakeObserver("A"), 7);
    mdsOnly.Run();
    EXPECT_EQ(mdsOnly.events.Filter("A."), Events{"A.OnSubscribe X result=25 component=0 @queue"});
    EXPECT_EQ(mdsOnly.events.Filter("log 20"), Events{FailedLine(def, "A", "no provider serves X")});
}

TEST_F(DirectSubscribe, SucceedsWithOneComponentAndReportsTheOtherAsFailed)
{
    CompositeInstrumentDef two = def;
    two.components = {true, true, false};
    bench.zel->Returns("IM_X", 1);
    bench.manager->Subscribe(two, {}, bench.MakeObserver("A"), 7);
    bench.Run();
    EXPECT_TRUE(IsLive(two));
    EXPECT_EQ(bench.events.Filter("A."), Events{"A.OnSubscribe X result=17 component=1 @executor"});
}

TEST_F(DirectSubscribe, FailsWithAReasonWhenTheDefinitionWantsNoComponent)
{
    CompositeInstrumentDef none = def;
    none.components = {false, false, false};
    bench.manager->Subscribe(none, {}, bench.MakeObserver("A"), 7);
    bench.Run();
    EXPECT_EQ(bench.events.Filter("log 20"), Events{FailedLine(none, "A", "the definition wants no component")});
}
