#include "price_delivery_fixture.h"

#include "base/queue_thread.h"

using namespace ps_ns;
using namespace ps_ns::testing;
using namespace std::chrono_literals;
using ps_messages_ns::SubscriptionResult;

TEST_F(PriceDeliveryTest, DeliversOneMergedBookForEachChangeOnTheExecutor)
{
    Start();
    bench->zel->SendImage("X", {{kBid, "10", "2"}, {kAsk, "11", "3"}});
    bench->zel->SendImage("IM_X", {{kBid, "10", "1"}});
    bench->zel->SendChange("X", {{kBid, "10", "0"}, {kBid, "9", "4"}});
    EXPECT_EQ(Delivered(), (Events{
                               "A.OnOrderBook X 10x2+0 | 11x3+0 @executor",
                               "A.OnOrderBook X 10x2+1 | 11x3+0 @executor",
                               "A.OnOrderBook X 10x0+1 9x4+0 | 11x3+0 @executor",
                           }));
    EXPECT_EQ(observer->books[0]->missingComponents,
              std::unordered_set<CompositeComponentType::Type>{CompositeComponentType::Implied});
    EXPECT_TRUE(observer->books[1]->missingComponents.empty());
    EXPECT_EQ(observer->books[2]->sequence, 3U);
}

TEST_F(PriceDeliveryTest, IgnoresChangesUntilTheImageIsThere)
{
    Start();
    bench->zel->SendChange("X", {{kBid, "10", "2"}});
    EXPECT_EQ(Delivered(), Events{});
    EXPECT_FALSE(Live().AnySnapshotsReceived());
    bench->zel->SendImage("X", {{kBid, "9", "1"}});
    EXPECT_EQ(Delivered(), Events{"A.OnOrderBook X 9x1+0 |  @executor"});
    EXPECT_TRUE(Live().AnySnapshotsReceived());
}

TEST_F(PriceDeliveryTest, IgnoresChangesOfAnEpochThatItsImageHasNotOpened)
{
    Start();
    bench->zel->SendImage("X", {{kBid, "10", "2"}});
    bench->zel->NextEpoch();
    bench->zel->SendChange("X", {{kBid, "8", "2"}});
    bench->zel->SendImage("X", {{kBid, "9", "1"}});
    EXPECT_EQ(Delivered(), (Events{"A.OnOrderBook X 10x2+0 |  @executor", "A.OnOrderBook X 9x1+0 |  @executor"}));
}

TEST_F(PriceDeliveryTest, CutsTheBookToTheScopesDepth)
{
    Start({}, {2, 0, false, false});
    bench->zel->SendImage("X", {{kAsk, "11", "1"}, {kAsk, "12", "1"}, {kAsk, "13", "1"}});
    EXPECT_EQ(Delivered(), Events{"A.OnOrderBook X  | 11x1+0 12x1+0 @executor"});
}

TEST_F(PriceDeliveryTest, DeliversTradesAndCustomFieldsOnlyToAScopeThatAsksForThem)
{
    Start();
    bench->zel->SendTrade("X", "10.5", "2");
    bench->zel->SendCustomFields("X");
    bench->zel->SendImage("X", {});
    EXPECT_EQ(Delivered(), (Events{"A.OnTrades X 10.5x2 @executor", "A.OnCustomFields X @executor",
                                   "A.OnOrderBook X  |  @executor"}));
    EXPECT_EQ(observer->books.back()->lastTradePrice, 10.5);

    Start({}, {5, 0, false, false});
    bench->zel->SendTrade("X", "10.5", "2");
    bench->zel->SendCustomFields("X");
    EXPECT_EQ(Delivered(), Events{});
}

TEST_F(PriceDeliveryTest, RepeatsAnUnchangedBookUnlessConfiguredToSkipIt)
{
    const std::vector<ScriptedProvider::Level> levels{{kBid, "10", "2"}};
    Start();
    bench->zel->SendImage("X", levels);
    bench->zel->SendImage("X", levels);
    EXPECT_EQ(Delivered().size(), 2U);

    ManagerBench::Options options;
    options.configuration = R"(<PriceServer><General SkipUnchangedSnapshots="yes"/></PriceServer>)";
    Start(options);
    bench->zel->SendImage("X", levels);
    bench->zel->SendImage("X", levels);
    bench->zel->SendChange("X", {{kAsk, "99", "0"}});
    EXPECT_EQ(Delivered(), Events{"A.OnOrderBook X 10x2+0 |  @executor"});
}

