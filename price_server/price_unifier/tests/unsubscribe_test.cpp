#include "testing/manager_bench.h"

#include "base/queue_thread.h"
#include "price_unifier/source/composite_instrument_subscription.h"

#include <gtest/gtest.h>

#include <limits>
#include <sstream>

using namespace ps_ns;
using namespace ps_ns::testing;

namespace
{

using Events = std::vector<std::string>;

class Unsubscribe : public ::testing::Test
{
protected:
    void Join(const std::shared_ptr<RecordingFlexibleObserver>& observer, unsigned long id,
              const CompositeSubscriptionInfo& info = {5, 0, false, false})
    {
        bench.manager->Subscribe(def, info, bench.factory, observer, id);
        bench.Run();
        bench.events.Clear();
    }
    unsigned long SubscribeDirect()
    {
        const unsigned long handle = bench.manager->Subscribe(def, {5, 0, false, false}, direct, 1).first;
        bench.Run();
        bench.events.Clear();
        return handle;
    }
    Events Leave(const std::shared_ptr<RecordingFlexibleObserver>& observer, unsigned long id)
    {
        bench.manager->Unsubscribe(def, observer, id);
        bench.Run();
        return bench.events.Take();
    }
    Events Take()
    {
        bench.Run();
        return bench.events.Take();
    }
    std::string Line(int level, unsigned long id, const std::string& rest) const
    {
        return LogLine(level, std::string(level == 10 ? "SPLUNK_IGNORE | " : "") +
                                  "CompositeSubscriptionMgr: Unsubscribe request for instrument " + def.ToString() +
                                  " subscriptionID=" + std::to_string(id) + rest);
    }
    double Zel() { return bench.manager->SubscriptionGaugeInstance(ProviderType::Zel).Get(); }

    ManagerBench bench;
    const CompositeInstrumentDef def = MakeDef("X");
    const std::shared_ptr<RecordingFlexibleObserver> first = bench.MakeFlexibleObserver("F");
    const std::shared_ptr<RecordingFlexibleObserver> second = bench.MakeFlexibleObserver("G");
    const std::shared_ptr<RecordingObserver> direct = bench.MakeObserver("A");
};

} // namespace

TEST_F(Unsubscribe, RemovesAScopeWithoutRetargetingWhenTheMergedScopeStays)
{
    Join(first, 1);
    Join(second, 2, {3, 0, false, false});
    EXPECT_EQ(Leave(second, 2), Events{Line(10, 2,
                                            " executed. No changes to SubscriptionInfo depth=5 interval=0 trades=0 "
                                            "customFields=0")});
}

TEST_F(Unsubscribe, RetargetsAfterTheLineWhenTheMergedScopeShrinks)
{
    Join(first, 1);
    Join(second, 2, {9, 0, true, false});
    EXPECT_EQ(Leave(second, 2),
              (Events{Line(10, 2,
                           " executed. PreviousSubscriptionInfo depth=9 interval=0 trades=1 customFields=0 "
                           "NewSubscriptionInfo depth=5 interval=0 trades=0 customFields=0"),
                      "zel.ChangeScope X depth=5 interval=0 trades=0 customFields=0"}));
}

TEST_F(Unsubscribe, TakesTheSubscriptionDownWithTheLastScopeAndMovesNoGauge)
{
    Join(first, 1);
    EXPECT_EQ(Leave(first, 1),
              (Events{
                  Line(10, 1, " executed. No changes to SubscriptionInfo depth=5 interval=0 trades=0 customFields=0"),
                  Line(10, 1, " executed.  No scope remaining. instrument_callbacks books=0 trades=0 customFields=0"),
                  "zel.Unsubscribe X",
              }));
    EXPECT_TRUE(bench.Access().Subscriptions().empty());
    EXPECT_EQ(bench.simple->GetRegistry().GetSize(), 0U);
    EXPECT_EQ(Zel(), 1); // only the direct interface takes it down
}

TEST_F(Unsubscribe, MakesAFreshSubscriptionWhileTheOldOneIsPendingDelete)
{
    bench.zel->unsubscribeAnswer = ScriptedProvider::UnsubscribeAnswer::Later;
    Join(first, 1);
    Leave(first, 1);
    EXPECT_EQ(bench.Access().PendingDelete().size(), 1U);
    Join(second, 1);
    EXPECT_EQ(bench.Access().Subscriptions().size(), 1U);
    EXPECT_EQ(bench.simple->GetRegistry().GetSize(), 2U);
    EXPECT_TRUE(bench.zel->AnswerUnsubscribe("X"));
    bench.Run();
    EXPECT_EQ(bench.simple->GetRegistry().GetSize(), 1U);
    EXPECT_EQ(bench.zel->GetListenerCount("X"), 1U);
}

