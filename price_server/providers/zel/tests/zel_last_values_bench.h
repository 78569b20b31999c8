#pragma once

#include "zel/instrument_shard.h"
#include "zel_bench.h"

namespace ps_ns::testing_ns
{

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
        for (; time.count() > 0; time -= std::chrono::milliseconds(50))
        {
            bench.now += std::chrono::milliseconds(50);
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
        PublishFor(std::chrono::seconds(3));
        KillPublisher();
    }
    void StartProvider()
    {
        bench.provider->Start();
        bench.Pass(std::chrono::seconds(1));
    }
};

/// The same with a provider that serves one shard of four at most, and none at first; somebody listens to A.
struct ShardedLateBench : LateBench
{
    static constexpr std::uint32_t kShards = 4;

    ShardedLateBench()
        : LateBench(MakeOptions())
    {
        bench.broker.shards = kShards;
        StartProvider();
        listener = bench.Subscribe("A");
    }
    static ZelOptions MakeOptions()
    {
        ZelOptions options;
        options.shardCount = kShards;
        return options;
    }

    const unsigned shardOfA = GetShard("M", "A", kShards);
    std::shared_ptr<RecordingListener> listener;
};

} // namespace ps_ns::testing_ns
