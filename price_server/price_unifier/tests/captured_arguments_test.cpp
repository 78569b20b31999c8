#include "price_unifier/source/composite_instrument_subscription.h"
#include "price_unifier/source/notifications.h"
#include "testing/manager_bench.h"

#include <gtest/gtest.h>

using namespace ps_ns;
using namespace ps_ns::testing;
using ps_messages_ns::SubscriptionResult;

namespace
{

using Events = std::vector<std::string>;

/// A request takes its arguments by value: here the caller turns each of them into something else as soon as the
/// request has returned, before its action runs.
class CapturedArguments : public ::testing::Test
{
protected:
    /// The instrument with a direct client A, handle and id 1.
    void SubscribeDirect()
    {
        bench.manager->Subscribe(MakeDef("X"), {5, 0, false, false}, bench.MakeObserver("A"), 1);
        bench.Run();
        bench.events.Clear();
    }
    /// The instrument with a flexible client, the one in `flexible`, id 1.
    void SubscribeFlexible()
    {
        bench.manager->Subscribe(MakeDef("X"), {5, 0, false, false}, bench.factory, flexible, 1);
        bench.Run();
        bench.events.Clear();
    }
    /// The arguments, and what the manager itself keeps for the handle.
    void Spoil()
    {
        def = MakeDef("SPOILT", 2);
        info = {77, 77, true, true};
        observer = bench.MakeObserver("SPOILT");
        flexible = bench.MakeFlexibleObserver("SPOILT");
        for (auto& [handle, client] : bench.Access().SubscriptionByHandle())
        {
            client = {def, observer};
        }
    }
    Events RunSpoilt()
    {
        Spoil();
        bench.Run();
        return bench.events.Take();
    }
    std::string Line(int level, const std::string& operation, const std::string& rest) const
    {
        return LogLine(level, std::string(level == 10 ? "SPLUNK_IGNORE | " : "") + "CompositeSubscriptionMgr: " +
                                  operation + " request for instrument " + MakeDef("X").ToString() + rest);
    }
    CompositeInstrumentSubscription& Live()
    {
        return *bench.Access().Subscriptions().at(CompositeInstrumentID(MakeDef("X")));
    }

    ManagerBench bench;
    CompositeInstrumentDef def = MakeDef("X");
    CompositeSubscriptionInfo info{3, 0, false, false};
    std::shared_ptr<ICompositePriceObserver> observer = bench.MakeObserver("A");
    std::shared_ptr<IFlexiblePriceObserver> flexible = bench.MakeFlexibleObserver("F");
};

constexpr const char* kScope3 = "depth=3 interval=0 trades=0 customFields=0";
constexpr const char* kScope5 = "depth=5 interval=0 trades=0 customFields=0";
constexpr const char* kScope9 = "depth=9 interval=0 trades=0 customFields=0";

} // namespace

TEST_F(CapturedArguments, OfADirectSubscribeAreCopies)
{
    bench.manager->Subscribe(def, info, observer, 7);
    EXPECT_EQ(RunSpoilt(),
              (Events{Line(10, "Subscribe",
                           std::string(" handle=1 (observer=A) compositeSubscriptionInfo ") + kScope3 + " executed"),
                      std::string("zel.Subscribe X component=0 ") + kScope3}));
    bench.zel->Answer("X");
    bench.Run();
    EXPECT_EQ(bench.events.Take(), Events{"A.OnSubscribe X result=0 component=0 @executor"});
}

TEST_F(CapturedArguments, OfALegsSubscribeAreCopies)
{
    bench.manager->SyntheticLegSubscribe(4, def, info, observer, 7);
    EXPECT_EQ(RunSpoilt(),
              (Events{Line(10, "Subscribe",
                           std::string(" handle=1 (observer=A) compositeSubscriptionInfo ") + kScope3 + " executed"),
                      std::string("zel.Subscribe X component=0 ") + kScope3}));
}

TEST_F(CapturedArguments, OfAFlexibleSubscribeAreCopiesButForTheFactory)
{
    bench.manager->Subscribe(def, info, bench.factory, flexible, 7);
    // A copy of the factory would not be the recording one any more.
    EXPECT_EQ(RunSpoilt(),
              (Events{"factory.CreateLocalObserver X @queue",
                      Line(10, "Subscribe",
                           std::string(" subscriptionID=7 compositeSubscriptionInfo ") + kScope3 + " executed"),
                      std::string("zel.Subscribe X component=0 ") + kScope3}));
    bench.zel->Answer("X");
    bench.Run();
    EXPECT_EQ(bench.events.Filter("F."), Events{"F.OnSubscribe id=7 X result=0 component=0 @executor"});
}

