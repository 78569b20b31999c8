/// What a provider takes from there.

#include "zel_last_values_bench.h"

#include <algorithm>
#include <numeric>

namespace ps_ns
{
namespace
{

using namespace testing_ns;
using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(ZelLastValues, ListInstrumentsAndShowStaleBooksWhileThePublisherIsAway)
{
    LateBench late;
    const auto early = late.bench.Subscribe("B", SubscribeStatus::Pending);
    late.StartProvider();
    EXPECT_TRUE(late.bench.provider->GetDirectory().IsComplete(1));
    EXPECT_EQ(late.bench.provider->GetDirectory().GetSize(), 3U);
    EXPECT_THAT(early->GetCalls(), ElementsAre("subscribed 0", "stale", "image"));
    EXPECT_EQ(early->PrintBook(), "20x1 | 21x2");
    EXPECT_TRUE(early->IsStale());

    const auto a = late.bench.Subscribe("A");
    a->KeepUpdates();
    const auto c = late.bench.Subscribe("C");
    late.bench.Pass(200ms);
    EXPECT_EQ(a->PrintBook(), "10x1 9x3 |");
    EXPECT_TRUE(a->IsStale());
    const auto updates = a->TakeUpdates();
    ASSERT_EQ(updates.size(), 1U);
    EXPECT_TRUE(updates[0]->isStale);
    EXPECT_TRUE(updates[0]->isImage);
    EXPECT_THAT(c->GetCalls(), ElementsAre("subscribed 0", "stale")) << "there never was a book";
    EXPECT_EQ(late.bench.provider->GetCounts().lastValues, 2U);
    EXPECT_EQ(late.bench.provider->GetCounts().live, 0U);
    EXPECT_EQ(late.bench.provider->GetState(), ZelState::Lost);
}

TEST(ZelLastValues, AreGivenToASecondListenerToo)
{
    LateBench late;
    late.StartProvider();
    const auto first = late.bench.Subscribe("A");
    late.bench.Pass(200ms);
    const auto second = late.bench.Subscribe("A");
    EXPECT_THAT(second->GetCalls(), ElementsAre("subscribed 0", "stale", "image"));
    EXPECT_EQ(second->PrintBook(), first->PrintBook());
}

TEST(ZelLastValues, AreReplacedByTheLivePublishersImages)
{
    LateBench late;
    late.StartProvider();
    const auto listener = late.bench.Subscribe("A");
    listener->KeepUpdates();
    late.bench.Pass(200ms);
    ASSERT_EQ(listener->PrintBook(), "10x1 9x3 |");
    late.bench.Publish(0, false, {Bid("9", "0"), Bid("8", "1")}); // without a connection
    late.bench.publisherTransport->SetCut(false);
    late.bench.Pass(500ms);
    EXPECT_EQ(listener->PrintBook(), "10x1 8x1 |");
    EXPECT_FALSE(listener->IsStale());
    EXPECT_FALSE(listener->TakeUpdates().back()->isStale);
    EXPECT_EQ(listener->GetOrderFaults(), 0U);
    EXPECT_EQ(late.bench.provider->GetState(), ZelState::Running);
    EXPECT_EQ(late.bench.provider->GetCounts().lastValues, 1U);
}

TEST(ZelLastValues, AreReplacedInTheSameEpochToo)
{
    LateBench late;
    late.bench.providerTransport->SetCut(true);
    late.StartProvider();
    late.bench.providerTransport->SetCut(false);
    late.bench.Pass(1s);
    const auto listener = late.bench.Subscribe("A");
    late.bench.Pass(200ms);
    ASSERT_TRUE(listener->IsStale());
    ASSERT_EQ(listener->PrintBook(), "10x1 9x3 |");
    // The publisher was only silent: it goes on in its epoch.
    late.bench.publisherTransport->SetCut(false);
    late.bench.Pass(500ms);
    EXPECT_FALSE(listener->IsStale());
    late.bench.Publish(0, false, {Bid("10", "0")});
    late.bench.Settle();
    EXPECT_EQ(listener->PrintBook(), "9x3 |");
    EXPECT_EQ(listener->GetOrderFaults(), 0U);
}

TEST(ZelLastValues, AreNotAskedForWhileThePublisherIsHeard)
{
    KeepingBench test;
    test.bench.Start();
    test.bench.Publish(0, true, {Bid("10", "1")});
    const auto listener = test.bench.Subscribe("A");
    test.bench.Pass(5s);
    EXPECT_FALSE(listener->IsStale());
    const std::size_t questions = test.bench.broker.lastValueQuestions;
    test.bench.Subscribe("B");
    test.bench.Pass(2s);
    EXPECT_EQ(test.bench.broker.lastValueQuestions - questions, 0U)
        << "market N, which nobody publishes, has been asked";
    EXPECT_EQ(test.bench.provider->GetCounts().lastValues, 0U);
}

TEST(ZelLastValues, NeverReplaceANewerBookWhichIsShownInstead)
{
    KeepingBench test;
    test.bench.Start();
    test.bench.Publish(0, true, {Bid("10", "1")});
    const auto listener = test.bench.Subscribe("A");
    test.bench.Pass(200ms);
    test.bench.Publish(0, false, {Bid("11", "5")}); // is not put there any more
    test.bench.broker.Deliver();
    ASSERT_EQ(listener->PrintBook(), "11x5 10x1 |");
    ASSERT_EQ(ReadHeader(test.Kept("A"))->sequence, 1U);
    test.KillPublisher();
    test.bench.Pass(2s);
    EXPECT_TRUE(listener->IsStale());
    EXPECT_EQ(listener->PrintBook(), "11x5 10x1 |");
    EXPECT_EQ(test.bench.provider->GetCounts().lastValues, 0U);
    const auto second = test.bench.Subscribe("A");
    EXPECT_THAT(second->GetCalls(), ElementsAre("subscribed 0", "stale", "image"));
    EXPECT_EQ(second->PrintBook(), "11x5 10x1 |");
}

TEST(ZelLastValues, ReplaceABookThatAnOutageHasMadeOlder)
{
    KeepingBench test;
    test.bench.Start();
    test.bench.Publish(0, true, {Bid("10", "1")});
    const auto listener = test.bench.Subscribe("A");
    test.bench.Pass(200ms);
    test.bench.providerTransport->SetCut(true);
    test.bench.Publish(0, false, {Bid("11", "5")});
    test.PublishFor(3s);
    test.KillPublisher();
    test.bench.providerTransport->SetCut(false);
    test.bench.Pass(1s);
    EXPECT_EQ(listener->PrintBook(), "11x5 10x1 |");
    EXPECT_TRUE(listener->IsStale());
    EXPECT_EQ(listener->GetOrderFaults(), 0U);
}

TEST(ZelLastValues, AreRefusedAndCountedWhenTheyAreDamaged)
{
    LateBench late;
    late.Kept("A").resize(late.Kept("A").size() - 1);
    late.Kept("B")[0] = std::byte{99};
    late.StartProvider();
    const auto a = late.bench.Subscribe("A");
    const auto b = late.bench.Subscribe("B");
    late.bench.Pass(1s);
    EXPECT_THAT(a->GetCalls(), ElementsAre("subscribed 0", "stale"));
    EXPECT_THAT(b->GetCalls(), ElementsAre("subscribed 0", "stale"));
    EXPECT_EQ(late.bench.provider->GetCounts().refused, 2U) << "once each: it is not asked for again";
}

TEST(ZelLastValues, AreRefusedWhenTheDirectoryIsDamaged)
{
    LateBench late;
    late.Kept("").pop_back();
    late.StartProvider();
    EXPECT_FALSE(late.bench.provider->GetDirectory().IsComplete(1));
    EXPECT_EQ(late.bench.provider->GetCounts().refused, 1U);
    late.bench.publisherTransport->SetCut(false);
    late.bench.Pass(500ms);
    EXPECT_TRUE(late.bench.provider->GetDirectory().IsComplete(1)) << "the living one counts";
}

TEST(ZelLastValues, AreNotTakenWhenTheyAreNewerThanTheDirectory)
{
    LateBench late;
    late.Kept("A")[15] = std::byte{0x7f}; // the epoch's highest byte
    late.StartProvider();
    const auto listener = late.bench.Subscribe("A");
    late.bench.Pass(500ms);
    EXPECT_THAT(listener->GetCalls(), ElementsAre("subscribed 0", "stale"));
    EXPECT_EQ(late.bench.provider->GetCounts().refused, 0U);
}

TEST(ZelLastValues, OfAFormerEpochAreStillTheLastOnes)
{
    LateBench late;
    const auto old = late.Kept("A");
    late.bench.publisherTransport->SetCut(false); // a new epoch
    late.PublishFor(3s);
    late.KillPublisher();
    late.Kept("A") = old;
    late.StartProvider();
    const auto listener = late.bench.Subscribe("A");
    late.bench.Pass(500ms);
    EXPECT_EQ(listener->PrintBook(), "10x1 9x3 |");
    EXPECT_TRUE(listener->IsStale());
}

TEST(ZelLastValues, LetAPublisherWhoseClockIsBehindTakeOver)
{
    LateBench late;
    late.StartProvider();
    const auto listener = late.bench.Subscribe("A");
    late.bench.Pass(200ms);
    const auto transport = late.bench.broker.MakeTransport();
    ZelPublisherOptions options;
    options.now = [&] { return late.bench.now; };
    options.wallTime_ns = [] { return 7; };
    ZelPublisher heir(*transport, options);
    heir.Start({Listed("A")});
    heir.Publish(BookMessage(0, true, {Bid("30", "1")}));
    for (int step = 0; step < 60; ++step)
    {
        late.bench.now += 50ms;
        heir.Tick();
        late.bench.Settle();
    }
    EXPECT_EQ(listener->PrintBook(), "30x1 |");
    EXPECT_FALSE(listener->IsStale());
    EXPECT_EQ(listener->GetOrderFaults(), 0U);
    transport->Stop();
}

TEST(ZelLastValues, OfABrokerThatKeepsNoneAreAskedForByOneQuestionOfAMarketNowAndThen)
{
    KeepingBench test;
    test.bench.Start();
    const auto a = test.bench.Subscribe("A");
    const auto b = test.bench.Subscribe("B");
    test.bench.Pass(200ms);
    test.bench.broker.keepsLastValues = false;
    test.KillPublisher();
    const std::size_t before = test.bench.broker.lastValueQuestions;
    test.bench.Pass(10s);
    EXPECT_GT(test.bench.broker.lastValueQuestions, before);
    EXPECT_LT(test.bench.broker.lastValueQuestions - before, 20U);
    EXPECT_TRUE(a->IsStale());
    EXPECT_TRUE(b->IsStale());
}

TEST(ZelLastValues, AreAskedForInPortions)
{
    std::vector<SourceInstrument> many;
    for (int i = 0; i < 1000; ++i)
    {
        many.push_back(Listed("I" + std::to_string(i)));
    }
    ZelBench bench(many);
    bench.broker.keepsLastValues = true;
    bench.StartPublisher();
    bench.publisher->Tick();
    for (InstrumentIndex i = 0; i < many.size(); ++i)
    {
        bench.Publish(i, true, {Bid("10", "1")});
    }
    bench.publisher->SaveLastValues();
    bench.publisherTransport->SetCut(true);
    bench.broker.waiting.clear();
    bench.provider->Start();
    std::vector<std::shared_ptr<RecordingListener>> listeners;
    for (const SourceInstrument& instrument : many)
    {
        listeners.push_back(bench.Subscribe(instrument.symbol, SubscribeStatus::Pending));
    }
    std::size_t most = 0;
    std::size_t before = bench.broker.lastValueQuestions;
    for (int step = 0; step < 20; ++step)
    {
        bench.Pass(50ms);
        most = std::max(most, bench.broker.lastValueQuestions - before);
        before = bench.broker.lastValueQuestions;
    }
    EXPECT_LE(most, 202U) << "images, and the directories of two markets";
    EXPECT_EQ(bench.provider->GetCounts().lastValues, many.size());
    EXPECT_TRUE(std::all_of(listeners.begin(), listeners.end(),
                            [](const auto& listener) { return listener->PrintBook() == "10x1 |"; }));
}

TEST(ZelLastValues, ComeWithADirectoryOfManyParts)
{
    std::vector<SourceInstrument> many;
    for (int i = 0; i < 20'000; ++i)
    {
        many.push_back(Listed("INSTRUMENT-" + std::to_string(i)));
    }
    ZelBench bench(many);
    bench.broker.keepsLastValues = true;
    bench.StartPublisher();
    bench.publisher->Tick();
    bench.publisher->SaveLastValues();
    bench.publisherTransport->SetCut(true);
    bench.broker.waiting.clear();
    ASSERT_EQ(bench.broker.lastValues.count({"M", "", 3}), 1U);
    int losses = 2;
    bench.broker.passes = [&](const CarriedMessage& message) { return message.part != 2 || losses-- <= 0; };
    bench.provider->Start();
    bench.Pass(500ms);
    EXPECT_FALSE(bench.provider->GetDirectory().IsComplete(1)) << "a part is missing";
    bench.Pass(2s);
    EXPECT_TRUE(bench.provider->GetDirectory().IsComplete(1));
    EXPECT_EQ(bench.provider->GetDirectory().GetSize(), many.size());
}

TEST(ZelLastValues, AreAskedForOfServedShardsOnlyAndAtATakeover)
{
    ShardedLateBench late;
    late.bench.Pass(1s);
    EXPECT_THAT(late.listener->GetCalls(), ElementsAre("subscribed 0", "stale"));
    const std::size_t before = late.bench.broker.lastValueQuestions;
    late.bench.provider->ServeShard(late.shardOfA);
    late.bench.Pass(200ms);
    EXPECT_EQ(late.bench.broker.lastValueQuestions - before, 1U);
    EXPECT_EQ(late.listener->PrintBook(), "10x1 9x3 |");
    EXPECT_TRUE(late.listener->IsStale());
}

TEST(ZelLastValues, ThatComeAfterTheShardIsLeftArePassedOver)
{
    ShardedLateBench late;
    late.bench.now += 50ms;
    late.bench.provider->ServeShard(late.shardOfA);
    late.bench.provider->Tick(); // asks
    late.bench.provider->LeaveShard(late.shardOfA);
    late.bench.broker.Deliver();
    EXPECT_THAT(late.listener->GetCalls(), ElementsAre("subscribed 0", "stale"));
}

} // namespace
} // namespace ps_ns