TEST_F(PriceDeliveryTest, HoldsAnEmptiedBookBackForTheMarketsIntervalAndForgetsItWhenItFillsAgain)
{
    ManagerBench::Options options;
    options.emptySuppressInterval_ms = 100;
    Start(options, {5, 0, false, false}, 2);
    bench->zel->SendImage("X", {{kBid, "10", "2"}});
    bench->zel->SendChange("X", {{kBid, "10", "0"}});
    EXPECT_EQ(Delivered(), Events{"A.OnOrderBook X 10x2+0 |  @executor"});
    bench->time.Advance(60ms);
    bench->zel->SendChange("X", {{kBid, "9", "1"}});
    EXPECT_EQ(Delivered(), Events{"A.OnOrderBook X 9x1+0 |  @executor"});
    bench->time.Advance(200ms);
    EXPECT_EQ(Delivered(), Events{});

    bench->zel->SendChange("X", {{kBid, "9", "0"}});
    EXPECT_EQ(Delivered(), Events{});
    bench->time.Advance(99ms);
    EXPECT_EQ(Delivered(), Events{});
    bench->time.Advance(1ms);
    EXPECT_EQ(Delivered(), Events{"A.OnOrderBook X  |  @executor"});
}

TEST_F(PriceDeliveryTest, ConflatesToTheNewestBookOfTheInterval)
{
    Start({}, {5, 100, true, false});
    bench->zel->SendImage("X", {{kBid, "10", "1"}});
    bench->zel->SendChange("X", {{kBid, "10", "2"}});
    bench->zel->SendTrade("X", "10", "1"); // never conflated
    bench->zel->SendChange("X", {{kBid, "10", "3"}});
    EXPECT_EQ(Delivered(), (Events{"A.OnOrderBook X 10x1+0 |  @executor", "A.OnTrades X 10x1 @executor"}));
    bench->time.Advance(99ms);
    EXPECT_EQ(Delivered(), Events{});
    bench->time.Advance(1ms);
    EXPECT_EQ(Delivered(), Events{"A.OnOrderBook X 10x3+0 |  @executor"});
    EXPECT_EQ(observer->books.back()->sequence, 3U); // the gap says what was left out
    bench->time.Advance(500ms);
    EXPECT_EQ(Delivered(), Events{});
    bench->zel->SendChange("X", {{kBid, "10", "4"}});
    EXPECT_EQ(Delivered(), Events{"A.OnOrderBook X 10x4+0 |  @executor"});
}

TEST_F(PriceDeliveryTest, ShowsNoGhostLevelAndNoGapWhenTheProviderIsSwitched)
{
    Start();
    bench->zel->SendImage("X", {{kBid, "10", "2"}, {kBid, "9", "5"}});
    bench->Run();
    bench->events.Clear();
    bench->zel->unsubscribeAnswer = ScriptedProvider::UnsubscribeAnswer::Later;
    bench->zel->SendChange("X", {{kBid, "9.5", "1"}}); // under way when the switch comes
    {
        const QueueThreadScope scope(&bench->queue.Get());
        Live().SwitchProvider(CompositeComponentType::Direct, ProviderType::Mds);
    }
    EXPECT_EQ(bench->events.Take(),
              (Events{"zel.Unsubscribe X", "mds.Subscribe X component=0 depth=5 interval=0 trades=1 customFields=1"}));
    bench->mds->Answer("X");
    bench->mds->SendChange("X", {{kBid, "7", "1"}}); // before its image: not taken in
    EXPECT_EQ(Delivered(), Events{}); // nothing of the old provider any more, and the same answer is not told twice
    bench->mds->SendImage("X", {{kBid, "10", "3"}});
    EXPECT_EQ(Delivered(), Events{"A.OnOrderBook X 10x3+0 |  @executor"});
    EXPECT_GT(observer->books.back()->epoch, observer->books.front()->epoch);
    bench->zel->AnswerUnsubscribe("X");
}

TEST_F(PriceDeliveryTest, KeepsTheEpochOfWhatItShowsWhileTheImagesAfterASwitchAreAwaited)
{
    Start();
    bench->zel->SendImage("X", {{kBid, "10", "2"}});
    bench->Run();
    const std::uint64_t epoch = observer->books.back()->epoch;
    EXPECT_GT(epoch, 0U);
    {
        const QueueThreadScope scope(&bench->queue.Get());
        Live().SwitchProvider(CompositeComponentType::Direct, ProviderType::Mds);
    }
    bench->manager->AddScope(handle, {7, 0, false, false}, 2); // a book of the new depth
    bench->Run();
    ASSERT_EQ(observer->books.size(), 2U);
    EXPECT_EQ(FormatBook(*observer->books.back()), "10x2+0 | ");
    EXPECT_EQ(observer->books.back()->epoch, epoch);
    bench->mds->Answer("X", SubscriptionResult::DirectSubscriptionFailed); // nothing to show any more
    bench->Run();
    ASSERT_EQ(observer->books.size(), 3U);
    EXPECT_EQ(observer->books.back()->epoch, epoch);
}

