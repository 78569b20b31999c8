#include "mailbox.h"
#include "outbound_queue.h"
#include "rate_limit.h"
#include "session_subscription.h"
#include "subscription_slots.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
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

std::string ToText(const OutboundBatch& batch)
{
    std::string text;
    batch.ForEachPart([&](std::string_view part) { text += part; });
    return text;
}

// --- OutboundQueue ---

TEST(OutboundQueue, CountsWhatIsQueuedAndWhatIsBeingWritten)
{
    OutboundQueue queue(100, 1000, 60);
    EXPECT_TRUE(queue.IsEmpty());
    queue.Push(std::string(60, 'a'));
    queue.Push(std::string(50, 'b'));
    EXPECT_EQ(queue.GetUnsent(), 110U);
    OutboundBatch batch = queue.BeginWrite();
    EXPECT_EQ(ToText(batch), std::string(60, 'a'));
    EXPECT_EQ(batch.GetLineCount(), 1U);
    EXPECT_EQ(queue.GetUnsent(), 110U) << "written is not sent";
    queue.FinishWrite(std::move(batch));
    EXPECT_EQ(queue.GetUnsent(), 50U);
}

TEST(OutboundQueue, WritesLinesInTheirOrderAsManyAtATimeAsFit)
{
    OutboundQueue queue(100, 1000, 5);
    for (int i = 0; i < 7; ++i)
    {
        queue.Push(std::to_string(i));
    }
    std::string all;
    std::uint64_t count = 0;
    while (!queue.IsEmpty())
    {
        OutboundBatch batch = queue.BeginWrite();
        all += ToText(batch) + '|';
        count += batch.GetLineCount();
        queue.FinishWrite(std::move(batch));
    }
    EXPECT_EQ(all, "0\n1\n2|3\n4\n5|6|");
    EXPECT_EQ(count, 7U);
    EXPECT_EQ(queue.GetUnsent(), 0U);
}

TEST(OutboundQueue, TakesSeveralLinesAtOnce)
{
    OutboundQueue queue(100, 1000);
    queue.Push("a");
    queue.Push("b\nc", 2);
    const OutboundBatch batch = queue.BeginWrite();
    EXPECT_EQ(ToText(batch), "a\nb\nc");
    EXPECT_EQ(batch.GetLineCount(), 3U);
}

TEST(OutboundQueue, WritesATextThatIsLongerThanAWriteAlone)
{
    OutboundQueue queue(100, 1000, 10);
    queue.Push(std::string(500, 'a'));
    queue.Push("b");
    OutboundBatch batch = queue.BeginWrite();
    EXPECT_EQ(batch.GetSize(), 500U);
    queue.FinishWrite(std::move(batch));
    EXPECT_EQ(ToText(queue.BeginWrite()), "b");
}

TEST(OutboundQueue, ConflatesAndEndsAboveItsMarksAndNotAtThem)
{
    OutboundQueue queue(100, 200);
    queue.Push(std::string(100, 'a'));
    EXPECT_FALSE(queue.MustConflate());
    EXPECT_TRUE(queue.HasRoomFor(100));
    EXPECT_FALSE(queue.HasRoomFor(101));
    queue.Push("");
    EXPECT_TRUE(queue.MustConflate());
    queue.Push(std::string(98, 'c'));
    EXPECT_FALSE(queue.IsOverfull());
    queue.Push("");
    EXPECT_TRUE(queue.IsOverfull());
}

TEST(OutboundQueue, KeepsOnlyWhatIsBeingWrittenWhenItIsCleared)
{
    OutboundQueue queue(100, 200, 30);
    queue.Push(std::string(30, 'a'));
    queue.Push(std::string(30, 'b'));
    OutboundBatch batch = queue.BeginWrite();
    queue.Clear();
    EXPECT_TRUE(queue.IsEmpty());
    EXPECT_EQ(queue.GetUnsent(), 30U);
    queue.FinishWrite(std::move(batch));
    EXPECT_EQ(queue.GetUnsent(), 0U);
}

TEST(OutboundQueue, BeginsAfreshWithTheMemoryOfWhatWasWritten)
{
    OutboundQueue queue(100, 200);
    queue.Push("old");
    queue.FinishWrite(queue.BeginWrite());
    queue.Push("new");
    EXPECT_EQ(ToText(queue.BeginWrite()), "new");
}

TEST(OutboundQueue, SharesLongTextsAndCopiesShortOnes)
{
    OutboundQueue queue(100'000, 100'000);
    const auto shortText = std::make_shared<const std::string>("short");
    const auto longText = std::make_shared<const std::string>(OutboundBatch::kShareFrom_bytes, 'x');
    queue.Push(shortText);
    queue.Push(longText, 7);
    queue.Push(longText);
    queue.Push("end");
    EXPECT_EQ(shortText.use_count(), 1);
    EXPECT_EQ(longText.use_count(), 3);
    OutboundBatch batch = queue.BeginWrite();
    EXPECT_EQ(ToText(batch), "short\n" + *longText + "\n" + *longText + "\nend");
    EXPECT_EQ(batch.GetSize(), ToText(batch).size());
    EXPECT_EQ(batch.GetLineCount(), 10U);
    queue.FinishWrite(std::move(batch));
    EXPECT_EQ(longText.use_count(), 1) << "what has been written is let go";
    EXPECT_EQ(queue.GetUnsent(), 0U);
}

