#include "testing/manager_bench.h"

#include "base/queue_thread.h"
#include "price_unifier/source/composite_instrument_subscription.h"

#include <gtest/gtest.h>

#include <iterator>
#include <stdexcept>

using namespace ps_ns;
using namespace ps_ns::testing;
using ps_messages_ns::SubscriptionResult;

namespace
{

using Events = std::vector<std::string>;

/// What meets a switch to MDS: late answers of the provider that was left, an end that is under way, failures.
class ProviderSwitch : public ::testing::Test
{
protected:
    ProviderSwitch()
    {
        bench.zel->Directory().AddMarket(1);
        bench.mds->Directory().AddMarket(1);
        bench.zel->unsubscribeAnswer = ScriptedProvider::UnsubscribeAnswer::Later;
        other.attrC = 9;
    }

    unsigned long Subscribe(const CompositeInstrumentDef& instrument, std::int32_t depth = 5)
    {
        const unsigned long handle = bench.manager->Subscribe(instrument, {depth, 0, false, false}, observer, 7).first;
        bench.Run();
        bench.events.Clear();
        return handle;
    }
    void DecideForMds()
    {
        bench.List(*bench.mds, def);
        bench.CompleteDirectories();
    }
    void Check()
    {
        const QueueThreadScope scope(&bench.queue.Get());
        bench.manager->CheckProviderPendingSubscriptions();
    }
    CompositeInstrumentSubscription* Live(const CompositeInstrumentDef& instrument)
    {
        return bench.Access().Subscriptions().at(CompositeInstrumentID(instrument));
    }
    double Zel() { return bench.manager->SubscriptionGaugeInstance(ProviderType::Zel).Get(); }
    double Mds() { return bench.manager->SubscriptionGaugeInstance(ProviderType::Mds).Get(); }
    double Pending() { return bench.manager->SubscriptionPendingGaugeInstance().Get(); }
    static std::string DecisionLine()
    {
        return LogLine(10, "MonitorPendingSymbols: marketId=1 submarketId=-1 symbol=\"X\" finalProvider=1");
    }
    static std::string Subscribed(int depth = 5)
    {
        return "mds.Subscribe X component=0 depth=" + std::to_string(depth) + " interval=0 trades=0 customFields=0";
    }

    ManagerBench bench;
    const CompositeInstrumentDef def = MakeDef("X");
    CompositeInstrumentDef other = MakeDef("X"); ///< another identity of the same symbol
    const std::shared_ptr<RecordingObserver> observer = bench.MakeObserver("A");
};

} // namespace

TEST_F(ProviderSwitch, DoesNotLetALateAnswerOfTheOldProviderReplaceTheNewOnes)
{
    Subscribe(def);
    DecideForMds();
    Check();
    PriceFormat newFormat;
    newFormat.denominator = 100;
    bench.mds->Answer("X", SubscriptionResult::Success, newFormat);
    bench.Run();
    ASSERT_EQ(bench.events.Filter("A."), Events{"A.OnSubscribe X result=0 component=0 @executor"});
    bench.events.Clear();

    const auto late = bench.zel->GetUnsubscribing("X");
    ASSERT_EQ(late.size(), 1U);
    PriceFormat oldFormat;
    oldFormat.denominator = 7;
    late.front()->OnSubscribed(SubscriptionResult::DirectSubscriptionFailed, oldFormat);
    bench.Run();
    EXPECT_EQ(bench.events.Take(), Events{});

    // Who joins now is replayed the new provider's answer.
    const auto joiner = bench.MakeFlexibleObserver("F");
    bench.manager->Subscribe(def, {5, 0, false, false}, bench.factory, joiner, 2);
    bench.Run();
    EXPECT_EQ(bench.events.Filter("F."), Events{"F.OnSubscribe id=2 X result=0 component=0 @executor"});
    EXPECT_EQ(joiner->lastFormat, newFormat);
    EXPECT_EQ(joiner->lastState.provider, 1);
    EXPECT_EQ(joiner->lastState.epoch, 2U);
}

TEST_F(ProviderSwitch, DoesNotLetALateAnswerOfTheOldProviderStandInForTheNewOnes)
{
    Subscribe(def);
    DecideForMds();
    Check();
    bench.events.Clear();
    bench.zel->GetUnsubscribing("X").front()->OnSubscribed(SubscriptionResult::Success, {});
    bench.Run();
    EXPECT_EQ(bench.events.Take(), Events{});
    const auto joiner = bench.MakeFlexibleObserver("F");
    bench.manager->Subscribe(def, {5, 0, false, false}, bench.factory, joiner, 2);
    bench.Run();
    EXPECT_TRUE(bench.events.Filter("F.").empty()); // nobody has answered yet
}

