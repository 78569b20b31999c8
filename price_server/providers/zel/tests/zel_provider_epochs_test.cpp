#include "zel_bench.h"

namespace ps_ns
{
namespace
{

using namespace testing_ns;
using namespace std::chrono_literals;

TEST(ZelProvider, AsksForImagesOfANewEpochThoughItsOwnConnectionHeld)
{
    ZelBench bench;
    bench.Start();
    bench.Publish(0, true, {Bid("10", "1")});
    const auto listener = bench.Subscribe("A");
    bench.Settle();
    const std::uint64_t epoch = listener->GetEpoch();
    bench.RestartPublisher();
    bench.Publish(0, false, {Bid("10", "0"), Bid("8", "1")});
    bench.Settle();
    EXPECT_EQ(listener->PrintBook(), "8x1 |");
    EXPECT_GT(listener->GetEpoch(), epoch);
    EXPECT_EQ(listener->GetOrderFaults(), 0U);
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
    bench.RestartPublisher();
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
    bench.RestartPublisher();
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

} // namespace
} // namespace ps_ns
