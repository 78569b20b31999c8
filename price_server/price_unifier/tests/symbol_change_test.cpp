#include "symbol_change_fixture.h"

using namespace ps_ns;
using namespace ps_ns::testing;

TEST_F(SymbolChange, RecordsNothingWithoutAMatchingSubscription)
{
    Subscribe("OTHER");
    Subscribe("OLD", 0, 2); // another market
    Change("OLD", "NEW");
    EXPECT_EQ(bench.events.Take(), Events{Waiting(0, "OLD", "NEW")});
    Change("OLD", "NEW");
    EXPECT_EQ(bench.events.Take(), Events{Waiting(0, "OLD", "NEW")}); // not rejected
    EXPECT_TRUE(bench.Access().SymbolChanges()[1].empty());
    EXPECT_TRUE(bench.Access().SymbolChangeResponses()[1].empty());
}

TEST_F(SymbolChange, UnsubscribesThenResubscribesUnderTheNewSymbolAndPricesGoOn)
{
    const CompositeInstrumentDef def = Subscribe("OLD");
    bench.zel->SendImage("OLD", {{kBid, "10", "1"}});
    Take();
    Change("OLD", "NEW");
    EXPECT_EQ(bench.events.Take(), (Events{"zel.Unsubscribe OLD", Waiting(1, "OLD", "NEW")}));
    EXPECT_EQ(Live(def)->GetLifeState(), CompositeInstrumentSubscription::DirectUnsubscribed);
    EXPECT_EQ(bench.Access().SymbolChanges().at(1).at("OLD"), "NEW");
    EXPECT_EQ(bench.Access().SymbolChangeResponses().at(1).at("OLD").responses.size(), 1U);

    bench.zel->AnswerUnsubscribe("OLD");
    EXPECT_EQ(Take(), (Events{Resubscribing("OLD", "NEW"), Subscribed("NEW")}));
    EXPECT_EQ(Live(def)->GetSymbol(), "NEW");
    EXPECT_EQ(Live(def)->GetDefinition().GetSymbol(), "OLD");
    EXPECT_EQ(Live(def)->GetState().symbol, "NEW");
    EXPECT_EQ(Live(def)->GetLifeState(), CompositeInstrumentSubscription::Active);
    EXPECT_TRUE(bench.Access().SymbolChanges().at(1).empty());
    EXPECT_TRUE(bench.Access().SymbolChangeResponses().at(1).empty());

    bench.zel->Answer("NEW");
    bench.zel->SendImage("NEW", {{kBid, "11", "2"}});
    EXPECT_EQ(Take(), Events{"A.OnOrderBook OLD 11x2+0 |  @executor"});
    EXPECT_EQ(bench.manager->GetSubscriptionCounts().first, 1U);
}

TEST_F(SymbolChange, WaitsForAllSubscriptionsOfTheSymbol)
{
    Subscribe("OLD", 1);
    Subscribe("OLD", 2);
    Subscribe("OLD", 3);
    Change("OLD", "NEW");
    EXPECT_EQ(bench.events.Take().back(), Waiting(3, "OLD", "NEW"));
    bench.zel->AnswerUnsubscribe("OLD");
    bench.zel->AnswerUnsubscribe("OLD");
    EXPECT_EQ(Take(), Events{});
    bench.zel->AnswerUnsubscribe("OLD");
    EXPECT_EQ(Take(), (Events{Resubscribing("OLD", "NEW"), Subscribed("NEW"), Subscribed("NEW"), Subscribed("NEW")}));
}

TEST_F(SymbolChange, SurvivesAnswersThatComeInsideTheWalk)
{
    bench.zel->unsubscribeAnswer = ScriptedProvider::UnsubscribeAnswer::Ok;
    Subscribe("OLD", 1);
    Subscribe("OLD", 2);
    Change("OLD", "NEW");
    const Events events = Take();
    ASSERT_EQ(events.size(), 6U);
    EXPECT_EQ(events[2], Waiting(2, "OLD", "NEW"));
    EXPECT_EQ(events[3], Resubscribing("OLD", "NEW"));
}

TEST_F(SymbolChange, RejectsASecondChangeOfASymbolInFlightNamingWhereItGoes)
{
    Subscribe("OLD");
    Change("OLD", "NEW");
    bench.events.Clear();
    Change("OLD", "ELSEWHERE");
    EXPECT_EQ(bench.events.Take(),
              Events{LogLine(30, "CompositeSubscriptionMgr::ChangeSymbol: rejecting change. symbol=\"OLD\" is already "
                                 "pending a change to newSymbol=\"NEW\" marketId=1")});
    bench.zel->AnswerUnsubscribe("OLD");
    EXPECT_EQ(Take().back(), Subscribed("NEW"));
}