TEST(OutboundQueue, KeepsTheOrderOfManyTextsOfAllLengths)
{
    OutboundQueue queue(100'000'000, 100'000'000);
    std::string expected;
    for (std::size_t i = 0; i < 2000; ++i)
    {
        const auto text = std::make_shared<const std::string>((i * 37) % 5000, static_cast<char>('a' + i % 26));
        expected += *text + '\n';
        queue.Push(text);
    }
    std::string all;
    while (!queue.IsEmpty())
    {
        OutboundBatch batch = queue.BeginWrite();
        EXPECT_LE(batch.GetSize(), OutboundQueue::kWriteBytes);
        all += ToText(batch) + '\n';
        queue.FinishWrite(std::move(batch));
    }
    EXPECT_EQ(all, expected);
}

// --- Mailbox ---

class MailboxTest : public ::testing::Test
{
protected:
    Mailbox::Content Take()
    {
        Mailbox::Content content;
        mailbox->Take(content);
        return content;
    }

    int wakes = 0;
    std::shared_ptr<Mailbox> mailbox =
        std::make_shared<Mailbox>([this](const auto& woken) { wakes += woken == mailbox ? 1 : 1000; });
};

TEST_F(MailboxTest, WakesOnceUntilItIsEmptied)
{
    mailbox->PushBook(1, MakeBook(1));
    mailbox->PushText(1, "text");
    mailbox->PushTrades(1, MakeTrades(1));
    EXPECT_EQ(wakes, 1);
    EXPECT_EQ(Take().events.size(), 3U);
    EXPECT_EQ(wakes, 1);
    mailbox->PushFields(1, std::make_shared<const CustomFields>());
    EXPECT_EQ(wakes, 2);
}

TEST_F(MailboxTest, KeepsTheOrderOfAllKinds)
{
    mailbox->PushText(1, "text");
    mailbox->PushBook(2, MakeBook(5));
    mailbox->PushTrades(1, MakeTrades(3));
    mailbox->PushBook(1, MakeBook(6));
    mailbox->PushText(std::weak_ptr<ClientSession>(), "of the session");
    const Mailbox::Content content = Take();
    ASSERT_EQ(content.events.size(), 5U);
    EXPECT_EQ(std::get<std::string>(content.events[0].what), "text");
    EXPECT_EQ(std::get<SharedBook>(content.events[1].what)->sequence, 5U);
    EXPECT_EQ(std::get<SharedTrades>(content.events[2].what)->size(), 3U);
    EXPECT_EQ(std::get<SharedBook>(content.events[3].what)->sequence, 6U);
    EXPECT_EQ(std::get<Mailbox::SessionText>(content.events[4].what).text, "of the session");
    EXPECT_EQ(content.events[4].receivers, 0U);
    EXPECT_EQ(content.receivers, (std::vector<unsigned long>{1, 2, 1, 1}));
    EXPECT_TRUE(content.overflow.empty());
    EXPECT_TRUE(Take().events.empty());
}

TEST_F(MailboxTest, KeepsOnceWhatManyAreToldOneAfterAnother)
{
    const SharedBook first = MakeBook(1);
    const SharedBook second = MakeBook(2);
    for (const unsigned long id : {7U, 8U, 9U})
    {
        mailbox->PushBook(id, first);
    }
    mailbox->PushBook(7, second);
    mailbox->PushBook(8, second);
    mailbox->PushBook(7, first);
    const Mailbox::Content content = Take();
    ASSERT_EQ(content.events.size(), 3U);
    EXPECT_EQ(content.events[0].receivers, 3U);
    EXPECT_EQ(content.events[1].receivers, 2U);
    EXPECT_EQ(content.events[2].receivers, 1U);
    EXPECT_EQ(content.receivers, (std::vector<unsigned long>{7, 8, 9, 7, 8, 7}));
    EXPECT_EQ(first.use_count(), 3) << "here, and once for each of two events";
}

TEST_F(MailboxTest, IsBoundedAndCountsWhatItLeavesOut)
{
    for (std::size_t i = 0; i < Mailbox::kMostEvents + 10; ++i)
    {
        mailbox->PushBook(1, MakeBook(i + 1));
    }
    for (int i = 0; i < 5; ++i)
    {
        mailbox->PushTrades(1, MakeTrades(3));
    }
    auto fields = std::make_shared<CustomFields>();
    fields->sequence = 8;
    mailbox->PushFields(1, std::make_shared<const CustomFields>());
    mailbox->PushFields(1, fields);
    mailbox->PushText(1, "never dropped");
    Mailbox::Content content = Take();
    EXPECT_EQ(content.events.size(), Mailbox::kMostEvents + 1);
    EXPECT_EQ(content.receivers.size(), Mailbox::kMostEvents + 1);
    EXPECT_EQ(content.overflow[1].book->sequence, Mailbox::kMostEvents + 10);
    EXPECT_EQ(content.overflow[1].skippedBooks, 9U);
    EXPECT_EQ(content.overflow[1].lostTrades, 15U);
    EXPECT_EQ(content.overflow[1].fields->sequence, 8U);
}