TEST_F(Unsubscribe, ReportsAMissingSubscriptionOnTheQueueThreadBeforeTheLine)
{
    EXPECT_EQ(Leave(first, 1), (Events{"F.OnUnsubscribe id=1 X result=13 component=0 @queue",
                                       Line(20, 1, " failed - there is no subscription")}));
    EXPECT_TRUE(first->lastState.wantsDirect);
}

TEST_F(Unsubscribe, ReportsASecondUnsubscribeAsAnUnknownIdOrAMissingSubscription)
{
    Join(first, 1);
    Join(second, 2);
    Leave(first, 1);
    EXPECT_EQ(Leave(first, 1), (Events{Line(20, 1, " failed - unknown subscription_id=1"),
                                       "F.OnUnsubscribe id=1 X result=24 component=0 @executor"}));
    Leave(second, 2);
    EXPECT_EQ(Leave(second, 2), (Events{"G.OnUnsubscribe id=2 X result=13 component=0 @queue",
                                        Line(20, 2, " failed - there is no subscription")}));
}

TEST_F(Unsubscribe, LeavesTheScopeOfAnotherObserverInPlace)
{
    Join(first, 1);
    EXPECT_EQ(Leave(second, 1), (Events{Line(20, 1, " failed - a different flexibleObserver was used when subscribing"),
                                        "G.OnUnsubscribe id=1 X result=24 component=0 @executor"}));
    EXPECT_EQ(bench.Access().Subscriptions().size(), 1U);
    EXPECT_EQ(Leave(first, 1).size(), 3U);
}

TEST_F(Unsubscribe, TreatsADirectClientsScopeAsAnotherObservers)
{
    SubscribeDirect();
    EXPECT_EQ(Leave(first, 1), (Events{Line(20, 1, " failed - a different flexibleObserver was used when subscribing"),
                                       "F.OnUnsubscribe id=1 X result=24 component=0 @executor"}));
}

TEST_F(Unsubscribe, SendsASyntheticToTheSyntheticPathOnly)
{
    const CompositeInstrumentDef synthetic = MakeSyntheticDef("S");
    bench.manager->Unsubscribe(synthetic, first, 1);
    EXPECT_EQ(Take(), Events{});
}

TEST_F(Unsubscribe, SendsASyntheticToTheSyntheticPathEvenIfItsIdentityIsFiled)
{
    const CompositeInstrumentDef synthetic = MakeSyntheticDef("S");
    Join(first, 1);
    auto* const live = bench.Access().Subscriptions().at(CompositeInstrumentID(def));
    bench.Access().FileSubscription(synthetic, live);
    bench.manager->Unsubscribe(synthetic, first, 1);
    bench.manager->Unsubscribe(synthetic, second, 7); // would be told 24
    EXPECT_EQ(Take(), Events{});
    EXPECT_TRUE(live->HasIndividualSubscriptions());
    EXPECT_EQ(bench.Access().Subscriptions().size(), 2U);
}

TEST_F(Unsubscribe, OfADirectHandleMakesNoTestForASyntheticAndFindsWhatIsFiled)
{
    const CompositeInstrumentDef synthetic = MakeSyntheticDef("S");
    Join(first, 1);
    bench.Access().FileSubscription(synthetic, bench.Access().Subscriptions().at(CompositeInstrumentID(def)));
    bench.Access().Subscriptions().erase(CompositeInstrumentID(def));
    bench.manager->Subscribe(synthetic, {}, direct, 1); // refused, and filed under handle 1
    bench.events.Clear();
    EXPECT_TRUE(bench.manager->Unsubscribe(1));
    EXPECT_EQ(Take(),
              (Events{LogLine(10, "SPLUNK_IGNORE | CompositeSubscriptionMgr: Unsubscribe request for instrument " +
                                      synthetic.ToString() +
                                      " handle=1 (observer=A) executed. instrument_callbacks books=0 trades=0 "
                                      "customFields=0"),
                      "zel.Unsubscribe X"}));
    EXPECT_TRUE(bench.Access().Subscriptions().empty());
}

TEST_F(Unsubscribe, DeliversNothingToAClientOnceItsScopeIsRemoved)
{
    Join(first, 1);
    Join(second, 2);
    bench.zel->Answer("X");
    bench.zel->SendImage("X", {{BookSideType::Bid, "10", "1"}}); // posted before the removal, delivered after it
    bench.manager->Unsubscribe(def, first, 1);
    bench.queue.RunAll();
    bench.events.Clear();
    EXPECT_EQ(Take(), (Events{"local.OnSubscribe X result=0 component=0 @executor",
                              "G.OnSubscribe id=2 X result=0 component=0 @executor",
                              "local.OnOrderBook X 10x1+0 |  @executor", "G.OnOrderBook id=2 X 10x1+0 |  @executor"}));
}