TEST_F(SymbolChange, RedirectsAChangeInFlightAndUnsubscribesNothing)
{
    Subscribe("S1");
    Subscribe("S2"); // bears the middle symbol already, and is passed over
    Change("S1", "S2");
    bench.events.Clear();
    Change("S2", "S3");
    EXPECT_EQ(bench.events.Take(), Events{LogLine(10, "CompositeSubscriptionMgr::ChangeSymbol: change to symbol=\"S2\" "
                                                      "in flight, pendingCount=1 " +
                                                          Tail("S2", "S3"))});
    bench.zel->AnswerUnsubscribe("S1");
    EXPECT_EQ(Take(), (Events{Resubscribing("S1", "S3"), Subscribed("S3")}));
    EXPECT_EQ(bench.zel->GetListenerCount("S2"), 1U);
    EXPECT_TRUE(bench.Access().SymbolChanges().at(1).empty());
}

TEST_F(SymbolChange, PassesOverWhatIsUnsubscribedAlready)
{
    const CompositeInstrumentDef def = Subscribe("OLD", 1);
    Change("OLD", "NEW");
    bench.Access().SymbolChanges().at(1).clear(); // as if it had never been asked for
    bench.events.Clear();
    Change("OLD", "NEW");
    EXPECT_EQ(bench.events.Take(), Events{Waiting(0, "OLD", "NEW")});
    bench.zel->AnswerUnsubscribe("OLD");
    EXPECT_EQ(Take(), Events{LogLine(30, "CompositeSubscriptionMgr::ChangeSymbol: no newSymbol found! Cannot "
                                         "resubscribe. " +
                                             Tail("OLD", "NEW"))});
}

TEST_F(SymbolChange, StaysStuckForEverWhenOneUnsubscribeFails)
{
    Subscribe("OLD", 1);
    Subscribe("OLD", 2);
    Change("OLD", "NEW");
    bench.zel->AnswerUnsubscribe("OLD", false);
    bench.Run();
    bench.events.Clear();
    bench.zel->AnswerUnsubscribe("OLD", true);
    EXPECT_EQ(Take(), Events{Stuck("OLD", "NEW")});
    Change("OLD", "NEW2");
    EXPECT_EQ(bench.events.Take(),
              Events{LogLine(30, "CompositeSubscriptionMgr::ChangeSymbol: rejecting change. symbol=\"OLD\" is already "
                                 "pending a change to newSymbol=\"NEW\" marketId=1")});
    EXPECT_EQ(bench.Access().SymbolChangeResponses().at(1).at("OLD").responses.size(), 2U);
}

TEST_F(SymbolChange, AwaitsTheOtherAnswersAlsoAfterAFailure)
{
    Subscribe("OLD", 1);
    Subscribe("OLD", 2);
    Subscribe("OLD", 3);
    Change("OLD", "NEW");
    bench.events.Clear();
    bench.zel->AnswerUnsubscribe("OLD", true);
    EXPECT_EQ(Take(), Events{});
    bench.zel->AnswerUnsubscribe("OLD", false);
    EXPECT_EQ(Take(), Events{});
    bench.zel->AnswerUnsubscribe("OLD", true);
    EXPECT_EQ(Take(), Events{Stuck("OLD", "NEW")}); // once
}

TEST_F(SymbolChange, FailsWhenOneComponentOfASubscriptionCannotBeUnsubscribed)
{
    CompositeInstrumentDef def = MakeDef("OLD");
    def.components = {true, true, false};
    bench.manager->Subscribe(def, {5, 0, false, false}, observer, 1);
    bench.Run();
    Change("OLD", "NEW");
    bench.events.Clear();
    bench.zel->AnswerUnsubscribe("OLD", false);
    bench.zel->AnswerUnsubscribe("IM_OLD", true);
    EXPECT_EQ(Take(), Events{Stuck("OLD", "NEW")});
}

TEST_F(SymbolChange, DoesNotMeetADeletedSubscriptionWhenAClientUnsubscribesMeanwhile)
{
    Subscribe("OLD");
    Change("OLD", "NEW");
    EXPECT_TRUE(bench.manager->Unsubscribe(1));
    bench.Run();
    EXPECT_EQ(bench.Access().PendingDelete().size(), 1U);
    bench.zel->AnswerUnsubscribe("OLD");
    bench.events.Clear();
    // The report of the end is held back until the change has gone through; nothing is subscribed again.
    EXPECT_EQ(Take(), Events{Resubscribing("OLD", "NEW")});
    EXPECT_EQ(bench.simple->GetRegistry().GetSize(), 0U);
    EXPECT_TRUE(bench.Access().PendingDelete().empty());
}