TEST_F(MailboxTest, IsBoundedInItsReceiversToo)
{
    const SharedBook first = MakeBook(1);
    for (unsigned long id = 0; id < Mailbox::kMostReceivers; ++id)
    {
        mailbox->PushBook(id, first);
    }
    mailbox->PushBook(1, MakeBook(2));
    mailbox->PushBook(1, MakeBook(3));
    Mailbox::Content content = Take();
    EXPECT_EQ(content.events.size(), 1U);
    EXPECT_EQ(content.receivers.size(), Mailbox::kMostReceivers);
    EXPECT_EQ(content.overflow[1].book->sequence, 3U);
    EXPECT_EQ(content.overflow[1].skippedBooks, 1U);
}

TEST_F(MailboxTest, TakesNothingInOnceItIsClosed)
{
    mailbox->PushBook(1, MakeBook(1));
    mailbox->Close();
    mailbox->PushBook(1, MakeBook(2));
    mailbox->PushText(1, "text");
    EXPECT_TRUE(Take().events.empty());
    EXPECT_EQ(wakes, 1);
}

TEST_F(MailboxTest, LetsItsContentGoWhenItIsClosed)
{
    const SharedBook book = MakeBook(1);
    mailbox->PushBook(1, book);
    EXPECT_EQ(book.use_count(), 2);
    mailbox->Close();
    EXPECT_EQ(book.use_count(), 1);
}

TEST(Mailbox, LosesNothingBetweenThreads)
{
    constexpr std::uint64_t kEach = 20'000;
    std::atomic<int> wakes{0};
    const auto mailbox = std::make_shared<Mailbox>([&](const auto&) { ++wakes; });
    std::vector<std::thread> producers;
    for (unsigned long id = 1; id <= 2; ++id)
    {
        producers.emplace_back(
            [&, id]
            {
                for (std::uint64_t i = 1; i <= kEach; ++i)
                {
                    mailbox->PushBook(id, MakeBook(i));
                }
            });
    }
    std::map<unsigned long, std::uint64_t> seen;
    std::map<unsigned long, std::uint64_t> last;
    Mailbox::Content content;
    const auto take = [&]
    {
        mailbox->Take(content);
        ASSERT_EQ(content.events.size(), content.receivers.size());
        for (std::size_t i = 0; i < content.events.size(); ++i)
        {
            const unsigned long id = content.receivers[i];
            const std::uint64_t sequence = std::get<SharedBook>(content.events[i].what)->sequence;
            EXPECT_GT(sequence, last[id]);
            last[id] = sequence;
            ++seen[id];
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

// --- SubscriptionSlots ---

class SubscriptionSlotsTest : public ::testing::Test
{
protected:
    /// Never looked at.
    ClientSession& session = *reinterpret_cast<ClientSession*>(&memory);
    SessionSubscription one;
    SessionSubscription two;
    SubscriptionSlots slots;

private:
    std::uint64_t memory = 0;
};

TEST_F(SubscriptionSlotsTest, FindWhatHasBeenSetUntilItIsRemoved)
{
    const unsigned long id = slots.Add(session);
    EXPECT_EQ(slots.Find(id), nullptr) << "not subscribed yet";
    slots.Set(id, one);
    ASSERT_NE(slots.Find(id), nullptr);
    EXPECT_EQ(slots.Find(id)->subscription, &one);
    EXPECT_EQ(slots.Find(id)->session, &session);
    slots.Remove(id);
    EXPECT_EQ(slots.Find(id), nullptr);
}

TEST_F(SubscriptionSlotsTest, UseAPlaceAgainAndNeverAnId)
{
    const unsigned long first = slots.Add(session);
    slots.Set(first, one);
    slots.Remove(first);
    const unsigned long second = slots.Add(session);
    slots.Set(second, two);
    EXPECT_NE(first, second);
    EXPECT_EQ(slots.Find(first), nullptr);
    EXPECT_EQ(slots.Find(second)->subscription, &two);
    const unsigned long third = slots.Add(session);
    EXPECT_EQ(slots.Find(second)->subscription, &two) << third;
}

TEST_F(SubscriptionSlotsTest, LeaveTheIdsBelowTheFirst32BitsToTheServer)
{
    for (int i = 0; i < 1000; ++i)
    {
        EXPECT_GE(slots.Add(session), 1UL << 32);
    }
    EXPECT_EQ(slots.Find(0), nullptr);
    EXPECT_EQ(slots.Find(17), nullptr);
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
