#include "zel/instrument_shard.h"
#include "zel_bench.h"

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

/// A bench whose broker keeps last values. The publisher goes before the provider comes, unless a test starts both.
struct KeepingBench
{
    explicit KeepingBench(ZelOptions options = {})
        : bench({Listed("A"), Listed("B"), Listed("C")}, std::move(options))
    {
        bench.broker.keepsLastValues = true;
    }
    /// Until what has changed has been put with the broker.
    void PublishFor(std::chrono::milliseconds time)
    {
        for (; time.count() > 0; time -= 50ms)
        {
            bench.now += 50ms;
            bench.publisher->Tick();
            bench.broker.Deliver();
        }
    }
    /// As killed: nothing more is said.
    void KillPublisher()
    {
        bench.publisherTransport->SetCut(true);
        bench.broker.waiting.clear();
    }
    bool Keeps(const std::string& instrument, std::uint32_t part = 0) const
    {
        return bench.broker.lastValues.count({"M", instrument, part}) != 0;
    }
    std::vector<std::byte>& Kept(const std::string& instrument)
    {
        return bench.broker.lastValues.at({"M", instrument, 0});
    }

    ZelBench bench;
};

/// Books of A and B have been published, and the publisher is gone before the provider starts.
struct LateBench : KeepingBench
{
    explicit LateBench(ZelOptions options = {})
        : KeepingBench(std::move(options))
    {
        bench.StartPublisher();
        bench.publisher->Tick();
        bench.Publish(0, true, {Bid("10", "1")});
        bench.Publish(1, true, {Bid("20", "1"), Ask("21", "2")});
        bench.Publish(0, false, {Bid("9", "3")});
        PublishFor(3s);
        KillPublisher();
    }
    void StartProvider()
    {
        bench.provider->Start();
        bench.Pass(1s);
    }
};

// --- The publisher ---------------------------------------------------------------------------------------------------

TEST(ZelLastValues, ArePutThereForEachInstrumentThatHasABook)
{
    LateBench late;
    EXPECT_TRUE(late.Keeps("")) << "the directory";
    EXPECT_TRUE(late.Keeps("A"));
    EXPECT_TRUE(late.Keeps("B"));
    EXPECT_FALSE(late.Keeps("C")) << "it has none";
}

TEST(ZelLastValues, FollowWhatChangesWithinARound)
{
    KeepingBench test;
    test.bench.StartPublisher();
    test.bench.publisher->Tick();
    test.bench.Publish(0, true, {Bid("10", "1")});
    test.PublishFor(100ms);
    ASSERT_TRUE(test.Keeps("A"));
    test.bench.Publish(0, false, {Bid("9", "1")});
    test.PublishFor(1s);
    EXPECT_EQ(ReadHeader(test.Kept("A"))->sequence, 1U) << "not with every change";
    test.bench.Publish(0, false, {Bid("8", "1")});
    test.PublishFor(1500ms);
    EXPECT_EQ(ReadHeader(test.Kept("A"))->sequence, 3U);
    EXPECT_EQ(test.bench.publisher->GetCounts().kept, 2U);
}

TEST(ZelLastValues, DoNotExceedTheirRate)
{
    constexpr std::size_t kRate = 1000; // bytes in a second
    std::vector<SourceInstrument> many;
    for (int i = 0; i < 200; ++i)
    {
        many.push_back(Listed("I" + std::to_string(i)));
    }
    MemoryBroker broker;
    broker.keepsLastValues = true;
    const auto transport = broker.MakeTransport();
    auto now = ZelPublisherOptions::Clock::time_point(1h);
    ZelPublisherOptions options;
    options.now = [&] { return now; };
    options.lastValueBytes_perSecond = kRate;
    ZelPublisher publisher(*transport, options);
    publisher.Start(many);
    publisher.Tick();
    for (InstrumentIndex i = 0; i < many.size(); ++i)
    {
        publisher.Publish(BookMessage(i, true, {Bid("10", "1")}));
    }
    const auto countBytes = [&]
    {
        return std::accumulate(broker.lastValues.begin(), broker.lastValues.end(), std::size_t{0},
                               [](std::size_t bytes, const auto& kept) { return bytes + kept.second.size(); });
    };
    for (std::size_t second = 1; second <= 12; ++second)
    {
        for (int step = 0; step < 100; ++step)
        {
            now += 10ms;
            publisher.Tick();
        }
        const std::size_t directory = broker.lastValues.at({"M", "", 0}).size();
        EXPECT_LE(countBytes(), kRate * second + kRate / 10 + directory) << "what was begun is sent as a whole";
    }
    EXPECT_LT(broker.lastValues.size(), many.size()) << "the others wait";
    publisher.SaveLastValues();
    EXPECT_EQ(broker.lastValues.size(), many.size() + 1) << "but for the end";
    transport->Stop();
}

