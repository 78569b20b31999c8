#include "testing/manager_bench.h"

#include "base/queue_thread.h"
#include "price_unifier/source/composite_instrument_subscription.h"

#include <gtest/gtest.h>

using namespace ps_ns;
using namespace ps_ns::testing;

namespace
{

using Events = std::vector<std::string>;

class ProviderSelection : public ::testing::Test
{
protected:
    ProviderSelection()
    {
        bench.zel->Directory().AddMarket(1);
        bench.mds->Directory().AddMarket(1);
        other.attrC = 9;
    }

    void Subscribe(const CompositeInstrumentDef& instrument)
    {
        bench.manager->Subscribe(instrument, {}, bench.MakeObserver("A"), 7);
        bench.Run();
        bench.events.Clear();
    }
    void Check()
    {
        const QueueThreadScope scope(&bench.queue.Get());
        bench.manager->CheckProviderPendingSubscriptions();
    }
    void DecideForMds()
    {
        bench.List(*bench.mds, def);
        bench.CompleteDirectories();
    }
    double Zel() { return bench.manager->SubscriptionGaugeInstance(ProviderType::Zel).Get(); }
    double Mds() { return bench.manager->SubscriptionGaugeInstance(ProviderType::Mds).Get(); }
    double Pending() { return bench.manager->SubscriptionPendingGaugeInstance().Get(); }
    CompositeInstrumentSubscription* Live(const CompositeInstrumentDef& instrument)
    {
        return bench.Access().Subscriptions().at(CompositeInstrumentID(instrument));
    }
    static std::string DecisionLine(const std::string& symbol, int provider)
    {
        return LogLine(10, "MonitorPendingSymbols: marketId=1 submarketId=-1 symbol=\"" + symbol +
                               "\" finalProvider=" + std::to_string(provider));
    }

    ManagerBench bench;
    const CompositeInstrumentDef def = MakeDef("X");
    CompositeInstrumentDef other = MakeDef("X"); ///< another identity of the same symbol
};

} // namespace

TEST_F(ProviderSelection, CountsSymbolsNotSubscriptionsAsPending)
{
    Subscribe(def);
    Subscribe(other);
    ASSERT_EQ(bench.Access().PendingProvider().size(), 1U);
    EXPECT_EQ(bench.Access().PendingProvider().begin()->second,
              (std::vector<CompositeInstrumentSubscription*>{Live(def), Live(other)}));
    EXPECT_EQ(Pending(), 1);
    EXPECT_EQ(Zel(), 2);
    Subscribe(MakeDef("Y"));
    EXPECT_EQ(Pending(), 2);
}

TEST_F(ProviderSelection, FilesTheSamePointerTwiceWhenAskedTo)
{
    Subscribe(def);
    const QueueThreadScope scope(&bench.queue.Get());
    bench.Access().AddPendingSubscription(def, Live(def));
    EXPECT_EQ(bench.Access().PendingProvider().begin()->second.size(), 2U);
    EXPECT_EQ(Pending(), 1);
}

TEST_F(ProviderSelection, SwitchesAllSubscriptionsOfASymbolToMdsInTheOrderInWhichTheyCame)
{
    Subscribe(def);
    Subscribe(other);
    DecideForMds();
    Check();
    EXPECT_EQ(bench.events.Take(), (Events{
                                       DecisionLine("X", 1),
                                       "zel.Unsubscribe X",
                                       "mds.Subscribe X component=0 depth=5 interval=0 trades=0 customFields=0",
                                       "zel.Unsubscribe X",
                                       "mds.Subscribe X component=0 depth=5 interval=0 trades=0 customFields=0",
                                   }));
    EXPECT_EQ(Zel(), 0);
    EXPECT_EQ(Mds(), 2);
    EXPECT_EQ(Pending(), 0);
    EXPECT_TRUE(bench.Access().PendingProvider().empty());
    EXPECT_EQ(Live(def)->GetProviderType(), ProviderType::Mds);
}

TEST_F(ProviderSelection, LeavesSubscriptionsWithZelWhenThatIsFinal)
{
    Subscribe(def);
    bench.CompleteDirectories(); // neither knows the symbol
    Check();
    EXPECT_EQ(bench.events.Take(), Events{DecisionLine("X", 0)});
    EXPECT_EQ(Zel(), 1);
    EXPECT_EQ(Mds(), 0);
    EXPECT_EQ(Pending(), 0);
    EXPECT_TRUE(bench.Access().PendingProvider().empty());
}

