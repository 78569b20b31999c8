#include "symbol_change_fixture.h"

#include <algorithm>

using namespace ps_ns;
using namespace ps_ns::testing;

namespace
{

/// What a change that was redirected, tampered with or raced by other requests says and does.
class SymbolChangeRedirect : public SymbolChange
{
protected:
    static std::string Redirected(int count, const std::string& from, const std::string& to)
    {
        return LogLine(10, "CompositeSubscriptionMgr::ChangeSymbol: change to symbol=\"" + from +
                               "\" in flight, pendingCount=" + std::to_string(count) + " " + Tail(from, to));
    }
    static std::string NoNewSymbol(const std::string& from, const std::string& to)
    {
        return LogLine(30, "CompositeSubscriptionMgr::ChangeSymbol: no newSymbol found! Cannot resubscribe. " +
                               Tail(from, to));
    }
    /// The same instrument with a scope of its own depth, so that its resubscribe can be told from the others'.
    void SubscribeWithDepth(const std::string& symbol, std::uint32_t attribute, std::int32_t depth)
    {
        CompositeInstrumentDef def = MakeDef(symbol);
        def.attrC = attribute;
        bench.manager->Subscribe(def, {depth, 0, false, false}, observer, 1);
        bench.Run();
        bench.events.Clear();
    }
    static std::string SubscribedWithDepth(const std::string& symbol, std::int32_t depth)
    {
        return "zel.Subscribe " + symbol + " component=0 depth=" + std::to_string(depth) +
               " interval=0 trades=0 customFields=0";
    }
    std::vector<std::int32_t> GetDepths(const std::string& symbol)
    {
        std::vector<std::int32_t> depths;
        for (const auto& response : bench.Access().SymbolChangeResponses().at(1).at(symbol).responses)
        {
            depths.push_back(response.subscription->GetMergedScope().depth);
        }
        return depths;
    }
};

} // namespace

TEST_F(SymbolChangeRedirect, NamesTheSymbolOfItsOwnRequestWhenAnUnsubscribeFailsAfterARedirect)
{
    Subscribe("S1");
    Change("S1", "S2");
    Change("S2", "S3");
    bench.events.Clear();
    bench.zel->AnswerUnsubscribe("S1", false);
    EXPECT_EQ(Take(), Events{Stuck("S1", "S2")}); // not S3, to which it had been redirected
    EXPECT_EQ(bench.Access().SymbolChanges().at(1).at("S1"), "S3");
    EXPECT_EQ(bench.Access().SymbolChangeResponses().at(1).at("S1").responses.front().state, 2);
}

TEST_F(SymbolChangeRedirect, NamesTheSymbolOfItsOwnRequestWhenTheRecordedOneIsGone)
{
    Subscribe("S1");
    Change("S1", "S2");
    Change("S2", "S3");
    bench.Access().SymbolChanges().at(1).clear();
    bench.events.Clear();
    bench.zel->AnswerUnsubscribe("S1");
    EXPECT_EQ(Take(), Events{NoNewSymbol("S1", "S2")});
    EXPECT_EQ(bench.Access().SymbolChangeResponses().at(1).at("S1").responses.size(), 1U);
}

TEST_F(SymbolChangeRedirect, MakesTheMarketsLevelWhenItLooksForARecordedSymbolThatIsGone)
{
    Subscribe("S1");
    Change("S1", "S2");
    bench.Access().SymbolChanges().clear();
    bench.events.Clear();
    bench.zel->AnswerUnsubscribe("S1");
    EXPECT_EQ(Take(), Events{NoNewSymbol("S1", "S2")});
    EXPECT_TRUE(bench.Access().SymbolChanges().at(1).empty());
}

TEST_F(SymbolChangeRedirect, NamesTheRecordedSymbolWhenItResubscribes)
{
    Subscribe("S1");
    Change("S1", "S2");
    Change("S2", "S3");
    bench.events.Clear();
    bench.zel->AnswerUnsubscribe("S1");
    EXPECT_EQ(Take(), (Events{Resubscribing("S1", "S3"), Subscribed("S3")}));
}

TEST_F(SymbolChangeRedirect, CountsEveryChangeThatItRedirects)
{
    Subscribe("S1");
    Subscribe("S2");
    Subscribe("S9");
    Change("S1", "S3");
    Change("S2", "S3");
    Change("S9", "S8"); // goes elsewhere
    bench.events.Clear();
    Change("S3", "S4");
    EXPECT_EQ(bench.events.Take(), Events{Redirected(2, "S3", "S4")});
    EXPECT_EQ(bench.Access().SymbolChanges().at(1),
              (std::unordered_map<std::string, std::string>{{"S1", "S4"}, {"S2", "S4"}, {"S9", "S8"}}));
    bench.zel->AnswerUnsubscribe("S1");
    bench.zel->AnswerUnsubscribe("S2");
    EXPECT_EQ(Take(),
              (Events{Resubscribing("S1", "S4"), Subscribed("S4"), Resubscribing("S2", "S4"), Subscribed("S4")}));
}

TEST_F(SymbolChangeRedirect, RedirectsAndRejectsInItsOwnMarketOnly)
{
    Subscribe("S1");
    Change("S1", "S2");
    bench.events.Clear();
    Change("S2", "S3", 2); // another market's S2
    Change("S1", "S3", 2); // another market's S1
    const auto waiting = [](const std::string& from)
    {
        return LogLine(10, "CompositeSubscriptionMgr::ChangeSymbol: waitingResponses=0 oldSymbol=\"" + from +
                               "\" newSymbol=\"S3\" marketId=2");
    };
    EXPECT_EQ(bench.events.Take(), (Events{waiting("S2"), waiting("S1")}));
    EXPECT_EQ(bench.Access().SymbolChanges().at(1).at("S1"), "S2");
    EXPECT_TRUE(bench.Access().SymbolChanges().at(2).empty());
}