TEST(ZelLastValues, AreRefreshedWithoutAChangeBecauseABrokerMayForget)
{
    KeepingBench test;
    test.bench.StartPublisher();
    test.bench.publisher->Tick();
    test.bench.Publish(0, true, {Bid("10", "1")});
    test.PublishFor(1s);
    test.bench.broker.lastValues.clear();
    test.PublishFor(5s);
    EXPECT_FALSE(test.Keeps("A"));
    test.PublishFor(30s);
    EXPECT_TRUE(test.Keeps("A"));
    EXPECT_TRUE(test.Keeps(""));
}

TEST(ZelLastValues, TellOfRenames)
{
    LateBench late;
    late.bench.publisherTransport->SetCut(false);
    late.PublishFor(1s);
    late.bench.publisher->Rename(std::vector<SymbolRename>{{1, "A", "AA"}});
    late.PublishFor(100ms);
    late.KillPublisher();
    late.StartProvider();
    EXPECT_TRUE(late.bench.provider->GetDirectory().Find(1, -1, "AA"));
    EXPECT_EQ(late.bench.Subscribe("AA")->GetCalls().front(), "subscribed 0");
}

TEST(ZelLastValues, AreNotPutThereWhenThePublisherIsToldSo)
{
    MemoryBroker broker;
    broker.keepsLastValues = true;
    const auto transport = broker.MakeTransport();
    ZelPublisherOptions options;
    options.keepsLastValues = false;
    ZelPublisher publisher(*transport, options);
    publisher.Start({Listed("A")});
    publisher.Tick();
    publisher.Publish(BookMessage(0, true, {Bid("10", "1")}));
    publisher.Tick();
    publisher.SaveLastValues();
    EXPECT_THAT(broker.lastValues, IsEmpty());
    transport->Stop();
}

// --- The provider ----------------------------------------------------------------------------------------------------

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
    constexpr std::uint32_t kShards = 4;
    ZelOptions options;
    options.shardCount = kShards;
    LateBench late(std::move(options));
    late.bench.broker.shards = kShards;
    late.StartProvider();
    const auto listener = late.bench.Subscribe("A");
    late.bench.Pass(1s);
    EXPECT_THAT(listener->GetCalls(), ElementsAre("subscribed 0", "stale"));
    const std::size_t before = late.bench.broker.lastValueQuestions;
    late.bench.provider->ServeShard(GetShard("M", "A", kShards));
    late.bench.Pass(200ms);
    EXPECT_EQ(late.bench.broker.lastValueQuestions - before, 1U);
    EXPECT_EQ(listener->PrintBook(), "10x1 9x3 |");
    EXPECT_TRUE(listener->IsStale());
}

TEST(ZelLastValues, ThatComeAfterTheShardIsLeftArePassedOver)
{
    constexpr std::uint32_t kShards = 4;
    ZelOptions options;
    options.shardCount = kShards;
    LateBench late(std::move(options));
    late.bench.broker.shards = kShards;
    late.StartProvider();
    const auto listener = late.bench.Subscribe("A");
    late.bench.now += 50ms;
    late.bench.provider->ServeShard(GetShard("M", "A", kShards));
    late.bench.provider->Tick(); // asks
    late.bench.provider->LeaveShard(GetShard("M", "A", kShards));
    late.bench.broker.Deliver();
    EXPECT_THAT(listener->GetCalls(), ElementsAre("subscribed 0", "stale"));
}

} // namespace
} // namespace ps_ns