TEST_F(ProviderSwitch, IsHarmlessForASubscriptionWhoseComponentsAreUnsubscribed)
{
    const unsigned long handle = Subscribe(def);
    bench.manager->Unsubscribe(handle);
    bench.Run();
    ASSERT_EQ(bench.Access().PendingDelete().size(), 1U);
    ASSERT_EQ(bench.Access().PendingProvider().size(), 1U);
    bench.events.Clear();
    DecideForMds();
    Check();
    EXPECT_EQ(bench.events.Take(), Events{DecisionLine()}); // nothing is subscribed
    EXPECT_EQ(bench.Access().PendingDelete().begin()->first->GetProviderType(), ProviderType::Zel);
    EXPECT_TRUE(bench.zel->AnswerUnsubscribe("X"));
    bench.Run();
    EXPECT_EQ(bench.simple->GetRegistry().GetSize(), 0U);
    EXPECT_EQ(bench.mds->GetListenerCount("X"), 0U);
}

TEST_F(ProviderSwitch, GoesThroughTheSubscriptionsOfASymbolInTheOrderInWhichTheyCame)
{
    Subscribe(other, 3);
    Subscribe(def, 4);
    DecideForMds();
    Check();
    EXPECT_EQ(bench.events.Take(),
              (Events{DecisionLine(), "zel.Unsubscribe X", Subscribed(3), "zel.Unsubscribe X", Subscribed(4)}));
}

TEST_F(ProviderSwitch, ThatThrowsEndsTheCheckAndLeavesTheSymbolPendingForTheNextOne)
{
    Subscribe(def, 3);
    Subscribe(other, 4);
    DecideForMds();
    bench.mds->Returns("X", 0);
    bench.mds->Throws("X", [] { throw std::runtime_error("thrown by the provider"); });
    EXPECT_THROW(Check(), std::runtime_error);
    // The first one is switched; nothing has been counted, and nothing erased.
    EXPECT_EQ(bench.events.Take(),
              (Events{DecisionLine(), "zel.Unsubscribe X", Subscribed(3), "zel.Unsubscribe X", Subscribed(4)}));
    EXPECT_EQ(bench.mds->GetListenerCount("X"), 1U);
    EXPECT_EQ(bench.Access().PendingProvider().at(PendingSubscriptionID(def)).size(), 2U);
    EXPECT_EQ(Zel(), 2);
    EXPECT_EQ(Mds(), 0);
    EXPECT_EQ(Pending(), 1);

    Check();
    EXPECT_EQ(bench.events.Take(), (Events{DecisionLine(), Subscribed(4)}));
    EXPECT_EQ(Zel(), 0);
    EXPECT_EQ(Mds(), 2);
    EXPECT_EQ(Pending(), 0);
    EXPECT_TRUE(bench.Access().PendingProvider().empty());
}

TEST_F(ProviderSwitch, ThatThrowsLeavesThePendingGaugeAsItWasBeforeTheCheck)
{
    Subscribe(def);
    Subscribe(MakeDef("Y"));
    bench.List(*bench.mds, MakeDef("Y"));
    DecideForMds();
    // The walk has its own order: the symbol that it meets last throws.
    const auto first = bench.Access().PendingProvider().begin();
    const std::string ended = first->first.symbol;
    const std::string left = std::next(first)->first.symbol;
    bench.mds->Throws(left, [] { throw std::runtime_error("thrown by the provider"); });
    EXPECT_THROW(Check(), std::runtime_error);
    ASSERT_EQ(bench.Access().PendingProvider().size(), 1U);
    EXPECT_EQ(bench.Access().PendingProvider().begin()->first.symbol, left);
    EXPECT_EQ(bench.mds->GetListenerCount(ended), 1U);
    EXPECT_EQ(Zel(), 1); // the first one is counted
    EXPECT_EQ(Mds(), 1);
    EXPECT_EQ(Pending(), 2); // set behind the walk, which did not get there
}

TEST_F(ProviderSwitch, IsNotKeptFromASymbolByOthersThatAreUndecided)
{
    for (const char* const symbol : {"A", "B", "C", "D", "E", "F"})
    {
        const CompositeInstrumentDef decided = MakeDef(symbol);
        Subscribe(decided);
        Subscribe(MakeDef(std::string("UNDECIDED") + symbol));
        bench.List(*bench.mds, decided);
    }
    Check();
    EXPECT_EQ(bench.Access().PendingProvider().size(), 6U);
    for (const auto& [key, subscriptions] : bench.Access().PendingProvider())
    {
        EXPECT_TRUE(key.symbol.starts_with("UNDECIDED")) << key.symbol;
        EXPECT_EQ(subscriptions.size(), 1U);
    }
    EXPECT_EQ(Zel(), 6);
    EXPECT_EQ(Mds(), 6);
    EXPECT_EQ(Pending(), 6);
}