TEST_F(SymbolChangeRedirect, AsksTheSubscriptionsInTheOrderOfTheirMap)
{
    for (std::uint32_t i = 1; i <= 6; ++i)
    {
        SubscribeWithDepth("OLD", i, static_cast<std::int32_t>(i));
    }
    Change("OLD", "NEW");
    std::vector<std::int32_t> inMapOrder;
    for (const auto& [id, subscription] : bench.Access().Subscriptions())
    {
        inMapOrder.push_back(subscription->GetMergedScope().depth);
    }
    EXPECT_EQ(GetDepths("OLD"), inMapOrder);
}

TEST_F(SymbolChangeRedirect, ResubscribesInTheOrderOfTheResponses)
{
    for (std::uint32_t i = 1; i <= 6; ++i)
    {
        SubscribeWithDepth("OLD", i, static_cast<std::int32_t>(i));
    }
    Change("OLD", "NEW");
    // Any other order than the map's and that of the answers shows which one is followed.
    auto& responses = bench.Access().SymbolChangeResponses().at(1).at("OLD").responses;
    std::rotate(responses.begin(), responses.begin() + 2, responses.end());
    Events expected{Resubscribing("OLD", "NEW")};
    for (const std::int32_t depth : GetDepths("OLD"))
    {
        expected.push_back(SubscribedWithDepth("NEW", depth));
    }
    bench.events.Clear();
    while (bench.zel->AnswerUnsubscribe("OLD"))
    {
    }
    EXPECT_EQ(Take(), expected);
}

TEST_F(SymbolChangeRedirect, StopsWithoutAWordWhenNobodyAwaitsTheAnswer)
{
    const CompositeInstrumentDef def = Subscribe("OLD");
    Change("OLD", "NEW");
    bench.Access().SymbolChangeResponses().at(1).clear();
    bench.events.Clear();
    bench.zel->AnswerUnsubscribe("OLD");
    EXPECT_EQ(Take(), Events{});
    EXPECT_EQ(bench.Access().SymbolChanges().at(1).at("OLD"), "NEW"); // left alone
    EXPECT_TRUE(bench.Access().SymbolChangeResponses().at(1).empty());
    EXPECT_EQ(Live(def)->GetSymbol(), "OLD");
}

TEST_F(SymbolChangeRedirect, StopsWithoutAWordWhenNobodyAwaitsAnAnswerInTheWholeMarket)
{
    Subscribe("OLD");
    Change("OLD", "NEW");
    bench.Access().SymbolChangeResponses().clear();
    bench.events.Clear();
    bench.zel->AnswerUnsubscribe("OLD");
    EXPECT_EQ(Take(), Events{});
    EXPECT_TRUE(bench.Access().SymbolChangeResponses().empty()); // looked up, not made
}

TEST_F(SymbolChangeRedirect, SubscribesTheNewSymbolWithTheProviderThatWasChosenMeanwhile)
{
    bench.zel->Directory().AddMarket(1);
    bench.mds->Directory().AddMarket(1);
    const CompositeInstrumentDef def = Subscribe("OLD");
    Change("OLD", "NEW");
    bench.List(*bench.mds, def);
    bench.CompleteDirectories();
    bench.events.Clear();
    {
        const QueueThreadScope scope(&bench.queue.Get());
        bench.manager->CheckProviderPendingSubscriptions();
    }
    // Unsubscribed already: there is nothing to switch yet.
    EXPECT_EQ(Take(), Events{LogLine(10, "MonitorPendingSymbols: marketId=1 submarketId=-1 symbol=\"OLD\" "
                                         "finalProvider=1")});
    EXPECT_EQ(bench.manager->GetSubscriptionCounts(), (std::pair<std::uint64_t, std::uint64_t>{0, 1}));
    bench.zel->AnswerUnsubscribe("OLD");
    EXPECT_EQ(Take(), (Events{Resubscribing("OLD", "NEW"),
                              "mds.Subscribe NEW component=0 depth=5 interval=0 trades=0 customFields=0"}));
    EXPECT_EQ(Live(def)->GetState().provider, 1);
    EXPECT_EQ(Live(def)->GetState().symbol, "NEW");
    EXPECT_EQ(bench.zel->GetListenerCount("OLD") + bench.zel->GetListenerCount("NEW"), 0U);
}

TEST_F(SymbolChangeRedirect, GoesByTheSymbolNowSubscribedNotByTheDefinitions)
{
    bench.zel->unsubscribeAnswer = ScriptedProvider::UnsubscribeAnswer::Ok;
    const CompositeInstrumentDef def = Subscribe("OLD");
    Change("OLD", "NEW");
    bench.events.Clear();
    Change("OLD", "ELSEWHERE"); // nobody bears it any more
    EXPECT_EQ(Take(), Events{Waiting(0, "OLD", "ELSEWHERE")});
    Change("NEW", "NEWER");
    EXPECT_EQ(Take(), (Events{"zel.Unsubscribe NEW", Waiting(1, "NEW", "NEWER"), Resubscribing("NEW", "NEWER"),
                              Subscribed("NEWER")}));
    EXPECT_EQ(Live(def)->GetSymbol(), "NEWER");
}
