/// What a publisher puts with the broker for the time after it.

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

} // namespace
} // namespace ps_ns