TEST_F(ProviderSelection, ChangesNothingNotEvenThePendingGaugeWhileNothingIsFinal)
{
    Subscribe(def);
    bench.manager->SubscriptionPendingGaugeInstance().Set(42);
    Check();
    EXPECT_EQ(bench.events.Take(), Events{});
    EXPECT_EQ(Pending(), 42);
    EXPECT_EQ(bench.Access().PendingProvider().size(), 1U);
}

TEST_F(ProviderSelection, GoesOnPastWhatIsUndecidedAndCountsWhatIsLeft)
{
    Subscribe(def);
    Subscribe(MakeDef("Y"));
    bench.List(*bench.mds, def); // MDS knows X: decided, whatever else is still being read
    Check();
    EXPECT_EQ(bench.events.Filter("log"), Events{DecisionLine("X", 1)});
    EXPECT_EQ(Pending(), 1);
    EXPECT_EQ(Zel(), 1);
    EXPECT_EQ(Mds(), 1);
}

TEST_F(ProviderSelection, DoesNothingWithoutPendingSymbols)
{
    Check();
    EXPECT_EQ(bench.events.Take(), Events{});
    EXPECT_EQ(Pending(), 0);
}

TEST_F(ProviderSelection, TakesTheGaugeDownFromMdsWhenASwitchedSubscriptionIsUnsubscribed)
{
    Subscribe(def);
    DecideForMds();
    Check();
    EXPECT_TRUE(bench.manager->Unsubscribe(1));
    bench.Run();
    EXPECT_EQ(Zel(), 0);
    EXPECT_EQ(Mds(), 0);
    EXPECT_EQ(bench.simple->GetRegistry().GetSize(), 0U);
}

TEST_F(ProviderSelection, ParksASubscriptionAfterUnsubscribingItsComponents)
{
    Subscribe(def);
    CompositeInstrumentSubscription* const subscription = Live(def);
    bench.zel->unsubscribeAnswer = ScriptedProvider::UnsubscribeAnswer::Later;
    const QueueThreadScope scope(&bench.queue.Get());
    bench.Access().UnsubscribeAndMarkPending(def);
    EXPECT_EQ(bench.events.Take(), Events{"zel.Unsubscribe X"});
    EXPECT_TRUE(bench.Access().Subscriptions().empty());
    ASSERT_EQ(bench.Access().PendingDelete().size(), 1U);
    EXPECT_EQ(bench.Access().PendingDelete().begin()->first, subscription);
    EXPECT_EQ(bench.Access().PendingDelete().begin()->second, CompositeInstrumentID(def));
    bench.zel->AnswerUnsubscribe("X");
}

TEST_F(ProviderSelection, KeepsTheFirstEntryWhenASubscriptionIsParkedTwice)
{
    Subscribe(def);
    CompositeInstrumentSubscription* const subscription = Live(def);
    bench.zel->unsubscribeAnswer = ScriptedProvider::UnsubscribeAnswer::Later;
    const QueueThreadScope scope(&bench.queue.Get());
    bench.Access().UnsubscribeAndMarkPending(def);
    bench.Access().FileSubscription(other, subscription);
    bench.events.Clear();
    bench.Access().UnsubscribeAndMarkPending(other);
    std::ostringstream address;
    address << static_cast<const void*>(subscription);
    EXPECT_EQ(bench.events.Take(),
              Events{LogLine(20, "CompositeSubscriptionMgr: failed to add " + other.ToString() +
                                     " composite_id=" + address.str() + " already in pending delete list")});
    EXPECT_EQ(bench.Access().PendingDelete().begin()->second, CompositeInstrumentID(def));
    EXPECT_TRUE(bench.Access().Subscriptions().empty());
    bench.zel->AnswerUnsubscribe("X");
}

#ifndef NDEBUG
TEST(ProviderSelectionDeathTest, ChecksOnTheQueueThreadOnly)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    ManagerBench bench;
    EXPECT_DEATH(bench.manager->CheckProviderPendingSubscriptions(), "called on another thread");
}
#endif
