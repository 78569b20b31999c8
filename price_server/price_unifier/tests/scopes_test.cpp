#include "testing/manager_bench.h"

#include "price_unifier/source/composite_instrument_subscription.h"

#include <gtest/gtest.h>

using namespace ps_ns;
using namespace ps_ns::testing;

namespace
{

using Events = std::vector<std::string>;

constexpr const char* kScope5 = "depth=5 interval=0 trades=0 customFields=0";
constexpr const char* kScope9 = "depth=9 interval=0 trades=0 customFields=0";

class DirectScopes : public ::testing::Test
{
protected:
    DirectScopes()
    {
        handle = bench.manager->Subscribe(def, {5, 0, false, false}, observer, 1).first;
        bench.Run();
        bench.zel->Answer("X");
        bench.zel->SendImage("X", {{BookSideType::Bid, "10", "1"}});
        bench.Run();
        bench.events.Clear();
    }
    Events Take()
    {
        bench.Run();
        return bench.events.Take();
    }
    std::string Line(int level, const std::string& operation, const std::string& rest) const
    {
        return LogLine(level, std::string(level == 10 ? "SPLUNK_IGNORE | " : "") +
                                  "CompositeSubscriptionMgr: " + operation + " request for instrument " +
                                  def.ToString() + " handle=1 (observer=A)" + rest);
    }
    std::string MissingLine(const std::string& operation) const
    {
        return LogLine(20, "CompositeSubscriptionMgr: " + operation + " request for instrument " + def.ToString() +
                               " (observer=A) failed - there is no subscription");
    }
    CompositeInstrumentSubscription& Live() { return *bench.Access().Subscriptions().at(CompositeInstrumentID(def)); }
    /// Takes the subscription away under the handle.
    void TakeDown()
    {
        bench.manager->OnUnsubscribeCompositeSubscription(&Live(), def);
        bench.Access().Subscriptions().clear();
        bench.Run();
        bench.events.Clear();
    }

    ManagerBench bench;
    const CompositeInstrumentDef def = MakeDef("X");
    const std::shared_ptr<RecordingObserver> observer = bench.MakeObserver("A");
    unsigned long handle = 0;
};

} // namespace

TEST_F(DirectScopes, AddsAScopeInsideTheMergedOneWithoutRetargeting)
{
    EXPECT_TRUE(bench.manager->AddScope(handle, {3, 0, false, false}, 2));
    EXPECT_EQ(Take(),
              Events{Line(10, "AddScope", std::string(" executed. No changes to SubscriptionInfo ") + kScope5)});
}

TEST_F(DirectScopes, RetargetsAfterTheLineForAWiderScopeWithoutAnObserverCallbackOfTheManager)
{
    EXPECT_TRUE(bench.manager->AddScope(handle, {9, 0, false, false}, 2));
    bench.queue.RunAll();
    EXPECT_EQ(bench.events.Take(), (Events{Line(10, "AddScope",
                                                std::string(" executed. PreviousSubscriptionInfo ") + kScope5 +
                                                    " NewSubscriptionInfo " + kScope9),
                                           std::string("zel.ChangeScope X ") + kScope9}));
}

TEST_F(DirectScopes, AdjustsASentinelDepth)
{
    bench.manager->AddScope(handle, {-1, 0, false, false}, 2);
    bench.queue.RunAll();
    EXPECT_EQ(Live().GetMergedScope().depth, 20);
    bench.manager->ChangeScope(handle, {-2, 0, false, false}, 2, false);
    bench.queue.RunAll();
    EXPECT_EQ(Live().GetMergedScope().depth, 5);
}

TEST_F(DirectScopes, AdjustsTheSentinelDepthsOfTheOnlyScopeWhenItIsChanged)
{
    const auto scope = [](int depth)
    { return "depth=" + std::to_string(depth) + " interval=0 trades=0 customFields=0"; };
    const auto changed = [&](int from, int to)
    {
        return Events{Line(10, "ChangeScope",
                           " executed. PreviousSubscriptionInfo " + scope(from) + " NewSubscriptionInfo " + scope(to)),
                      "zel.ChangeScope X " + scope(to)};
    };
    bench.manager->ChangeScope(handle, {-1, 0, false, false}, 1, false);
    bench.queue.RunAll();
    EXPECT_EQ(bench.events.Take(), changed(5, 20));
    bench.manager->ChangeScope(handle, {-2, 0, false, false}, 1, false);
    bench.queue.RunAll();
    EXPECT_EQ(bench.events.Take(), changed(20, 5));
}