TEST_F(Unsubscribe, OfAHandleSilencesWhatIsUnderWayAnswersIncluded)
{
    bench.zel->unsubscribeAnswer = ScriptedProvider::UnsubscribeAnswer::Later;
    const unsigned long handle = SubscribeDirect();
    Join(first, 2);
    bench.zel->Answer("X"); // posted, not delivered
    bench.manager->Unsubscribe(handle);
    bench.queue.RunAll();
    bench.events.Clear();
    EXPECT_GT(bench.executors->GetWaiting(), 0U);
    EXPECT_EQ(Take(), Events{});
    EXPECT_TRUE(bench.zel->AnswerUnsubscribe("X"));
    EXPECT_EQ(Take(), Events{});
}

TEST_F(Unsubscribe, OfAHandleTakesTheWholeSubscriptionDownOtherClientsIncluded)
{
    const unsigned long handle = SubscribeDirect();
    Join(first, 2);
    EXPECT_TRUE(bench.manager->Unsubscribe(handle));
    EXPECT_EQ(Take(), (Events{
                          LogLine(10, "SPLUNK_IGNORE | CompositeSubscriptionMgr: Unsubscribe request for instrument " +
                                          def.ToString() +
                                          " handle=1 (observer=A) executed. instrument_callbacks books=0 trades=0 "
                                          "customFields=0"),
                          "zel.Unsubscribe X",
                      }));
    EXPECT_EQ(Zel(), 0);
    EXPECT_TRUE(bench.Access().Subscriptions().empty());
    EXPECT_EQ(Leave(first, 2).front(), "F.OnUnsubscribe id=2 X result=13 component=0 @queue");
}

TEST_F(Unsubscribe, OfAHandleThatWasToldTwelveTakesTheOthersSubscriptionDown)
{
    Join(first, 2);
    const unsigned long handle = SubscribeDirect(); // told 12, keeps its handle
    EXPECT_TRUE(bench.manager->Unsubscribe(handle));
    bench.Run();
    EXPECT_TRUE(bench.Access().Subscriptions().empty());
}

TEST_F(Unsubscribe, ForgetsAHandleAtOnceOnTheCallersThread)
{
    const unsigned long handle = SubscribeDirect();
    EXPECT_TRUE(bench.manager->Unsubscribe(handle));
    EXPECT_TRUE(bench.Access().SubscriptionByHandle().empty());
    EXPECT_TRUE(bench.Access().HandleByInstrument().empty());
    bench.events.Clear();
    EXPECT_FALSE(bench.manager->Unsubscribe(handle));
    // No instrument is known for a handle that is not: two blanks.
    EXPECT_EQ(
        bench.events.Take(),
        Events{LogLine(20, "CompositeSubscriptionMgr: Unsubscribe request for instrument  handle=1 failed - there "
                           "is no subscription")});
    EXPECT_EQ(bench.queue.GetWaiting(), 1U);
}

TEST_F(Unsubscribe, GoesOnAfterReportingAMissingReverseEntry)
{
    const unsigned long handle = SubscribeDirect();
    bench.Access().HandleByInstrument().clear();
    EXPECT_TRUE(bench.manager->Unsubscribe(handle));
    EXPECT_EQ(
        bench.events.Take(),
        Events{LogLine(20, "CompositeSubscriptionMgr: Request to unsubscribe from instrument  handle=1 - could not "
                           "find the entry in m_handleByCompositeInstrumentID")});
    bench.Run();
    EXPECT_TRUE(bench.Access().Subscriptions().empty());
}

TEST_F(Unsubscribe, FindsNoReverseEntryForALegThatEqualsNothing)
{
    CompositeInstrumentDef synthetic = MakeSyntheticDef("S");
    auto instrument = std::make_shared<LegInstrument>();
    instrument->ratio = std::numeric_limits<double>::quiet_NaN();
    auto leg = std::make_shared<SyntheticLeg>();
    leg->instrument = instrument;
    synthetic.legs = {leg};
    bench.manager->Subscribe(synthetic, {}, direct, 1); // refused, and filed under handle 1
    bench.manager->Subscribe(synthetic, {}, direct, 1); // not even a duplicate
    bench.events.Clear();
    EXPECT_TRUE(bench.manager->Unsubscribe(1));
    bench.Run();
    EXPECT_EQ(bench.events.Take(),
              (Events{LogLine(20, "CompositeSubscriptionMgr: Request to unsubscribe from instrument  handle=1 - could "
                                  "not find the entry in m_handleByCompositeInstrumentID"),
                      "A.OnUnsubscribe S result=13 component=0 @queue",
                      LogLine(20, "CompositeSubscriptionMgr: Unsubscribe request for instrument " +
                                      synthetic.ToString() + " (observer=A) failed - there is no subscription")}));
    EXPECT_EQ(bench.Access().HandleByInstrument().size(), 2U);
}

