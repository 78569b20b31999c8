#include "mds/seeded_random.h"
#include "zel_bench.h"

namespace ps_ns
{
namespace
{

using namespace testing_ns;
using namespace std::chrono_literals;
using ::testing::ElementsAre;

TEST(ZelProvider, DoesNotNoticeThatThePublisherHasReconnected)
{
    ZelBench bench;
    bench.Start();
    bench.Publish(0, true, {Bid("10", "1")});
    bench.Publish(1, true, {Bid("20", "1")});
    bench.Publish(2, true, {Bid("30", "1")});
    const auto a = bench.Subscribe("A");
    const auto b = bench.Subscribe("B");
    const auto c = bench.Subscribe("C");
    bench.Pass(300ms);
    bench.Publish(0, false, {Bid("11", "1")});
    bench.broker.waiting.clear(); // the publisher's broker dies with it
    bench.publisherTransport->SetCut(true);
    bench.Publish(1, false, {Bid("21", "1")}); // goes nowhere
    bench.PublishTrade(1, 1);
    bench.Pass(400ms);
    bench.publisherTransport->SetCut(false);
    bench.Publish(2, false, {Bid("31", "1")}); // before the publisher has looked up
    bench.Settle();
    bench.Publish(1, false, {Bid("22", "1")});
    bench.Pass(3s);
    EXPECT_EQ(a->PrintBook(), "11x1 10x1 |");
    EXPECT_EQ(b->PrintBook(), "22x1 21x1 20x1 |");
    EXPECT_EQ(c->PrintBook(), "31x1 30x1 |");
    for (const auto& listener : {a, b, c})
    {
        const std::vector<std::string> calls = listener->GetCalls();
        EXPECT_EQ(std::count(calls.begin(), calls.end(), "stale"), 1) << "before its first image";
        EXPECT_EQ(listener->GetOrderFaults(), 0U);
    }
    EXPECT_EQ(bench.provider->GetCounts().gaps, 0U);
    EXPECT_EQ(bench.provider->GetCounts().losses, 0U);
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
    EXPECT_EQ(bench.publisher->GetCounts().connections, 2U);
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

/// A model beside the real thing: whatever is lost, cut or renamed, in the end the books are the publisher's.
TEST(ZelProvider, HasThePublishersBooksAfterAnyMisfortune)
{
    for (std::uint64_t seed = 1; seed <= 40; ++seed)
    {
        SCOPED_TRACE(seed);
        SeededRandom random(seed);
        ZelBench bench;
        bench.broker.keepsLastValues = seed % 2 == 0;
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