TEST_F(DirectScopes, RefusesAnIdThatIsTaken)
{
    EXPECT_TRUE(bench.manager->AddScope(handle, {9, 0, true, true}, 1));
    EXPECT_EQ(Take(), (Events{"A.OnAddScope X handle=1 result=23 @queue",
                              Line(20, "AddScope", " failed - duplicate subscription_id=1")}));
    EXPECT_EQ(Live().GetMergedScope(), (CompositeSubscriptionInfo{5, 0, false, false}));
}

TEST_F(DirectScopes, RemovesAScopeAndRetargetsWhenTheMergedOneShrinks)
{
    bench.manager->AddScope(handle, {9, 0, false, false}, 2);
    bench.Run();
    bench.events.Clear();
    EXPECT_TRUE(bench.manager->RemoveScope(handle, 2));
    bench.queue.RunAll();
    EXPECT_EQ(bench.events.Take(), (Events{Line(10, "RemoveScope",
                                                std::string(" executed. PreviousSubscriptionInfo ") + kScope9 +
                                                    " NewSubscriptionInfo " + kScope5),
                                           std::string("zel.ChangeScope X ") + kScope5}));
}

TEST_F(DirectScopes, KeepsTheSubscriptionAndItsMergedScopeWhenTheLastScopeIsRemoved)
{
    EXPECT_TRUE(bench.manager->RemoveScope(handle, 1));
    EXPECT_EQ(Take(),
              Events{Line(10, "RemoveScope", std::string(" executed. No changes to SubscriptionInfo ") + kScope5)});
    EXPECT_FALSE(Live().HasIndividualSubscriptions());
    EXPECT_EQ(Live().GetMergedScope().depth, 5);
    EXPECT_TRUE(bench.manager->AddScope(handle, {9, 0, false, false}, 4));
    bench.Run();
    EXPECT_EQ(Live().GetMergedScope().depth, 9);
}

TEST_F(DirectScopes, ReportsAnUnknownIdToARemoveAndAChange)
{
    EXPECT_TRUE(bench.manager->RemoveScope(handle, 8));
    EXPECT_TRUE(bench.manager->ChangeScope(handle, {9, 0, false, false}, 8, true));
    EXPECT_EQ(Take(), (Events{"A.OnRemoveScope X handle=1 result=24 @queue",
                              Line(20, "RemoveScope", " failed - unknown subscription_id=8"),
                              "A.OnChangeScope X handle=1 result=24 @queue",
                              Line(20, "ChangeScope", " failed - unknown subscription_id=8")}));
}

TEST_F(DirectScopes, GeneratesASnapshotOnAnUnchangedChangeOnlyWhenAskedTo)
{
    EXPECT_TRUE(bench.manager->ChangeScope(handle, {5, 0, false, false}, 1, false));
    EXPECT_EQ(Take(),
              Events{Line(10, "ChangeScope", std::string(" executed. No changes to SubscriptionInfo ") + kScope5)});
    EXPECT_TRUE(bench.manager->ChangeScope(handle, {5, 0, false, false}, 1, true));
    EXPECT_EQ(Take(), (Events{Line(10, "ChangeScope",
                                   std::string(" executed. No changes to SubscriptionInfo ") + kScope5 +
                                       " Generating a snapshot"),
                              "A.OnOrderBook X 10x1+0 |  @executor"}));
    EXPECT_EQ(observer->books.back()->snapshotReason, 110U);
}

TEST_F(DirectScopes, RetargetsOnlyWhenAChangeAltersTheMergedScopeEvenIfASnapshotIsAskedFor)
{
    EXPECT_TRUE(bench.manager->ChangeScope(handle, {9, 0, false, false}, 1, true));
    EXPECT_EQ(Take(), (Events{Line(10, "ChangeScope",
                                   std::string(" executed. PreviousSubscriptionInfo ") + kScope5 +
                                       " NewSubscriptionInfo " + kScope9),
                              std::string("zel.ChangeScope X ") + kScope9, "A.OnOrderBook X 10x1+0 |  @executor"}));
    EXPECT_EQ(observer->books.back()->snapshotReason, 0U);
}

