#include "mds/market_simulation.h"
#include "mds/mds_provider.h"
#include "mds/replay_source.h"
#include "mds/seeded_random.h"
#include "test_support.h"

#include <cstdio>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

namespace ps_ns
{
namespace
{

using namespace testing_ns;

std::unique_ptr<ReplaySource> LoopingPoloniex()
{
    ReplayOptions replay;
    replay.files = DataFiles("many_instruments", {"poloniex"});
    replay.loops = true;
    return std::make_unique<ReplaySource>(replay, OneMarket("POLONIEX"));
}

MdsOptions FullSpeed(std::size_t updatesInFlight = MdsOptions::kUsualUpdatesInFlight)
{
    MdsOptions options;
    options.speed = 0;
    options.updatesInFlight = updatesInFlight;
    return options;
}

template <class Condition>
void WaitUntil(Condition&& condition)
{
    while (!condition())
    {
        std::this_thread::yield();
    }
}

TEST(MdsProviderThreads, KeepsEveryListenersOrderInAStormOfSubscribesAndUnsubscribes)
{
    MdsProvider provider(LoopingPoloniex(), FullSpeed());
    provider.Start();
    WaitUntil([&] { return provider.GetDirectory().IsComplete(1); });

    constexpr std::uint64_t kSeed = 99;
    SeededRandom random(kSeed);
    SCOPED_TRACE("seed " + std::to_string(kSeed));
    const std::vector<std::string> symbols{"BTC_USDT", "BCH_USDT", "BCH_BTC", "SOL_USDT", "IM_BCH_BTC", "BTC_USDT"};
    std::vector<std::shared_ptr<RecordingListener>> all;
    std::vector<std::shared_ptr<RecordingListener>> joined;
    const auto witness = std::make_shared<RecordingListener>(); // of the feed's progress
    witness->KeepNoCalls();
    ASSERT_EQ(provider.Subscribe(Request(1, "BTC_USDT"), witness), SubscribeStatus::Subscribed);
    for (int round = 0; round < 2'000; ++round)
    {
        if (round % 8 == 0)
        {
            const std::size_t before = witness->GetBookCount();
            WaitUntil([&] { return witness->GetBookCount() != before; });
        }
        if (joined.size() < 2 || (joined.size() < 20 && random.Once(2)))
        {
            joined.push_back(std::make_shared<RecordingListener>());
            const std::string& symbol =
                symbols[static_cast<std::size_t>(random.Below(static_cast<std::int64_t>(symbols.size())))];
            ASSERT_EQ(provider.Subscribe(Request(1, symbol), joined.back()), SubscribeStatus::Subscribed);
            all.push_back(joined.back());
        }
        else
        {
            const auto at = random.Below(static_cast<std::int64_t>(joined.size()));
            provider.ChangeScope(joined[static_cast<std::size_t>(at)], Request(1, "", random.Once(2)).scope);
            provider.Unsubscribe(joined[static_cast<std::size_t>(at)]);
            joined.erase(joined.begin() + at);
        }
    }
    for (const auto& listener : joined)
    {
        provider.Unsubscribe(listener);
    }
    std::size_t booksHeard = 0;
    for (const auto& listener : all)
    {
        const std::vector<std::string> calls = listener->GetCalls();
        EXPECT_EQ(listener->GetOrderFaults(), 0U);
        EXPECT_EQ(calls.front(), "subscribed 0");
        EXPECT_EQ(calls.back(), "unsubscribed");
        EXPECT_EQ(std::count(calls.begin(), calls.end(), "unsubscribed"), 1);
        EXPECT_EQ(listener.use_count(), 1 + std::count(joined.begin(), joined.end(), listener));
        booksHeard += calls.size() - 2;
    }
    EXPECT_GT(booksHeard, 2 * all.size());
    EXPECT_EQ(witness->GetOrderFaults(), 0U);
    provider.Stop();
    EXPECT_EQ(provider.GetInFlight(), 0U);
}

TEST(MdsProviderThreads, HoldsNoMoreUpdatesInFlightThanItsLimit)
{
    constexpr std::size_t kLimit = 40;
    MdsProvider provider(LoopingPoloniex(), FullSpeed(kLimit));
    const auto listener = std::make_shared<RecordingListener>();
    listener->KeepUpdates();
    listener->KeepNoCalls();
    provider.Start();
    WaitUntil([&] { return provider.GetDirectory().IsComplete(1); });
    ASSERT_EQ(provider.Subscribe(Request(1, "BTC_USDT"), listener), SubscribeStatus::Subscribed);
    std::uint64_t taken = 0;
    while (taken <= 1'000)
    {
        WaitUntil([&] { return provider.IsWaitingForRoom(); });
        EXPECT_LE(provider.GetInFlight(), kLimit + 1); // and the image of the subscribe, which does not wait
        taken += listener->TakeUpdates().size();
    }
    EXPECT_LE(provider.GetMostInFlight(), kLimit + 1);
    EXPECT_EQ(listener->GetOrderFaults(), 0U); // it waited and lost nothing
    provider.Stop();
}

TEST(MdsProviderThreads, StopsWhileItWaitsForRoom)
{
    MdsProvider provider(LoopingPoloniex(), FullSpeed(3));
    const auto listener = std::make_shared<RecordingListener>();
    listener->KeepUpdates();
    provider.Start();
    WaitUntil([&] { return provider.GetDirectory().IsComplete(1); });
    ASSERT_EQ(provider.Subscribe(Request(1, "BTC_USDT"), listener), SubscribeStatus::Subscribed);
    WaitUntil([&] { return provider.IsWaitingForRoom(); });
    provider.Stop();
    const std::size_t calls = listener->GetCalls().size();
    listener->TakeUpdates();
    EXPECT_EQ(listener->GetCalls().size(), calls);
    EXPECT_EQ(provider.GetInFlight(), 0U);
}

TEST(MdsProviderThreads, StopsWhileItWaitsForTheNextMessageAndWhileItReadsItsDirectory)
{
    MdsOptions paced;
    paced.speed = 1e-9; // the second message is decades away
    paced.longestGap_ns = 0;
    MdsProvider waiting(LoopingPoloniex(), paced);
    waiting.Start();
    WaitUntil([&] { return waiting.GetDirectory().IsComplete(1); });
    waiting.Stop();

    ReplayOptions replay;
    replay.files = ThreeSegments();
    MdsProvider reading(std::make_unique<ReplaySource>(replay, OneMarket("SPOT")), FullSpeed());
    reading.Start();
    reading.Stop();
    EXPECT_TRUE(reading.HasEnded());
}

TEST(MdsProviderThreads, TellsAFeedThatHasFailedFromOneThatHasEnded)
{
    const TemporaryFolder folder;
    std::string rows;
    for (int i = 1; i <= 20'000; ++i) // several blocks of a frame: the first are whole
    {
        rows += std::to_string(i) + ",,M,A,snap,B,0,10,1," + std::to_string(i) + ",1\n";
    }
    const std::string text = ReadWholeFile(folder.WriteRows("a.csv", rows));
    const std::string compressed = Compress(text);
    const std::string cut = folder.Write("cut.csv.zst", std::string_view(compressed).substr(0, compressed.size() - 1));
    for (const auto& [file, hasFailed] : {std::pair{folder.Write("good.csv.zst", compressed), false}, {cut, true}})
    {
        ReplayOptions replay;
        replay.files = {file};
        MdsProvider provider(std::make_unique<ReplaySource>(replay, OneMarket("M")), FullSpeed());
        EXPECT_FALSE(provider.HasFailed());
        provider.Start();
        WaitUntil([&] { return provider.HasEnded(); });
        EXPECT_EQ(provider.HasFailed(), hasFailed) << file;
    }

    const std::string lost = folder.Write("lost.csv", text);
    ReplayOptions replay;
    replay.files = {lost};
    replay.loops = true;
    MdsProvider provider(std::make_unique<ReplaySource>(replay, OneMarket("M")), FullSpeed());
    provider.Start();
    WaitUntil([&] { return provider.GetDirectory().IsComplete(1); });
    EXPECT_FALSE(provider.HasFailed());
    std::remove(lost.c_str()); // the next pass cannot open it
    WaitUntil([&] { return provider.HasEnded(); });
    EXPECT_TRUE(provider.HasFailed());
}

TEST(MdsProviderThreads, EndsWithTheRecordingAndKeepsServingItsLastBook)
{
    ReplayOptions replay;
    replay.files = DataFiles("many_instruments", {"poloniex"});
    MdsProvider provider(std::make_unique<ReplaySource>(replay, OneMarket("POLONIEX")), FullSpeed());
    provider.Start();
    WaitUntil([&] { return provider.HasEnded(); });
    MdsProvider byHand(std::make_unique<ReplaySource>(replay, OneMarket("POLONIEX")), HandDriven());
    byHand.Start();
    while (byHand.Step())
    {
    }
    for (const DirectoryEntry& entry : provider.GetDirectory().GetEntries())
    {
        const auto one = std::make_shared<RecordingListener>();
        const auto two = std::make_shared<RecordingListener>();
        ASSERT_EQ(provider.Subscribe(Request(1, entry.symbol), one), SubscribeStatus::Subscribed);
        ASSERT_EQ(byHand.Subscribe(Request(1, entry.symbol), two), SubscribeStatus::Subscribed);
        EXPECT_EQ(one->PrintBook(), two->PrintBook());
        EXPECT_GT(one->PrintBook().size(), 100U) << entry.symbol;
    }
}

TEST(MdsProviderThreads, RenamesBackAndForthWhileTheFeedRuns)
{
    MdsProvider provider(LoopingPoloniex(), FullSpeed());
    provider.Start();
    WaitUntil([&] { return provider.GetDirectory().IsComplete(1); });
    std::string name = "BTC_USDT";
    for (int round = 0; round < 300; ++round)
    {
        const auto listener = std::make_shared<RecordingListener>();
        ASSERT_EQ(provider.Subscribe(Request(1, name), listener), SubscribeStatus::Subscribed);
        const std::string next = name == "BTC_USDT" ? "XBT_USDT" : "BTC_USDT";
        provider.RenameNow(std::vector<SymbolRename>{{1, name, next}});
        const std::size_t calls = listener->GetCalls().size();
        EXPECT_EQ(provider.Subscribe(Request(1, name), std::make_shared<RecordingListener>()), SubscribeStatus::Failed);
        EXPECT_EQ(listener->GetCalls().size(), calls);
        provider.Unsubscribe(listener);
        name = next;
    }
    provider.Stop();
}

} // namespace
} // namespace ps_ns
