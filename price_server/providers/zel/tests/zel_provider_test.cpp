#include "zel/zel_provider.h"

#include "mds/seeded_random.h"
#include "zel_bench.h"

#include <deque>

namespace ps_ns
{
namespace
{

using namespace testing_ns;
using namespace std::chrono_literals;
using ::testing::ElementsAre;

TEST(ZelProvider, DeliversAnImageAndThenUpdates)
{
    ZelBench bench;
    bench.Start();
    bench.Publish(0, true, {Bid("10", "1"), Ask("11", "2")});
    const auto listener = bench.Subscribe("A");
    bench.Settle();
    EXPECT_THAT(listener->GetCalls(), ElementsAre("subscribed 0", "stale", "fresh", "image"));
    EXPECT_EQ(listener->PrintBook(), "10x1 | 11x2");

    bench.Publish(0, false, {Bid("10", "0"), Bid("9", "3")});
    bench.Settle();
    EXPECT_EQ(listener->PrintBook(), "9x3 | 11x2");
    EXPECT_EQ(listener->GetOrderFaults(), 0U);
    EXPECT_EQ(bench.provider->GetCounts().gaps, 0U);
    EXPECT_EQ(bench.provider->GetCounts().live, 1U);
}

TEST(ZelProvider, GivesASecondListenerThePresentBookAtOnce)
{
    ZelBench bench;
    bench.Start();
    bench.Publish(0, true, {Bid("10", "1")});
    const auto first = bench.Subscribe("A");
    bench.Settle();
    const auto second = bench.Subscribe("A");
    EXPECT_THAT(second->GetCalls(), ElementsAre("subscribed 0", "image"));
    EXPECT_EQ(bench.provider->GetCounts().imagesAsked, 1U);
}

TEST(ZelProvider, KeepsPricesTimesAndNumbersExact)
{
    ZelBench bench;
    bench.Start();
    const auto listener = bench.Subscribe("B");
    listener->KeepUpdates();
    MarketMessage message = BookMessage(1, true, {{P("-0.0000000001"), Q("0.00000001"), 7, BookSideType::Bid}}, 1, 5);
    message.exchangeTime_ns = 6;
    message.venueSequence = 50'093'244'445;
    bench.publisher->Publish(message);
    bench.Pass(300ms);
    const auto updates = listener->TakeUpdates();
    ASSERT_EQ(updates.size(), 1U);
    EXPECT_EQ(updates[0]->changes, message.changes);
    EXPECT_EQ(updates[0]->receiveTime_ns, 5U);
    EXPECT_EQ(updates[0]->exchangeTime_ns, 6U);
    EXPECT_EQ(updates[0]->venueSequence, 50'093'244'445U);
}

TEST(ZelProvider, AsksForAnImageThatReplacesTheBookWhenAMessageIsLost)
{
    ZelBench bench;
    bench.Start();
    bench.Publish(0, true, {Bid("10", "1"), Bid("9", "1")});
    const auto listener = bench.Subscribe("A");
    bench.Settle();
    bench.broker.passes = [](const CarriedMessage& message) { return message.channel != TransportChannel::Prices; };
    bench.Publish(0, false, {Bid("9", "0")});
    bench.Settle();
    EXPECT_EQ(listener->PrintBook(), "10x1 9x1 |") << "nothing shows the loss yet";
    bench.broker.passes = nullptr;
    bench.Publish(0, false, {Bid("8", "1")});
    bench.Settle();
    EXPECT_EQ(listener->PrintBook(), "10x1 8x1 |") << "no ghost of the lost removal";
    EXPECT_THAT(listener->GetCalls(),
                ElementsAre("subscribed 0", "stale", "fresh", "image", "stale", "fresh", "image"));
    EXPECT_EQ(listener->GetOrderFaults(), 0U);
    EXPECT_EQ(bench.provider->GetCounts().gaps, 1U);
}

TEST(ZelProvider, NoticesThatTheLastMessageOfAQuietInstrumentWasLost)
{
    ZelBench bench;
    bench.Start();
    bench.Publish(0, true, {Bid("10", "1")});
    const auto listener = bench.Subscribe("A");
    bench.Pass(400ms);
    bench.broker.passes = [](const CarriedMessage& message) { return message.channel != TransportChannel::Prices; };
    bench.Publish(0, false, {Bid("10", "0")});
    bench.Settle();
    bench.broker.passes = nullptr;
    bench.Pass(1000ms);
    EXPECT_EQ(listener->PrintBook(), "10x1 |");
    bench.Pass(500ms);
    EXPECT_EQ(listener->PrintBook(), "|");
    EXPECT_EQ(bench.provider->GetCounts().gaps, 1U);
}

TEST(ZelProvider, AsksAgainWhenTheImageOrTheRequestIsLost)
{
    for (const TransportChannel lost : {TransportChannel::Requests, TransportChannel::Prices})
    {
        ZelBench bench;
        bench.Start();
        bench.Publish(0, true, {Bid("10", "1")});
        bench.Settle();
        int losses = 3;
        bench.broker.passes = [&](const CarriedMessage& message)
        { return message.channel != lost || message.market != "M" || losses-- <= 0; };
        const auto listener = bench.Subscribe("A");
        bench.Pass(400ms);
        EXPECT_THAT(listener->GetCalls(), ElementsAre("subscribed 0", "stale"));
        bench.Pass(1200ms);
        EXPECT_EQ(listener->PrintBook(), "10x1 |");
        EXPECT_EQ(bench.provider->GetCounts().imagesAsked, 4U);
    }
}

TEST(ZelProvider, IsStaleAtOnceWithoutTheConnectionAndFreshAfterTheImage)
{
    ZelBench bench;
    bench.Start();
    bench.Publish(0, true, {Bid("10", "1"), Ask("12", "1")});
    const auto listener = bench.Subscribe("A");
    bench.Settle();
    bench.broker.SetUp(false);
    EXPECT_TRUE(listener->IsStale());
    EXPECT_EQ(bench.provider->GetCounts().live, 0U);
    bench.Publish(0, false, {Bid("10", "0"), Bid("11", "1")}); // goes nowhere
    bench.Pass(5s);
    EXPECT_EQ(listener->PrintBook(), "10x1 | 12x1");

    bench.broker.SetUp(true);
    bench.Settle();
    EXPECT_FALSE(listener->IsStale());
    EXPECT_EQ(listener->PrintBook(), "11x1 | 12x1");
    EXPECT_EQ(listener->GetOrderFaults(), 0U);
    EXPECT_EQ(bench.publisher->GetCounts().unsent, 1U);
    EXPECT_EQ(bench.publisher->GetCounts().epochs, 2U);
}

TEST(ZelProvider, IsStaleWithinASecondWhenThePublisherFallsSilent)
{
    ZelBench bench;
    bench.Start();
    bench.Publish(0, true, {Bid("10", "1")});
    const auto listener = bench.Subscribe("A");
    bench.Pass(500ms);
    EXPECT_FALSE(listener->IsStale());
    bench.broker.passes = [](const CarriedMessage& message) { return message.channel == TransportChannel::Requests; };
    bench.Pass(500ms);
    EXPECT_FALSE(listener->IsStale());
    bench.Pass(500ms);
    EXPECT_TRUE(listener->IsStale());
    EXPECT_EQ(bench.provider->GetCounts().marketsLost, 1U) << "the other one never was there";

    bench.broker.passes = nullptr;
    bench.Publish(0, false, {Bid("9", "1")});
    bench.Pass(300ms);
    EXPECT_FALSE(listener->IsStale());
    EXPECT_EQ(listener->PrintBook(), "10x1 9x1 |");
}

TEST(ZelProvider, AsksForImagesOfANewEpochThoughItsOwnConnectionHeld)
{
    ZelBench bench;
    bench.Start();
    bench.Publish(0, true, {Bid("10", "1")});
    const auto listener = bench.Subscribe("A");
    bench.Settle();
    const std::uint64_t epoch = listener->GetEpoch();
    bench.publisherTransport->SetCut(true);
    bench.Publish(0, false, {Bid("10", "0"), Bid("8", "1")});
    bench.publisherTransport->SetCut(false);
    bench.Settle();
    EXPECT_EQ(listener->PrintBook(), "8x1 |");
    EXPECT_GT(listener->GetEpoch(), epoch);
    EXPECT_EQ(listener->GetOrderFaults(), 0U);
}

TEST(ZelProvider, NoticesWhatItMissedWhenAnImageFromBeforeComesAfterItsConnection)
{
    ZelBench bench;
    bench.Start();
    bench.Publish(0, true, {Bid("10", "1")});
    const auto listener = bench.Subscribe("A");
    bench.Pass(400ms);
    bench.Publish(0, true, {Bid("9", "1")});
    const CarriedMessage late = bench.broker.waiting.back();
    bench.broker.waiting.clear();
    bench.providerTransport->SetCut(true);
    bench.Publish(0, false, {Bid("9", "0"), Bid("8", "1")});
    bench.Pass(400ms); // the heartbeat that tells of it goes nowhere either
    bench.providerTransport->SetCut(false);
    bench.broker.waiting.push_front(late);
    bench.broker.Deliver();
    EXPECT_EQ(listener->PrintBook(), "9x1 |") << "it is what there was";
    bench.Pass(2s);
    EXPECT_EQ(listener->PrintBook(), "8x1 |");
    EXPECT_EQ(listener->PrintBook(), bench.PublishedBook(0));
}

TEST(ZelProvider, PassesOverWhatComesWithoutAConnection)
{
    ZelBench bench;
    bench.Start();
    bench.Publish(0, true, {Bid("10", "1")});
    const auto listener = bench.Subscribe("A");
    bench.Settle();
    bench.Publish(0, true, {Bid("9", "1")});
    const CarriedMessage late = bench.broker.waiting.back();
    bench.providerTransport->SetCut(true);
    bench.providerTransport->Hand(late);
    EXPECT_TRUE(listener->IsStale());
    EXPECT_EQ(listener->PrintBook(), "10x1 |");
}

TEST(ZelProvider, IsStaleWhileTheDirectoryOfANewerEpochDoesNotCome)
{
    ZelBench bench;
    bench.Start();
    bench.Publish(0, true, {Bid("10", "1")});
    const auto listener = bench.Subscribe("A");
    bench.Pass(300ms);
    bench.broker.passes = [](const CarriedMessage& message)
    { return ReadHeader(message.payload)->kind != WireKind::Directory; };
    bench.publisherTransport->SetCut(true);
    bench.publisherTransport->SetCut(false);
    bench.Pass(1000ms);
    EXPECT_TRUE(listener->IsStale());
    bench.broker.passes = nullptr;
    bench.Pass(500ms);
    EXPECT_FALSE(listener->IsStale());
}

TEST(ZelProvider, PassesOverMessagesOfAnOldEpoch)
{
    ZelBench bench;
    bench.Start();
    bench.Publish(0, true, {Bid("10", "1")});
    const auto listener = bench.Subscribe("A");
    bench.Settle();
    bench.Publish(0, false, {Bid("10", "7")});
    const auto late = bench.broker.waiting.back();
    bench.broker.waiting.clear();
    bench.publisherTransport->SetCut(true);
    bench.publisherTransport->SetCut(false);
    bench.Settle();
    bench.Publish(0, false, {Bid("10", "2")});
    bench.broker.waiting.push_back(late);
    bench.Settle();
    EXPECT_EQ(listener->PrintBook(), "10x2 |");
    EXPECT_EQ(bench.provider->GetCounts().gaps, 0U);
}

TEST(ZelProvider, FollowsTheNewerOfTwoPublishersOfAMarket)
{
    ZelBench bench;
    bench.Start();
    bench.Publish(0, true, {Bid("10", "1")});
    const auto listener = bench.Subscribe("A");
    bench.Settle();

    const auto transport = bench.broker.MakeTransport();
    ZelPublisherOptions options;
    options.now = [&] { return bench.now; };
    options.wallTime_ns = [&] { return bench.wallTime_ns += 1000; };
    ZelPublisher second(*transport, options);
    second.Start({Listed("X"), Listed("A")}); // numbers its instruments otherwise
    second.Publish(BookMessage(1, true, {Bid("20", "1")}));
    second.Tick();
    bench.Settle();
    second.Tick();
    bench.Publish(0, false, {Bid("11", "1")});
    bench.Settle();
    EXPECT_EQ(listener->PrintBook(), "20x1 |");
    transport->Stop();
}

/// Of market M, on a transport of its own, with epochs of the given clock.
struct OtherPublisher
{
    OtherPublisher(ZelBench& bench, std::uint64_t wallTime)
        : transport(bench.broker.MakeTransport())
        , publisher(*transport, MakeOptions(bench, wallTime))
    {
        publisher.Start({Listed("A"), Listed("B")});
    }
    ~OtherPublisher() { transport->Stop(); }
    static ZelPublisherOptions MakeOptions(ZelBench& bench, std::uint64_t wallTime)
    {
        ZelPublisherOptions options;
        options.now = [&bench] { return bench.now; };
        options.wallTime_ns = [wallTime] { return wallTime; };
        return options;
    }
    /// As ZelBench::Pass, with this one beside.
    void Pass(ZelBench& bench, std::chrono::milliseconds time)
    {
        for (; time.count() > 0; time -= 50ms)
        {
            bench.now += 50ms;
            publisher.Tick();
            bench.Settle();
            publisher.Tick();
            bench.broker.Deliver();
        }
    }

    const std::unique_ptr<MemoryTransport> transport;
    ZelPublisher publisher;
};

TEST(ZelProvider, FollowsAPublisherWhoseClockIsBehindItsDeadPredecessors)
{
    ZelBench bench;
    bench.Start();
    bench.Publish(0, true, {Bid("10", "1")});
    const auto listener = bench.Subscribe("A");
    bench.Pass(500ms);
    const std::uint64_t epoch = listener->GetEpoch();
    bench.publisherTransport->SetCut(true);
    OtherPublisher heir(bench, 7); // its epoch is far below
    heir.publisher.Publish(BookMessage(0, true, {Bid("20", "1")}));
    heir.Pass(bench, 600ms);
    EXPECT_EQ(listener->PrintBook(), "10x1 |") << "the other one may only be late";
    heir.Pass(bench, 600ms);
    EXPECT_EQ(listener->PrintBook(), "20x1 |");
    EXPECT_FALSE(listener->IsStale());
    EXPECT_GT(listener->GetEpoch(), epoch) << "clients see epochs that grow";
    EXPECT_EQ(listener->GetOrderFaults(), 0U);
    EXPECT_EQ(bench.provider->GetState(), ZelState::Running);

    bench.publisherTransport->SetCut(false); // the one with the larger epoch is there again
    bench.Publish(0, true, {Bid("30", "1")});
    heir.publisher.Publish(BookMessage(0, false, {Bid("21", "1")}));
    heir.Pass(bench, 600ms);
    EXPECT_EQ(listener->PrintBook(), bench.PublishedBook(0));
    EXPECT_EQ(listener->GetOrderFaults(), 0U);
}

TEST(ZelProvider, StaysWithTheNewerOfTwoLivingPublishersOverItsOwnOutages)
{
    ZelBench bench;
    OtherPublisher older(bench, 7);
    bench.Start();
    bench.Publish(0, true, {Bid("10", "1")});
    older.publisher.Publish(BookMessage(0, true, {Bid("77", "1")}));
    older.Pass(bench, 500ms);
    const auto listener = bench.Subscribe("A");
    older.Pass(bench, 500ms);
    for (int outage = 0; outage < 5; ++outage)
    {
        bench.providerTransport->SetCut(true);
        older.Pass(bench, 3s);
        EXPECT_TRUE(listener->IsStale());
        bench.providerTransport->SetCut(false);
        for (int step = 0; step < 20; ++step)
        {
            older.Pass(bench, 50ms);
            EXPECT_EQ(listener->PrintBook(), "10x1 |");
        }
        EXPECT_FALSE(listener->IsStale());
    }
}

TEST(ZelProvider, HasNoArrearsAtASteadyLag)
{
    ZelBench bench;
    bench.Start();
    bench.Publish(0, true, {Bid("10", "1")});
    const auto listener = bench.Subscribe("A");
    bench.Pass(300ms);
    // Prices come 400 ms late, control messages at once.
    std::deque<std::pair<ZelOptions::Clock::time_point, CarriedMessage>> late;
    bench.broker.passes = [&](const CarriedMessage& message)
    {
        if (message.channel == TransportChannel::Prices)
        {
            late.emplace_back(bench.now + 400ms, message);
        }
        return message.channel != TransportChannel::Prices;
    };
    for (int step = 0; step < 500; ++step)
    {
        bench.Publish(0, false, {Bid("10", std::to_string(1 + step % 5).c_str())});
        bench.Pass(50ms);
        for (; !late.empty() && late.front().first <= bench.now; late.pop_front())
        {
            bench.providerTransport->Hand(late.front().second);
        }
    }
    EXPECT_EQ(bench.provider->GetCounts().gaps, 0U);
    EXPECT_EQ(bench.provider->GetCounts().imagesAsked, 1U);
    EXPECT_FALSE(listener->IsStale());
}

TEST(ZelProvider, AsksForAnImageThatDoesNotComeMoreAndMoreSeldom)
{
    ZelBench bench;
    bench.Start();
    bench.Publish(0, true, {Bid("10", "1")});
    bench.Settle();
    std::vector<std::int64_t> asked_ms;
    const auto begin = bench.now;
    bench.broker.passes = [&](const CarriedMessage& message)
    {
        if (ReadImageRequest(message.payload))
        {
            asked_ms.push_back(std::chrono::duration_cast<std::chrono::milliseconds>(bench.now - begin).count());
            return false;
        }
        return true;
    };
    const auto listener = bench.Subscribe("A");
    bench.Settle();
    bench.Pass(8s);
    EXPECT_EQ(asked_ms, (std::vector<std::int64_t>{0, 200, 600, 1400, 3000, 5000, 7000}));
    EXPECT_TRUE(listener->IsStale());
}

TEST(ZelProvider, LooksForArrearsAmongThoseThatAreBehindOnly)
{
    std::vector<SourceInstrument> many;
    for (int i = 0; i < 3000; ++i)
    {
        many.push_back(Listed("I" + std::to_string(i)));
    }
    ZelBench bench(many);
    bench.Start();
    std::vector<std::shared_ptr<RecordingListener>> listeners;
    for (InstrumentIndex i = 0; i < many.size(); ++i)
    {
        bench.Publish(i, true, {Bid("10", "1")});
        listeners.push_back(bench.Subscribe(many[i].symbol));
    }
    bench.Pass(1s);
    EXPECT_EQ(bench.provider->GetCounts().live, many.size());
    EXPECT_EQ(bench.provider->GetBehindCount(), 0U);
    bench.broker.passes = [](const CarriedMessage& message) { return message.channel != TransportChannel::Prices; };
    bench.Publish(17, false, {Bid("10", "0")});
    bench.Publish(1700, false, {Bid("10", "0")});
    bench.Pass(400ms);
    EXPECT_EQ(bench.provider->GetBehindCount(), 2U);
    bench.broker.passes = nullptr;
    bench.Pass(2s);
    EXPECT_EQ(bench.provider->GetBehindCount(), 0U);
    EXPECT_EQ(bench.provider->GetCounts().gaps, 2U);
    EXPECT_EQ(listeners[17]->PrintBook(), "|");
    EXPECT_EQ(listeners[1700]->PrintBook(), "|");
}

TEST(ZelProvider, SaysInOneWordWhatItsFeedIsDoing)
{
    ZelBench bench;
    EXPECT_EQ(bench.provider->GetState(), ZelState::Starting);
    bench.Start();
    EXPECT_EQ(bench.provider->GetState(), ZelState::Running) << "market N, which nobody publishes, is not missed";
    EXPECT_EQ(bench.provider->GetCounts().marketsLost, 0U);
    bench.providerTransport->SetCut(true);
    EXPECT_EQ(bench.provider->GetState(), ZelState::Lost);
    bench.providerTransport->SetCut(false);
    bench.Pass(300ms);
    EXPECT_EQ(bench.provider->GetState(), ZelState::Running);
    bench.publisherTransport->SetCut(true);
    bench.Pass(1s);
    EXPECT_EQ(bench.provider->GetState(), ZelState::Lost) << "the publisher is silent";
    EXPECT_EQ(bench.provider->GetCounts().marketsLost, 1U);
}

TEST(ZelProvider, GetsAnEmptyImageOfWhatHasNoBookYet)
{
    ZelBench bench;
    bench.Start();
    const auto listener = bench.Subscribe("A");
    bench.Pass(5s);
    EXPECT_EQ(bench.provider->GetCounts().imagesAsked, 1U) << "it does not ask again and again";
    EXPECT_FALSE(listener->IsStale());
    EXPECT_EQ(listener->PrintBook(), "|");
    bench.Publish(0, true, {Bid("10", "1")});
    bench.Settle();
    EXPECT_EQ(listener->PrintBook(), "10x1 |");
    EXPECT_EQ(listener->GetOrderFaults(), 0U);
}

TEST(ZelProvider, DoesNotPassOnTradesToWhoDoesNotWantThem)
{
    ZelBench bench;
    bench.Start();
    bench.Publish(0, true, {Bid("10", "1")});
    const auto with = bench.Subscribe("A");
    const auto without = bench.Subscribe("A", SubscribeStatus::Subscribed, 1, false);
    bench.Settle();
    bench.PublishTrade(0, 1);
    bench.Settle();
    bench.provider->ChangeScope(without, Request(1, "A", true).scope);
    bench.PublishTrade(0, 2);
    bench.Settle();
    EXPECT_EQ(with->GetTrades().size(), 2U);
    ASSERT_EQ(without->GetTrades().size(), 1U);
    EXPECT_EQ(without->GetTrades()[0].venueId, 2U);
}

TEST(ZelProvider, NoticesALostTrade)
{
    ZelBench bench;
    bench.Start();
    bench.Publish(0, true, {Bid("10", "1")});
    const auto listener = bench.Subscribe("A");
    bench.Settle();
    bench.PublishTrade(0, 1);
    bench.broker.waiting.clear();
    bench.PublishTrade(0, 2);
    bench.Settle();
    EXPECT_EQ(listener->GetTrades().size(), 1U);
    EXPECT_EQ(bench.provider->GetCounts().gaps, 1U);
    EXPECT_FALSE(listener->IsStale());
}

TEST(ZelProvider, TreatsDroppedMessagesAsALostFeed)
{
    ZelBench bench;
    bench.Start();
    bench.Publish(0, true, {Bid("10", "1")});
    const auto listener = bench.Subscribe("A");
    bench.Settle();
    bench.Publish(0, false, {Bid("9", "1")});
    bench.broker.waiting.clear();
    bench.providerTransport->ReportLoss();
    EXPECT_TRUE(listener->IsStale());
    bench.Pass(300ms);
    EXPECT_EQ(listener->PrintBook(), "10x1 9x1 |");
}

TEST(ZelProvider, GivesNobodyAnImageWhileItIsStale)
{
    ZelBench bench;
    bench.Start();
    bench.Publish(0, true, {Bid("10", "1")});
    const auto first = bench.Subscribe("A");
    bench.Settle();
    bench.broker.SetUp(false);
    const auto second = bench.Subscribe("A");
    EXPECT_THAT(second->GetCalls(), ElementsAre("subscribed 0", "stale"));
    bench.broker.SetUp(true);
    bench.Settle();
    EXPECT_THAT(second->GetCalls(), ElementsAre("subscribed 0", "stale", "fresh", "image"));
}

TEST(ZelProvider, ForgetsWhatNobodyListensToWhenTheFeedIsLost)
{
    ZelBench bench;
    bench.Start();
    bench.Publish(0, true, {Bid("10", "1")});
    const auto listener = bench.Subscribe("A");
    bench.Settle();
    bench.provider->Unsubscribe(listener);
    EXPECT_EQ(listener->GetCalls().back(), "unsubscribed");
    EXPECT_EQ(bench.provider->GetCounts().followed, 1U) << "who comes next need not wait";
    bench.broker.SetUp(false);
    EXPECT_EQ(bench.provider->GetCounts().followed, 0U);
    bench.broker.SetUp(true);
    bench.Settle();
    EXPECT_EQ(bench.provider->GetCounts().imagesAsked, 1U);
    const auto again = bench.Subscribe("A");
    bench.Settle();
    EXPECT_EQ(again->PrintBook(), "10x1 |");
}

TEST(ZelProvider, CountsAndSkipsWhatItCannotRead)
{
    ZelBench bench;
    bench.Start();
    bench.Publish(0, true, {Bid("10", "1")});
    const auto listener = bench.Subscribe("A");
    bench.Settle();
    SeededRandom random(4);
    for (int round = 0; round < 20'000; ++round)
    {
        CarriedMessage message;
        message.channel = random.Once(2) ? TransportChannel::Prices : TransportChannel::Control;
        message.market = "M";
        message.payload.resize(static_cast<std::size_t>(random.Below(120)));
        for (std::byte& byte : message.payload)
        {
            byte = static_cast<std::byte>(random.Next());
        }
        if (!message.payload.empty())
        {
            message.payload[0] = std::byte{1};
        }
        bench.broker.waiting.push_back(std::move(message));
        bench.broker.Deliver();
    }
    EXPECT_GT(bench.provider->GetCounts().refused, 10'000U);
    EXPECT_EQ(listener->GetOrderFaults(), 0U);
}

TEST(ZelProvider, IgnoresMarketsThatTheServerDoesNotHave)
{
    ZelBench bench;
    bench.Start();
    bench.broker.waiting.push_back({TransportChannel::Control, "ELSEWHERE", "", {}});
    bench.Settle();
    EXPECT_EQ(bench.provider->GetCounts().refused, 0U);
    bench.Subscribe("A", SubscribeStatus::Failed, 9);
}

TEST(ZelProvider, CallsNobodyAfterItHasStopped)
{
    ZelBench bench;
    bench.Start();
    const auto listener = bench.Subscribe("A");
    const std::weak_ptr<RecordingListener> held = listener;
    bench.Settle();
    bench.provider->Stop();
    bench.provider->Stop();
    const std::size_t calls = listener->GetCalls().size();
    bench.Publish(0, true, {Bid("10", "1")});
    bench.broker.Deliver();
    EXPECT_EQ(listener->GetCalls().size(), calls);
    EXPECT_EQ(listener.use_count(), 1);
    bench.Subscribe("A", SubscribeStatus::Failed);
    bench.provider->Unsubscribe(listener);
    EXPECT_EQ(listener->GetCalls().back(), "unsubscribed");
}

/// A model beside the real thing: whatever is lost, cut or renamed, in the end the books are the publisher's.
TEST(ZelProvider, HasThePublishersBooksAfterAnyMisfortune)
{
    for (std::uint64_t seed = 1; seed <= 40; ++seed)
    {
        SCOPED_TRACE(seed);
        SeededRandom random(seed);
        ZelBench bench;
        bench.provider->Start();
        bench.StartPublisher();
        bench.broker.passes = [&](const CarriedMessage&) { return random.Below(50) != 0; };
        std::vector<std::shared_ptr<RecordingListener>> listeners(3);
        bench.Pass(500ms);
        for (int round = 0; round < 2'000; ++round)
        {
            const auto instrument = static_cast<InstrumentIndex>(random.Below(3));
            const std::int64_t tick = random.Below(20);
            const bool isBid = random.Once(2);
            const std::string price = std::to_string(isBid ? 100 - tick : 101 + tick);
            const std::string quantity = std::to_string(random.Below(3));
            bench.Publish(instrument, round < 3 || random.Below(200) == 0,
                          {isBid ? Bid(price.c_str(), quantity.c_str()) : Ask(price.c_str(), quantity.c_str())});
            switch (random.Below(60))
            {
            case 0:
                bench.broker.SetUp(false);
                break;
            case 1:
                bench.broker.SetUp(true);
                break;
            case 2:
                bench.publisherTransport->SetCut(true);
                break;
            case 3:
                bench.publisherTransport->SetCut(false);
                break;
            case 4:
                bench.Pass(100ms);
                break;
            case 5:
                if (auto& listener = listeners[instrument]; listener != nullptr)
                {
                    bench.provider->Unsubscribe(std::exchange(listener, nullptr));
                }
                else if (bench.provider->GetDirectory().IsComplete(1))
                {
                    listener = bench.Subscribe(std::string(1, static_cast<char>('A' + instrument)));
                }
                break;
            default:
                bench.broker.Deliver();
            }
        }
        bench.broker.passes = nullptr;
        bench.broker.SetUp(true);
        bench.publisherTransport->SetCut(false);
        bench.Pass(3s);
        for (InstrumentIndex instrument = 0; instrument < 3; ++instrument)
        {
            if (listeners[instrument] != nullptr)
            {
                EXPECT_EQ(listeners[instrument]->PrintBook(), bench.PublishedBook(instrument));
                EXPECT_FALSE(listeners[instrument]->IsStale());
                EXPECT_EQ(listeners[instrument]->GetOrderFaults(), 0U);
            }
        }
    }
}

} // namespace
} // namespace ps_ns