TEST_F(DirectScopes, ReportAMissingSubscriptionByALineThatNamesNoHandle)
{
    TakeDown();
    EXPECT_TRUE(bench.manager->AddScope(handle, {}, 2));
    EXPECT_TRUE(bench.manager->ChangeScope(handle, {}, 1, true));
    EXPECT_TRUE(bench.manager->RemoveScope(handle, 1));
    EXPECT_EQ(Take(), (Events{"A.OnAddScope X handle=1 result=13 @queue", MissingLine("AddScope"),
                              "A.OnChangeScope X handle=1 result=13 @queue", MissingLine("ChangeScope"),
                              "A.OnRemoveScope X handle=1 result=13 @queue", MissingLine("RemoveScope")}));
}

TEST_F(DirectScopes, AnswerFalseForAHandleThatWasNeverGivenOut)
{
    EXPECT_FALSE(bench.manager->AddScope(99, {}, 1));
    EXPECT_FALSE(bench.manager->RemoveScope(99, 1));
    EXPECT_FALSE(bench.manager->ChangeScope(99, {}, 1, true));
    const auto line = [](const std::string& operation)
    {
        return LogLine(20, "CompositeSubscriptionMgr: " + operation +
                               " request for instrument  handle=99 failed - there is no subscription");
    };
    EXPECT_EQ(Take(), (Events{line("AddScope"), line("RemoveScope"), line("ChangeScope")}));
}

TEST_F(DirectScopes, DoTheirWorkWhateverTheMinimumLevel)
{
    zel::logging::g_minLogLevel = 31;
    bench.manager->AddScope(handle, {9, 0, false, false}, 2);
    bench.manager->RemoveScope(handle, 77);
    EXPECT_EQ(Take(), (Events{std::string("zel.ChangeScope X ") + kScope9,
                              "A.OnRemoveScope X handle=1 result=24 @queue", "A.OnOrderBook X 10x1+0 |  @executor"}));
}

namespace
{

class FlexibleScopes : public ::testing::Test
{
protected:
    void Join(const std::shared_ptr<RecordingFlexibleObserver>& client, unsigned long id,
              const CompositeSubscriptionInfo& info)
    {
        bench.manager->Subscribe(def, info, bench.factory, client, id);
        bench.Run();
        bench.events.Clear();
    }
    void Change(const std::shared_ptr<RecordingFlexibleObserver>& client, unsigned long id,
                const CompositeSubscriptionInfo& info, bool generateSnapshot = false)
    {
        bench.manager->ChangeScope(def, info, client, id, generateSnapshot);
    }
    Events Take()
    {
        bench.Run();
        return bench.events.Take();
    }
    std::string Line(int level, const std::string& rest) const
    {
        return LogLine(level, std::string(level == 10 ? "SPLUNK_IGNORE | " : "") +
                                  "CompositeSubscriptionMgr: ChangeScope request for instrument " + def.ToString() +
                                  rest);
    }

    ManagerBench bench;
    const CompositeInstrumentDef def = MakeDef("X");
    const std::shared_ptr<RecordingFlexibleObserver> first = bench.MakeFlexibleObserver("F");
    const std::shared_ptr<RecordingFlexibleObserver> second = bench.MakeFlexibleObserver("G");
};

} // namespace

TEST_F(FlexibleScopes, RetargetWhenTheMergedScopeChanges)
{
    Join(first, 1, {5, 0, false, false});
    Change(first, 1, {9, 0, false, false}, true);
    EXPECT_EQ(Take(), (Events{Line(10, std::string(" (observer=F) executed. PreviousSubscriptionInfo ") + kScope5 +
                                           " NewSubscriptionInfo " + kScope9),
                              std::string("zel.ChangeScope X ") + kScope9}));
}

TEST_F(FlexibleScopes, GenerateASnapshotForAnUnchangedMergedScopeWhenAskedTo)
{
    Join(first, 1, {5, 0, false, false});
    Join(second, 2, {2, 0, false, false});
    bench.zel->Answer("X");
    bench.zel->SendImage("X", {{BookSideType::Bid, "10", "1"}, {BookSideType::Bid, "9", "1"}});
    bench.Run();
    bench.events.Clear();
    Change(second, 2, {1, 0, false, false}, true);
    EXPECT_EQ(Take(), (Events{Line(10, std::string(" (observer=G) executed. No changes to SubscriptionInfo ") +
                                           kScope5 + " Generating a snapshot"),
                              "G.OnOrderBook id=2 X 10x1+0 |  @executor"}));
    Change(second, 2, {2, 0, false, false}, false);
    EXPECT_EQ(Take(),
              Events{Line(10, std::string(" (observer=G) executed. No changes to SubscriptionInfo ") + kScope5)});
}