TEST_F(SymbolChange, LetsClientsOfAStuckChangeLeave)
{
    Subscribe("OLD", 1);
    Subscribe("OLD", 2);
    Change("OLD", "NEW");
    EXPECT_TRUE(bench.manager->Unsubscribe(1));
    bench.Run();
    EXPECT_EQ(bench.simple->GetRegistry().GetSize(), 2U);
    bench.zel->AnswerUnsubscribe("OLD", false);
    bench.zel->AnswerUnsubscribe("OLD", true);
    bench.Run();
    EXPECT_EQ(bench.simple->GetRegistry().GetSize(), 1U);
    EXPECT_TRUE(bench.manager->Unsubscribe(2));
    bench.Run();
    EXPECT_EQ(bench.simple->GetRegistry().GetSize(), 0U);
}

TEST_F(SymbolChange, FindsThePendingEntryMadeAtSubscribeWhenARenamedSubscriptionEnds)
{
    bench.zel->Directory().AddMarket(1);
    bench.zel->unsubscribeAnswer = ScriptedProvider::UnsubscribeAnswer::Ok;
    Subscribe("OLD");
    ASSERT_EQ(bench.Access().PendingProvider().size(), 1U);
    Change("OLD", "NEW");
    bench.manager->Unsubscribe(1);
    bench.Run();
    EXPECT_TRUE(bench.Access().PendingProvider().empty());
    EXPECT_EQ(bench.simple->GetRegistry().GetSize(), 0U);
}

TEST_F(SymbolChange, DeletesAllSubscriptionsOfAChangeThatFailedForEachOfThem)
{
    Subscribe("OLD", 1);
    Subscribe("OLD", 2);
    Change("OLD", "NEW");
    bench.manager->Unsubscribe(1);
    bench.manager->Unsubscribe(2);
    bench.Run();
    bench.zel->DropUnsubscribes();
    bench.Run();
    EXPECT_EQ(bench.simple->GetRegistry().GetSize(), 0U);
    EXPECT_TRUE(bench.Access().PendingDelete().empty());
}

TEST_F(SymbolChange, TakesTheOldSymbolsLevelsOutOfTheBookWhenTheNewOneIsRefused)
{
    Subscribe("OLD");
    bench.zel->SendImage("OLD", {{kBid, "10", "1"}});
    Take();
    Change("OLD", "NEW");
    bench.zel->Returns("NEW", 1);
    bench.events.Clear();
    bench.zel->AnswerUnsubscribe("OLD");
    bench.Run();
    EXPECT_EQ(bench.events.Filter("A."),
              (Events{"A.OnSubscribe OLD result=17 component=0 @executor", "A.OnOrderBook OLD  |  @executor"}));
}

TEST_F(SymbolChange, AnswersItselfWhenTheProviderDropsTheListener)
{
    Subscribe("OLD");
    Change("OLD", "NEW");
    bench.events.Clear();
    bench.zel->DropUnsubscribes();
    EXPECT_EQ(Take(), Events{Stuck("OLD", "NEW")});
}

TEST_F(SymbolChange, GoesOnWithTheOldNameReusedAtOnce)
{
    bench.zel->unsubscribeAnswer = ScriptedProvider::UnsubscribeAnswer::Ok;
    const CompositeInstrumentDef classC = Subscribe("GOOCV", 1);
    const CompositeInstrumentDef classA = Subscribe("GOOG", 2);
    Change("GOOG", "GOOGL");
    Change("GOOCV", "GOOG");
    EXPECT_EQ(Live(classA)->GetSymbol(), "GOOGL");
    EXPECT_EQ(Live(classC)->GetSymbol(), "GOOG");
}

TEST_F(SymbolChange, MarksAllResponsesOfEqualIdentity)
{
    const CompositeInstrumentDef def = Subscribe("OLD");
    Change("OLD", "NEW");
    auto& responses = bench.Access().SymbolChangeResponses().at(1).at("OLD").responses;
    auto copy = responses.front();
    responses.push_back(copy);
    bench.zel->AnswerUnsubscribe("OLD");
    bench.events.Clear();
    const Events events = Take();
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(events.front(), Resubscribing("OLD", "NEW")); // nobody is awaited for the second entry
    EXPECT_EQ(Live(def)->GetSymbol(), "NEW");
}
