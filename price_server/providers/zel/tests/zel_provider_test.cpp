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

} // namespace
} // namespace ps_ns