TEST_F(FlexibleScopes, RetargetToTheMergedScopeNotToTheRequest)
{
    Join(first, 1, {5, 0, true, false});
    Join(second, 2, {9, 0, false, false});
    Change(second, 2, {7, 0, false, false});
    EXPECT_EQ(Take(), (Events{Line(10, " (observer=G) executed. PreviousSubscriptionInfo depth=9 interval=0 trades=1 "
                                       "customFields=0 NewSubscriptionInfo depth=7 interval=0 trades=1 customFields=0"),
                              "zel.ChangeScope X depth=7 interval=0 trades=1 customFields=0"}));
}

TEST_F(FlexibleScopes, AdjustTheSentinelDepthsToTheMarkets)
{
    Join(first, 1, {7, 0, false, false});
    const auto changed = [&](int from, int to)
    {
        const auto scope = [](int depth)
        { return "depth=" + std::to_string(depth) + " interval=0 trades=0 customFields=0"; };
        return Events{Line(10, " (observer=F) executed. PreviousSubscriptionInfo " + scope(from) +
                                   " NewSubscriptionInfo " + scope(to)),
                      "zel.ChangeScope X " + scope(to)};
    };
    Change(first, 1, {-2, 0, false, false});
    EXPECT_EQ(Take(), changed(7, 5));
    Change(first, 1, {-1, 0, false, false});
    EXPECT_EQ(Take(), changed(5, 20));
    CompositeInstrumentSubscription::ScopeEntry scope;
    ASSERT_TRUE(bench.Access().Subscriptions().at(CompositeInstrumentID(def))->GetScope(1, scope));
    EXPECT_EQ(std::get<0>(scope).depth, 20);
}

TEST_F(FlexibleScopes, ReportAMissingSubscriptionOnTheQueueThread)
{
    Change(first, 1, {});
    EXPECT_EQ(Take(), (Events{"F.OnChangeScope id=1 X result=13 @queue",
                              Line(20, " (observer=F) failed - there is no subscription")}));
}

TEST_F(FlexibleScopes, ReportAnUnknownIdOnTheExecutor)
{
    Join(first, 1, {5, 0, false, false});
    Change(first, 4, {});
    EXPECT_EQ(Take(), (Events{Line(20, " subscriptionID=4 failed - unknown subscription_id=4"),
                              "F.OnChangeScope id=4 X result=24 @executor"}));
}

TEST_F(FlexibleScopes, LeaveTheScopeOfAnotherObserverUntouched)
{
    Join(first, 1, {5, 0, false, false});
    Change(second, 1, {9, 0, true, true});
    EXPECT_EQ(Take(),
              (Events{Line(20, " subscriptionID=1 failed - a different flexibleObserver was used when subscribing"),
                      "G.OnChangeScope id=1 X result=24 @executor"}));
    CompositeInstrumentSubscription::ScopeEntry scope;
    ASSERT_TRUE(bench.Access().Subscriptions().at(CompositeInstrumentID(def))->GetScope(1, scope));
    EXPECT_EQ(std::get<0>(scope), (CompositeSubscriptionInfo{5, 0, false, false}));
}

TEST_F(FlexibleScopes, SendASyntheticToTheSyntheticPathOnly)
{
    bench.manager->ChangeScope(MakeSyntheticDef("S"), {}, first, 1, true);
    EXPECT_EQ(Take(), Events{});
}

TEST_F(FlexibleScopes, SendASyntheticToTheSyntheticPathEvenIfItsIdentityIsFiled)
{
    const CompositeInstrumentDef synthetic = MakeSyntheticDef("S");
    Join(first, 1, {5, 0, false, false});
    auto* const live = bench.Access().Subscriptions().at(CompositeInstrumentID(def));
    bench.Access().FileSubscription(synthetic, live);
    bench.manager->ChangeScope(synthetic, {9, 0, true, true}, first, 1, true);
    bench.manager->ChangeScope(synthetic, {9, 0, true, true}, second, 7, true); // would be told 24
    EXPECT_EQ(Take(), Events{});
    EXPECT_EQ(live->GetMergedScope(), (CompositeSubscriptionInfo{5, 0, false, false}));
}
