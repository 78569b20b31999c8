#include "inbox.h"
#include "outbound_queue.h"
#include "rate_limit.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace ps_ns::gateway
{
namespace
{

using namespace std::chrono_literals;

SharedBook MakeBook(std::uint64_t sequence)
{
    auto book = std::make_shared<MergedOrderBook>(1, 1);
    book->sequence = sequence;
    return book;
}

SharedTrades MakeTrades(std::size_t count)
{
    return std::make_shared<const std::vector<Trade>>(count);
}

// --- OutboundQueue ---

TEST(OutboundQueue, CountsWhatIsQueuedAndWhatIsBeingWritten)
{
    OutboundQueue queue(100, 1000);
    EXPECT_TRUE(queue.IsEmpty());
    queue.Push(std::string(60, 'a'));
    queue.Push(std::string(60, 'b'));
    EXPECT_EQ(queue.GetUnsent(), 120U);
    EXPECT_EQ(queue.BeginWrite(60).size(), 1U);
    EXPECT_EQ(queue.GetUnsent(), 120U) << "written is not sent";
    queue.FinishWrite();
    EXPECT_EQ(queue.GetUnsent(), 60U);
}

TEST(OutboundQueue, KeepsItsOrderAcrossWrites)
{
    OutboundQueue queue(100, 1000);
    for (int i = 0; i < 7; ++i)
    {
        queue.Push(std::to_string(i));
    }
    std::string all;
    while (!queue.IsEmpty())
    {
        for (const SharedText& text : queue.BeginWrite(3))
        {
            all += *text;
        }
        all += '|';
        queue.FinishWrite();
    }
    EXPECT_EQ(all, "012|345|6|");
}

TEST(OutboundQueue, WritesATextThatIsLongerThanAWriteAlone)
{
    OutboundQueue queue(100, 1000);
    queue.Push(std::string(500, 'a'));
    queue.Push(std::string("b"));
    EXPECT_EQ(queue.BeginWrite(10).size(), 1U);
    queue.FinishWrite();
    EXPECT_EQ(*queue.BeginWrite(10).front(), "b");
}

TEST(OutboundQueue, ConflatesAndEndsAboveItsMarksAndNotAtThem)
{
    OutboundQueue queue(100, 200);
    queue.Push(std::string(100, 'a'));
    EXPECT_FALSE(queue.MustConflate());
    EXPECT_TRUE(queue.HasRoomFor(100));
    EXPECT_FALSE(queue.HasRoomFor(101));
    queue.Push(std::string("b"));
    EXPECT_TRUE(queue.MustConflate());
    queue.Push(std::string(99, 'c'));
    EXPECT_FALSE(queue.IsOverfull());
    queue.Push(std::string("d"));
    EXPECT_TRUE(queue.IsOverfull());
}

TEST(OutboundQueue, KeepsOnlyWhatIsBeingWrittenWhenItIsCleared)
{
    OutboundQueue queue(100, 200);
    queue.Push(std::string(30, 'a'));
    queue.Push(std::string(30, 'b'));
    const auto writing = queue.BeginWrite(30);
    queue.Clear();
    EXPECT_TRUE(queue.IsEmpty());
    EXPECT_EQ(queue.GetUnsent(), 30U);
    queue.FinishWrite();
    EXPECT_EQ(queue.GetUnsent(), 0U);
}

TEST(OutboundQueue, SharesTextsWithOtherQueues)
{
    const auto text = std::make_shared<const std::string>("shared");
    OutboundQueue first(100, 200);
    OutboundQueue second(100, 200);
    first.Push(text);
    second.Push(text);
    EXPECT_EQ(first.BeginWrite(10).front(), second.BeginWrite(10).front());
}

// --- Inbox ---

class InboxTest : public ::testing::Test
{
protected:
    int wakes = 0;
    Inbox inbox{[this] { ++wakes; }};
};

TEST_F(InboxTest, WakesOnceUntilItIsEmptied)
{
    inbox.PushBook(1, MakeBook(1));
    inbox.PushText(1, "text");
    inbox.PushTrades(1, MakeTrades(1));
    EXPECT_EQ(wakes, 1);
    EXPECT_EQ(inbox.Take().events.size(), 3U);
    EXPECT_EQ(wakes, 1);
    inbox.PushFields(1, std::make_shared<const CustomFields>());
    EXPECT_EQ(wakes, 2);
}

TEST_F(InboxTest, KeepsTheOrderOfAllKinds)
{
    inbox.PushText(1, "text");
    inbox.PushBook(2, MakeBook(5));
    inbox.PushTrades(1, MakeTrades(3));
    inbox.PushBook(1, MakeBook(6));
    const Inbox::Content content = inbox.Take();
    ASSERT_EQ(content.events.size(), 4U);
    EXPECT_EQ(std::get<std::string>(content.events[0].what), "text");
    EXPECT_EQ(content.events[1].subscription, 2U);
    EXPECT_EQ(std::get<SharedTrades>(content.events[2].what)->size(), 3U);
    EXPECT_EQ(std::get<SharedBook>(content.events[3].what)->sequence, 6U);
    EXPECT_TRUE(content.overflow.empty());
    EXPECT_TRUE(inbox.Take().events.empty());
}

TEST_F(InboxTest, KeepsTheLatestBookOfEachSubscriptionWhileItConflates)
{
    inbox.SetConflating(true);
    for (std::uint64_t i = 1; i <= 5; ++i)
    {
        inbox.PushBook(1, MakeBook(i));
    }
    inbox.PushBook(2, MakeBook(9));
    Inbox::Content content = inbox.Take();
    EXPECT_TRUE(content.events.empty());
    EXPECT_EQ(content.overflow[1].book->sequence, 5U);
    EXPECT_EQ(content.overflow[1].skippedBooks, 4U);
    EXPECT_EQ(content.overflow[2].skippedBooks, 0U);
}

TEST_F(InboxTest, DoesNotLetABookOvertakeTheOneThatIsKept)
{
    inbox.SetConflating(true);
    inbox.PushBook(1, MakeBook(1));
    inbox.SetConflating(false);
    inbox.PushBook(1, MakeBook(2));
    inbox.PushBook(2, MakeBook(7));
    Inbox::Content content = inbox.Take();
    EXPECT_EQ(content.events.size(), 1U);
    EXPECT_EQ(content.overflow[1].book->sequence, 2U);
    EXPECT_EQ(content.overflow[1].skippedBooks, 1U);
}

TEST_F(InboxTest, IsBoundedAndCountsWhatItLeavesOut)
{
    for (std::size_t i = 0; i < Inbox::kMostEvents + 10; ++i)
    {
        inbox.PushBook(1, MakeBook(i + 1));
    }
    for (int i = 0; i < 5; ++i)
    {
        inbox.PushTrades(1, MakeTrades(3));
    }
    auto fields = std::make_shared<CustomFields>();
    fields->sequence = 8;
    inbox.PushFields(1, std::make_shared<const CustomFields>());
    inbox.PushFields(1, fields);
    inbox.PushText(1, "never dropped");
    Inbox::Content content = inbox.Take();
    EXPECT_EQ(content.events.size(), Inbox::kMostEvents + 1);
    EXPECT_EQ(content.overflow[1].book->sequence, Inbox::kMostEvents + 10);
    EXPECT_EQ(content.overflow[1].skippedBooks, 9U);
    EXPECT_EQ(content.overflow[1].lostTrades, 15U);
    EXPECT_EQ(content.overflow[1].fields->sequence, 8U);
}

TEST_F(InboxTest, TakesNothingInOnceItIsClosed)
{
    inbox.PushBook(1, MakeBook(1));
    inbox.Close();
    inbox.PushBook(1, MakeBook(2));
    inbox.PushText(1, "text");
    EXPECT_TRUE(inbox.Take().events.empty());
    EXPECT_EQ(wakes, 1);
}

TEST_F(InboxTest, LetsItsContentGoWhenItIsClosed)
{
    const SharedBook book = MakeBook(1);
    inbox.PushBook(1, book);
    EXPECT_EQ(book.use_count(), 2);
    inbox.Close();
    EXPECT_EQ(book.use_count(), 1);
}

TEST(Inbox, LosesNothingBetweenThreads)
{
    constexpr std::uint64_t kEach = 20'000;
    std::atomic<int> wakes{0};
    Inbox inbox([&] { ++wakes; });
    std::vector<std::thread> producers;
    for (unsigned long id = 1; id <= 2; ++id)
    {
        producers.emplace_back(
            [&, id]
            {
                for (std::uint64_t i = 1; i <= kEach; ++i)
                {
                    inbox.PushBook(id, MakeBook(i));
                }
            });
    }
    std::map<unsigned long, std::uint64_t> seen;
    std::map<unsigned long, std::uint64_t> last;
    const auto take = [&]
    {
        Inbox::Content content = inbox.Take();
        for (const Inbox::Event& event : content.events)
        {
            const std::uint64_t sequence = std::get<SharedBook>(event.what)->sequence;
            EXPECT_GT(sequence, last[event.subscription]);
            last[event.subscription] = sequence;
            ++seen[event.subscription];
        }
        for (const auto& [id, overflow] : content.overflow)
        {
            EXPECT_GT(overflow.book->sequence, last[id]);
            last[id] = overflow.book->sequence;
            seen[id] += 1 + overflow.skippedBooks;
        }
    };
    while (last[1] < kEach || last[2] < kEach)
    {
        take();
    }
    for (std::thread& producer : producers)
    {
        producer.join();
    }
    EXPECT_EQ(seen[1], kEach);
    EXPECT_EQ(seen[2], kEach);
    EXPECT_GE(wakes.load(), 1);
}

// --- RateLimit ---

TEST(RateLimit, LetsTwiceTheRateThroughAtOnce)
{
    const auto begin = RateLimit::Clock::time_point{} + 100s;
    RateLimit limit(10, begin);
    for (int i = 0; i < 20; ++i)
    {
        EXPECT_TRUE(limit.Take(begin)) << i;
    }
    EXPECT_FALSE(limit.Take(begin));
}

TEST(RateLimit, FillsUpWithTimeAndNotBeyondItsSize)
{
    auto now = RateLimit::Clock::time_point{} + 100s;
    RateLimit limit(10, now);
    while (limit.Take(now))
    {
    }
    EXPECT_FALSE(limit.Take(now + 50ms));
    EXPECT_TRUE(limit.Take(now + 101ms));
    EXPECT_FALSE(limit.Take(now + 101ms));
    now += 1h;
    int passed = 0;
    while (limit.Take(now))
    {
        ++passed;
    }
    EXPECT_EQ(passed, 20);
}

TEST(RateLimit, HoldsTheRateInTheLongRun)
{
    auto now = RateLimit::Clock::time_point{} + 100s;
    RateLimit limit(100, now);
    int passed = 0;
    for (int i = 0; i < 10'000; ++i)
    {
        now += 1ms;
        passed += limit.Take(now) ? 1 : 0;
    }
    EXPECT_NEAR(passed, 1200, 2);
}

} // namespace
} // namespace ps_ns::gateway