TEST_F(CapturedArguments, OfAFlexibleUnsubscribeAreCopies)
{
    SubscribeFlexible();
    bench.manager->Unsubscribe(def, flexible, 1);
    EXPECT_EQ(RunSpoilt(),
              (Events{Line(10, "Unsubscribe",
                           std::string(" subscriptionID=1 executed. No changes to SubscriptionInfo ") + kScope5),
                      Line(10, "Unsubscribe",
                           " subscriptionID=1 executed.  No scope remaining. instrument_callbacks books=0 trades=0 "
                           "customFields=0"),
                      "zel.Unsubscribe X"}));
}

TEST_F(CapturedArguments, OfAFlexibleChangeOfScopeAreCopies)
{
    SubscribeFlexible();
    bench.manager->ChangeScope(def, info, flexible, 1, false);
    EXPECT_EQ(RunSpoilt(), (Events{Line(10, "ChangeScope",
                                        std::string(" (observer=F) executed. PreviousSubscriptionInfo ") + kScope5 +
                                            " NewSubscriptionInfo " + kScope3),
                                   std::string("zel.ChangeScope X ") + kScope3}));
}

TEST_F(CapturedArguments, OfAddScopeAreCopiesThoughTheHandleIsSomebodyElsesByThen)
{
    SubscribeDirect();
    info.depth = 9;
    EXPECT_TRUE(bench.manager->AddScope(1, info, 2));
    EXPECT_EQ(RunSpoilt(), (Events{Line(10, "AddScope",
                                        std::string(" handle=1 (observer=A) executed. PreviousSubscriptionInfo ") +
                                            kScope5 + " NewSubscriptionInfo " + kScope9),
                                   std::string("zel.ChangeScope X ") + kScope9}));
}

TEST_F(CapturedArguments, OfRemoveScopeAreCopiesThoughTheHandleIsSomebodyElsesByThen)
{
    SubscribeDirect();
    EXPECT_TRUE(bench.manager->RemoveScope(1, 8));
    EXPECT_EQ(RunSpoilt(),
              (Events{"A.OnRemoveScope X handle=1 result=24 @queue",
                      Line(20, "RemoveScope", " handle=1 (observer=A) failed - unknown subscription_id=8")}));
}

TEST_F(CapturedArguments, OfChangeScopeAreCopiesThoughTheHandleIsSomebodyElsesByThen)
{
    SubscribeDirect();
    EXPECT_TRUE(bench.manager->ChangeScope(1, info, 1, false));
    EXPECT_EQ(RunSpoilt(), (Events{Line(10, "ChangeScope",
                                        std::string(" handle=1 (observer=A) executed. PreviousSubscriptionInfo ") +
                                            kScope5 + " NewSubscriptionInfo " + kScope3),
                                   std::string("zel.ChangeScope X ") + kScope3}));
}

TEST_F(CapturedArguments, OfTheWorkersBehindTheHandlesAreCopies)
{
    SubscribeDirect();
    const auto client = flexible;
    auto access = bench.Access();
    access.AddScopeImpl(def, observer, 31, info, 2, flexible);
    access.ChangeScopeImpl(def, observer, 32, info, 2, false);
    access.RemoveScopeImpl(def, observer, 33, 99);
    const auto unchanged = [](int handle) {
        return " handle=" + std::to_string(handle) + " (observer=A) executed. No changes to SubscriptionInfo " +
               kScope5;
    };
    EXPECT_EQ(RunSpoilt(),
              (Events{Line(10, "AddScope", unchanged(31)), Line(10, "ChangeScope", unchanged(32)),
                      "A.OnRemoveScope X handle=33 result=24 @queue",
                      Line(20, "RemoveScope", " handle=33 (observer=A) failed - unknown subscription_id=99")}));
    CompositeInstrumentSubscription::ScopeEntry scope;
    ASSERT_TRUE(Live().GetScope(2, scope));
    EXPECT_EQ(std::get<1>(scope), client);
    EXPECT_EQ(std::get<0>(scope), (CompositeSubscriptionInfo{3, 0, false, false}));
}

