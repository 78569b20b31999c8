#include "zel/instrument_shard.h"
#include "zel_bench.h"

#include <gtest/gtest.h>

#include <memory>
#include <set>

namespace ps_ns
{
namespace
{

using ::testing::ElementsAre;
using testing_ns::Listed;
using testing_ns::RecordingListener;
using testing_ns::ZelBench;

constexpr std::uint32_t kShards = 4;
constexpr auto kBid = BookSideType::Bid;

/// A provider in front of a broker that divides the instruments into four shards.
struct ShardBench
{
    explicit ShardBench(ZelOptions options = MakeOptions())
        : bench({Listed("A"), Listed("B"), Listed("C")}, std::move(options))
        , shard(GetShard("M", "A", kShards))
    {
        bench.broker.shards = kShards;
    }
    static ZelOptions MakeOptions()
    {
        ZelOptions options;
        options.shardCount = kShards;
        return options;
    }
    void PublishAll()
    {
        for (InstrumentIndex instrument = 0; instrument < 3; ++instrument)
        {
            bench.Publish(instrument, true, {{testing_ns::P("10"), testing_ns::Q("1"), 1, kBid}});
        }
        bench.Settle();
    }

    ZelBench bench;
    const std::uint32_t shard; ///< of instrument A
};

TEST(InstrumentShard, IsTheHashThatTheBrokerDocuments)
{
    EXPECT_EQ(GetShard("", "", 1), 0U);
    std::set<std::uint32_t> seen;
    for (int i = 0; i < 100; ++i)
    {
        const std::uint32_t shard = GetShard("M", "I" + std::to_string(i), kShards);
        EXPECT_LT(shard, kShards);
        seen.insert(shard);
    }
    EXPECT_EQ(seen.size(), kShards);
    // FNV-1a of "a" and of "foobar", 32 bits, as everywhere.
    EXPECT_EQ(GetShard("a", "", 0x7fffffff),
              ((0xe40c292cU ^ static_cast<unsigned char>('=')) * 16777619U) % 0x7fffffff);
    EXPECT_EQ(GetShard("foo", "bar", 0x7fffffff), 0xbf9cf968U % 0x7fffffff);
}

TEST(ZelShards, ServesNothingBeforeAShardIsNamed)
{
    ShardBench test;
    test.bench.Start();
    const auto listener = test.bench.Subscribe("A");
    test.PublishAll();
    EXPECT_EQ(test.bench.provider->GetDirectory().GetSize(), 3U) << "every instrument is listed";
    EXPECT_EQ(test.bench.provider->GetCounts().followed, 0U);
    EXPECT_EQ(test.bench.provider->GetCounts().messages, 0U);
    EXPECT_THAT(listener->GetCalls(), ElementsAre("subscribed 0", "stale"));
}

TEST(ZelShards, GivesTheBookToThoseWhoHaveWaitedForTheShard)
{
    ShardBench test;
    test.bench.Start();
    test.PublishAll();
    const auto listener = test.bench.Subscribe("A");
    test.bench.Settle();
    test.bench.provider->ServeShard(test.shard);
    test.bench.Settle();
    EXPECT_EQ(test.bench.provider->GetCounts().live, 1U);
    EXPECT_EQ(test.bench.provider->GetCounts().images, 1U);
    EXPECT_THAT(listener->GetCalls(), ElementsAre("subscribed 0", "stale", "fresh", "image"));
    EXPECT_EQ(listener->PrintBook(), "10x1 |");
}

TEST(ZelShards, TellsThatBooksAreStaleWhenTheShardIsLeftAndFreshWhenItIsBack)
{
    ShardBench test;
    test.bench.Start();
    test.PublishAll();
    test.bench.provider->ServeShard(test.shard);
    const auto listener = test.bench.Subscribe("A");
    test.bench.Settle();
    ASSERT_EQ(test.bench.provider->GetCounts().live, 1U);
    ASSERT_FALSE(listener->IsStale());

    test.bench.provider->LeaveShard(test.shard);
    EXPECT_TRUE(listener->IsStale());
    EXPECT_EQ(test.bench.provider->GetCounts().live, 0U);
    EXPECT_EQ(test.bench.provider->GetCounts().followed, 0U);
    test.PublishAll();
    EXPECT_EQ(test.bench.provider->GetCounts().messages, 1U) << "nothing of the shard is taken in any more";
    test.bench.Publish(0, false, {{testing_ns::P("9"), testing_ns::Q("2"), 1, kBid}});

    test.bench.provider->ServeShard(test.shard);
    test.bench.Pass(std::chrono::milliseconds(300));
    EXPECT_EQ(test.bench.provider->GetCounts().live, 1U);
    EXPECT_FALSE(listener->IsStale());
    EXPECT_EQ(listener->PrintBook(), "10x1 9x2 |");
}

TEST(ZelShards, RefusesInstrumentsOfAnotherServer)
{
    ZelOptions options = ShardBench::MakeOptions();
    bool isElsewhere = true;
    options.isServedElsewhere = [&isElsewhere](std::uint32_t) { return isElsewhere; };
    ShardBench test(std::move(options));
    const auto early = test.bench.Subscribe("A", SubscribeStatus::Pending);
    test.bench.Start();
    EXPECT_THAT(early->GetCalls(), ElementsAre("subscribed 17"));
    test.bench.Subscribe("A", SubscribeStatus::Failed);
    isElsewhere = false;
    test.bench.Subscribe("A", SubscribeStatus::Subscribed);
    isElsewhere = true;
    test.bench.provider->ServeShard(test.shard);
    test.bench.Subscribe("A", SubscribeStatus::Subscribed);
}

TEST(ZelShards, SurvivesALostFeedWhileAShardIsNotServed)
{
    ShardBench test;
    test.bench.Start();
    test.PublishAll();
    const auto listener = test.bench.Subscribe("A");
    test.bench.broker.SetUp(false);
    test.bench.broker.SetUp(true);
    test.bench.Pass(std::chrono::milliseconds(300));
    EXPECT_EQ(test.bench.provider->GetCounts().followed, 0U);
    test.bench.provider->ServeShard(test.shard);
    test.bench.Pass(std::chrono::milliseconds(300));
    EXPECT_EQ(test.bench.provider->GetCounts().live, 1U);
}

} // namespace
} // namespace ps_ns