TEST_F(PriceDeliveryTest, GivesUpADirectSubscriptionWithItsHandleAndDeliversNothingMore)
{
    Start();
    bench->zel->unsubscribeAnswer = ScriptedProvider::UnsubscribeAnswer::Later;
    bench->zel->SendImage("X", {{kBid, "10", "2"}}); // posted, and not delivered yet
    EXPECT_TRUE(bench->manager->Unsubscribe(handle));
    bench->queue.RunAll();
    EXPECT_EQ(Delivered(),
              (Events{
                  LogLine(10, "SPLUNK_IGNORE | CompositeSubscriptionMgr: Unsubscribe request for instrument " +
                                  def.ToString() +
                                  " handle=1 (observer=A) executed. instrument_callbacks books=0 trades=0 "
                                  "customFields=0"),
                  "zel.Unsubscribe X",
                  "zel.Unsubscribe IM_X",
              }));
    EXPECT_EQ(bench->simple->GetRegistry().GetSize(), 1U);
    bench->zel->AnswerUnsubscribe("X");
    bench->Run();
    EXPECT_EQ(bench->simple->GetRegistry().GetSize(), 1U);
    bench->zel->AnswerUnsubscribe("IM_X", false);
    bench->Run();
    EXPECT_EQ(bench->simple->GetRegistry().GetSize(), 0U);
    EXPECT_TRUE(bench->Access().PendingDelete().empty());
}

TEST_F(PriceDeliveryTest, EndsEvenIfTheProviderThrowsOrDropsTheUnsubscribe)
{
    Start();
    bench->zel->unsubscribeAnswer = ScriptedProvider::UnsubscribeAnswer::Throw;
    bench->manager->Unsubscribe(handle);
    bench->Run();
    EXPECT_EQ(bench->events.Filter("log 30").size(), 2U);
    EXPECT_EQ(bench->simple->GetRegistry().GetSize(), 0U);

    Start();
    bench->zel->unsubscribeAnswer = ScriptedProvider::UnsubscribeAnswer::Later;
    bench->manager->Unsubscribe(handle);
    bench->Run();
    bench->zel->DropUnsubscribes();
    bench->Run();
    EXPECT_EQ(bench->simple->GetRegistry().GetSize(), 0U);
}

TEST_F(PriceDeliveryTest, CountsAndTimesItsCallbacks)
{
    Start();
    bench->zel->SendImage("X", {});
    bench->zel->SendTrade("X", "1", "1");
    bench->zel->SendTrade("X", "1", "1");
    bench->Run();
    EXPECT_EQ(Live().GetCountsAsString(), "books=1 trades=2 customFields=0");
    EXPECT_EQ(bench->manager->GetSnapshotCallbackTime().count.load(), 1U);
    EXPECT_EQ(bench->manager->GetTradesCallbackTime().count.load(), 2U);
    EXPECT_GT(bench->manager->GetTradesCallbackTime().total.load(), 0U);
}

TEST_F(PriceDeliveryTest, CountsTheCallbacksOfEachFlexibleClientAndTimesThemTogether)
{
    Start();
    const std::vector<CompositeSubscriptionInfo> scopes{
        {5, 0, false, false}, {3, 0, false, false}, {5, 1000, false, false}};
    std::vector<std::shared_ptr<RecordingFlexibleObserver>> clients;
    for (std::size_t i = 0; i < scopes.size(); ++i)
    {
        clients.push_back(bench->MakeFlexibleObserver("F" + std::to_string(i)));
        bench->manager->Subscribe(def, scopes[i], bench->factory, clients.back(), 10 + i);
    }
    bench->Run();
    bench->zel->SendImage("X", {{kBid, "10", "1"}});
    bench->Run();
    EXPECT_EQ(Live().GetCountsAsString(), "books=4 trades=0 customFields=0") << "the own observer's and three";
    EXPECT_EQ(bench->manager->GetSnapshotCallbackTime().count.load(), 1U) << "one change: one duration";
    bench->zel->SendTrade("X", "1", "1");
    bench->Run();
    EXPECT_EQ(Live().GetCountsAsString(), "books=4 trades=1 customFields=0") << "no client wants trades";
    EXPECT_EQ(bench->manager->GetTradesCallbackTime().count.load(), 1U);
}