TEST_F(CapturedArguments, OfADirectUnsubscribeAreCopies)
{
    SubscribeDirect();
    bench.Access().UnsubscribeImpl(def, observer, 44);
    EXPECT_EQ(RunSpoilt(), (Events{Line(10, "Unsubscribe",
                                        " handle=44 (observer=A) executed. instrument_callbacks books=0 trades=0 "
                                        "customFields=0"),
                                   "zel.Unsubscribe X"}));
}

TEST_F(CapturedArguments, OfAnUnsubscribeOfAHandleAreCopiesOfWhatWasFiled)
{
    SubscribeDirect();
    EXPECT_TRUE(bench.manager->Unsubscribe(1));
    EXPECT_EQ(RunSpoilt(), (Events{Line(10, "Unsubscribe",
                                        " handle=1 (observer=A) executed. instrument_callbacks books=0 trades=0 "
                                        "customFields=0"),
                                   "zel.Unsubscribe X"}));
}

TEST_F(CapturedArguments, OfATeardownAreCopies)
{
    bench.manager->OnUnsubscribeCompositeSubscription(nullptr, def);
    const Events events = RunSpoilt();
    ASSERT_EQ(events.size(), 1U);
    EXPECT_TRUE(
        events[0].starts_with(LogLine(20, "OnUnsubscribeCompositeSubscription: couldn't find subscription for " +
                                              MakeDef("X").ToString() + " composite_id=")))
        << events[0];
}

TEST_F(CapturedArguments, OfASymbolChangeAreCopiesUntilItsLastAnswer)
{
    SubscribeDirect();
    bench.zel->unsubscribeAnswer = ScriptedProvider::UnsubscribeAnswer::Later;
    std::string from = "X";
    std::string to = "a new symbol that is too long for a short string";
    bench.manager->ChangeSymbol(1, from, to);
    from = "SPOILT";
    to = "another symbol that is spoilt as soon as it can be";
    const std::string tail = R"(oldSymbol="X" newSymbol="a new symbol that is too long for a short string" marketId=1)";
    EXPECT_EQ(RunSpoilt(), (Events{"zel.Unsubscribe X",
                                   LogLine(10, "CompositeSubscriptionMgr::ChangeSymbol: waitingResponses=1 " + tail)}));
    bench.zel->AnswerUnsubscribe("X", false);
    EXPECT_EQ(RunSpoilt(), Events{LogLine(30, "CompositeSubscriptionMgr::ChangeSymbol: at least one Unsubscribe "
                                              "failed! Cannot resubscribe. " +
                                                  tail)});
}

TEST_F(CapturedArguments, OfASyntheticsCompletionAreCopies)
{
    bench.manager->OnSyntheticUnsubscribeComplete(6, def);
    EXPECT_EQ(RunSpoilt(), Events{LogLine(20, 0,
                                          "CompositeSubscriptionMgr: UnifierSynthetic. OnSyntheticUnsubscribeComplete. "
                                          "cdef " +
                                              MakeDef("X").ToStringShortCached() + " handle=6 not found")});
}

TEST_F(CapturedArguments, OfRaisedReportsAreCopies)
{
    struct Executing
    {
        void RunViaExecutor(std::function<void()> task) { tasks.push_back(std::move(task)); }
        std::vector<std::function<void()>> tasks;
    } subscription;
    const auto client = bench.MakeFlexibleObserver("F");
    flexible = client;
    CompositeSubscriptionState state;
    state.epoch = 4;
    PriceFormat format;
    format.denominator = 7;
    RaiseOnSubscribe(&subscription, flexible, 1, def, EventInfo{}, SubscriptionResult::Success, 0, format,
                     CompositeComponentType::Implied, state);
    RaiseOnChangeScope(&subscription, flexible, 2, def, SubscriptionResult::NoSubscription);
    RaiseOnUnsubscribe(&subscription, flexible, 3, def, SubscriptionResult::UnknownSubscriptionId,
                       CompositeComponentType::Direct, state);
    state.epoch = 99;
    format.denominator = 99;
    Spoil();
    subscription.tasks.at(0)();
    EXPECT_EQ(client->lastFormat.denominator, 7U);
    EXPECT_EQ(client->lastState.epoch, 4U);
    subscription.tasks.at(1)();
    client->lastState.epoch = 0;
    subscription.tasks.at(2)();
    EXPECT_EQ(client->lastState.epoch, 4U);
    EXPECT_EQ(bench.events.Take(),
              (Events{"F.OnSubscribe id=1 X result=0 component=1 @caller", "F.OnChangeScope id=2 X result=13 @caller",
                      "F.OnUnsubscribe id=3 X result=24 component=0 @caller"}));
}