TEST_F(Unsubscribe, MakesRoomForANewHandleOfTheInstrument)
{
    EXPECT_EQ(SubscribeDirect(), 1U);
    bench.manager->Unsubscribe(1);
    EXPECT_EQ(SubscribeDirect(), 2U);
    EXPECT_EQ(bench.Access().Subscriptions().size(), 1U);
    EXPECT_EQ(Zel(), 1);
}

TEST_F(Unsubscribe, ErasesThePendingEntryWithItsWholeVectorAtTeardownAndLeavesThePendingGauge)
{
    bench.zel->Directory().AddMarket(1);
    CompositeInstrumentDef other = def;
    other.attrC = 5;
    const unsigned long handle = SubscribeDirect();
    bench.manager->Subscribe(other, {}, direct, 1);
    bench.Run();
    ASSERT_EQ(bench.Access().PendingProvider().begin()->second.size(), 2U);
    bench.manager->Unsubscribe(handle);
    bench.Run();
    EXPECT_TRUE(bench.Access().PendingProvider().empty());
    EXPECT_EQ(bench.manager->SubscriptionPendingGaugeInstance().Get(), 1); // left alone
    EXPECT_EQ(bench.simple->GetRegistry().GetSize(), 1U);
}

TEST_F(Unsubscribe, ErasesBothEntriesOfASubscriptionThatIsPendingDeleteAndWaitsForAProviderAndDeletesItOnce)
{
    bench.zel->Directory().AddMarket(1);
    bench.zel->unsubscribeAnswer = ScriptedProvider::UnsubscribeAnswer::Later;
    const unsigned long handle = SubscribeDirect();
    const auto* const subscription = bench.Access().Subscriptions().at(CompositeInstrumentID(def));
    bench.manager->Unsubscribe(handle);
    bench.Run();
    bench.events.Clear();
    ASSERT_EQ(bench.Access().PendingDelete().begin()->first, subscription);
    ASSERT_EQ(bench.Access().PendingProvider().begin()->second.front(), subscription);
    EXPECT_TRUE(bench.zel->AnswerUnsubscribe("X"));
    EXPECT_EQ(bench.queue.GetWaiting(), 1U); // one teardown
    EXPECT_EQ(Take(), Events{});
    EXPECT_TRUE(bench.Access().PendingDelete().empty());
    EXPECT_TRUE(bench.Access().PendingProvider().empty());
    EXPECT_EQ(bench.simple->GetRegistry().GetSize(), 0U);
}

TEST_F(Unsubscribe, ErasesAtTeardownThePendingSymbolOfItsOwnSubscriptionOnly)
{
    bench.zel->Directory().AddMarket(1);
    const unsigned long handle = SubscribeDirect();
    const CompositeInstrumentDef other = MakeDef("Y");
    bench.manager->Subscribe(other, {}, direct, 1);
    bench.Run();
    bench.manager->Unsubscribe(handle);
    bench.Run();
    ASSERT_EQ(bench.Access().PendingProvider().size(), 1U);
    EXPECT_EQ(bench.Access().PendingProvider().count(PendingSubscriptionID(other)), 1U);
}

TEST_F(Unsubscribe, DeletesAtTeardownAlsoWhatIsNotInThePendingDeleteList)
{
    SubscribeDirect();
    auto* const subscription = bench.Access().Subscriptions().at(CompositeInstrumentID(def));
    bench.Access().Subscriptions().clear();
    bench.manager->OnUnsubscribeCompositeSubscription(subscription, def);
    std::ostringstream address;
    address << static_cast<const void*>(subscription);
    EXPECT_EQ(Take(), (Events{LogLine(20, "OnUnsubscribeCompositeSubscription: couldn't find subscription for " +
                                              def.ToString() + " composite_id=" + address.str()),
                              "zel.Unsubscribe X"}));
    EXPECT_EQ(bench.simple->GetRegistry().GetSize(), 0U);
}

TEST_F(Unsubscribe, ToleratesANullSubscriptionAtTeardown)
{
    bench.zel->Directory().AddMarket(1);
    SubscribeDirect();
    bench.manager->OnUnsubscribeCompositeSubscription(nullptr, def);
    const Events events = Take();
    ASSERT_EQ(events.size(), 1U);
    EXPECT_TRUE(
        events[0].starts_with(LogLine(20, "OnUnsubscribeCompositeSubscription: couldn't find subscription for " +
                                              def.ToString() + " composite_id=")));
    EXPECT_TRUE(bench.Access().PendingProvider().empty());
    EXPECT_EQ(bench.Access().Subscriptions().size(), 1U);
}