TEST_F(PriceDeliveryTest, RetargetsTheProvidersAndSendsABookOfTheNewDepth)
{
    Start({}, {1, 0, false, false});
    bench->zel->SendImage("X", {{kBid, "10", "1"}, {kBid, "9", "1"}});
    bench->Run();
    bench->events.Clear();
    EXPECT_TRUE(bench->manager->ChangeScope(handle, {2, 0, false, false}, 1, false));
    EXPECT_EQ(
        Delivered(),
        (Events{
            LogLine(10, "SPLUNK_IGNORE | CompositeSubscriptionMgr: ChangeScope request for instrument " +
                            def.ToString() +
                            " handle=1 (observer=A) executed. PreviousSubscriptionInfo depth=1 interval=0 trades=0 "
                            "customFields=0 NewSubscriptionInfo depth=2 interval=0 trades=0 customFields=0"),
            "zel.ChangeScope X depth=2 interval=0 trades=0 customFields=0",
            "zel.ChangeScope IM_X depth=2 interval=0 trades=0 customFields=0",
            "A.OnOrderBook X 10x1+0 9x1+0 |  @executor",
        }));
}

TEST_F(PriceDeliveryTest, HoldsAnEmptiedBookBackAlsoFromAChangedScopeAndASnapshot)
{
    ManagerBench::Options options;
    options.emptySuppressInterval_ms = 100;
    Start(options, {5, 0, false, false}, 2);
    bench->zel->SendImage("X", {{kBid, "10", "2"}});
    bench->zel->SendChange("X", {{kBid, "10", "0"}});
    bench->Run();
    bench->events.Clear();
    bench->manager->ChangeScope(handle, {5, 0, false, false}, 1, true);
    bench->Run();
    EXPECT_EQ(bench->events.Filter("A."), Events{"A.OnOrderBook X 10x2+0 |  @executor"}); // as it was last published
    bench->events.Clear();
    bench->manager->ChangeScope(handle, {7, 0, false, false}, 1, false);
    bench->Run();
    EXPECT_EQ(bench->events.Filter("A."), Events{});
    bench->time.Advance(100ms);
    bench->Run();
    EXPECT_EQ(bench->events.Filter("A."), Events{"A.OnOrderBook X  |  @executor"});
}

TEST_F(PriceDeliveryTest, KeepsABookThatWaitsForTheOwnObserverWhenTheScopeChangesWhileAnEmptyOneIsHeldBack)
{
    ManagerBench::Options options;
    options.configuration = R"(<PriceServer><General SkipUnchangedSnapshots="1"/></PriceServer>)";
    options.emptySuppressInterval_ms = 1000;
    Start(options, {5, 100, false, false}, 2);
    bench->zel->SendImage("X", {{kBid, "10", "1"}});
    bench->zel->SendChange("X", {{kBid, "10", "2"}}); // waits
    bench->zel->SendChange("X", {{kBid, "10", "0"}}); // held back
    bench->Run();
    bench->manager->ChangeScope(handle, {4, 100, false, false}, 1, false);
    bench->Run();
    bench->zel->SendChange("X", {{kBid, "10", "2"}}); // as before: nothing has changed
    bench->Run();
    bench->time.Advance(5s);
    bench->Run();
    EXPECT_EQ(bench->events.Filter("A."),
              (Events{"A.OnOrderBook X 10x1+0 |  @executor", "A.OnOrderBook X 10x2+0 |  @executor"}));
}

TEST_F(PriceDeliveryTest, SkipsABookThatIsBackToWhatWasDeliveredWhenItsIntervalEnds)
{
    ManagerBench::Options options;
    options.configuration = R"(<PriceServer><General SkipUnchangedSnapshots="1"/></PriceServer>)";
    Start(options, {5, 100, false, false});
    bench->zel->SendImage("X", {{kBid, "10", "1"}});
    bench->zel->SendChange("X", {{kBid, "10", "2"}});
    bench->zel->SendChange("X", {{kBid, "10", "1"}});
    bench->Run();
    bench->events.Clear();
    bench->time.Advance(500ms);
    EXPECT_EQ(Delivered(), Events{});
}

TEST_F(PriceDeliveryTest, ReportsAComponentThatNobodyServesYetAsFailedAndAsServedWhenItIs)
{
    ManagerBench::Options options;
    options.withZel = false;
    bench.reset();
    bench = std::make_unique<ManagerBench>(options);
    def = MakeDef("X");
    bench->mds->Directory().AddMarket(1); // being read
    bench->manager->Subscribe(def, {5, 0, false, false}, bench->MakeObserver("A"), 1);
    bench->Run();
    EXPECT_EQ(bench->events.Filter("A."), Events{"A.OnSubscribe X result=17 component=0 @executor"});
    bench->List(*bench->mds, def);
    bench->CompleteDirectories();
    {
        const QueueThreadScope scope(&bench->queue.Get());
        bench->manager->CheckProviderPendingSubscriptions();
    }
    bench->mds->Answer("X");
    bench->Run();
    EXPECT_EQ(bench->events.Filter("A.").back(), "A.OnSubscribe X result=0 component=0 @executor");
}
