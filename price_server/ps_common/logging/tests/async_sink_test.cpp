#include "logging/sinks.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <latch>
#include <stdexcept>
#include <thread>

using namespace zel::logging;

namespace
{

/// Holds its writer at a gate while that is closed, and keeps what passed.
class GatedSink final : public ISink
{
public:
    void Write(const Record& record) noexcept override
    {
        std::unique_lock lock(m_mutex);
        ++m_arrived;
        m_changed.notify_all();
        m_changed.wait(lock, [this] { return m_open; });
        m_threads.push_back(record.thread);
        m_times.push_back(record.time);
        m_kept.Write(record);
        m_flushed = false;
    }

    void Flush() noexcept override
    {
        const std::lock_guard lock(m_mutex);
        m_flushed = true;
        m_changed.notify_all();
    }

    void WaitForArrivals(int count)
    {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [this, count] { return m_arrived >= count; });
    }

    void WaitForFlush()
    {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [this] { return m_flushed; });
    }

    void SetOpen(bool open)
    {
        const std::lock_guard lock(m_mutex);
        m_open = open;
        m_changed.notify_all();
    }

    std::vector<std::string> GetTexts() const
    {
        std::vector<std::string> texts;
        for (const CapturedRecord& record : m_kept.GetRecords())
        {
            texts.push_back(record.text);
        }
        return texts;
    }

    CapturingSink m_kept;                                       ///< has a lock of its own
    std::vector<unsigned long> m_threads;                       ///< under m_mutex; read when the writer is gone
    std::vector<std::chrono::system_clock::time_point> m_times; ///< as m_threads

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_open = false;    ///< under m_mutex
    bool m_flushed = false; ///< under m_mutex; nothing was written since the last Flush
    int m_arrived = 0;      ///< under m_mutex
};

class AsyncSinkTest : public testing::Test
{
protected:
    static constexpr std::size_t kCapacity = 3;

    Record MakeRecord(std::string_view text) const { return {10, 13, 1, &m_source, "a.cpp", 7, text}; }

    /// One record stands at the gate, `kCapacity` wait behind it.
    void FillQueue()
    {
        m_sink->Write(MakeRecord("at the gate"));
        m_next->WaitForArrivals(1);
        for (std::size_t i = 0; i < kCapacity; ++i)
        {
            m_sink->Write(MakeRecord("queued " + std::to_string(i)));
        }
    }

    const Source m_source{"unit"};
    const std::shared_ptr<GatedSink> m_next = std::make_shared<GatedSink>();
    std::unique_ptr<AsyncSink> m_sink = std::make_unique<AsyncSink>(m_next, kCapacity);

    ~AsyncSinkTest() override { m_next->SetOpen(true); } // a test that failed early must not wait for ever
};

const std::string kLost = "records lost here because the queue of the log was full: ";

} // namespace

TEST_F(AsyncSinkTest, WritesInOrderWhatFitsTheQueue)
{
    FillQueue();
    EXPECT_EQ(m_sink->GetDroppedCount(), 0U);
    m_next->SetOpen(true);
    m_sink->Flush();
    EXPECT_EQ(m_next->GetTexts(), (std::vector<std::string>{"at the gate", "queued 0", "queued 1", "queued 2"}));
}

TEST_F(AsyncSinkTest, DropsAndCountsWhatFindsNoRoom)
{
    FillQueue();
    m_sink->Write(MakeRecord("dropped"));
    m_sink->Write(MakeRecord("dropped"));
    EXPECT_EQ(m_sink->GetDroppedCount(), 2U);
    m_next->SetOpen(true);
    m_sink->Flush();
    EXPECT_EQ(m_next->GetTexts().size(), kCapacity + 1);
}

TEST_F(AsyncSinkTest, TellsTheLossBeforeTheNextRecordThatFindsRoom)
{
    FillQueue();
    m_sink->Write(MakeRecord("dropped"));
    m_sink->Write(MakeRecord("dropped"));
    m_next->SetOpen(true);
    m_sink->Flush();
    m_sink->Write(MakeRecord("after"));
    m_sink->Write(MakeRecord("last"));
    m_sink->Flush();
    const auto records = m_next->m_kept.GetRecords();
    ASSERT_EQ(records.size(), kCapacity + 4);
    EXPECT_EQ(records[4].text, kLost + "2");
    EXPECT_EQ(records[4].level, 30);
    EXPECT_EQ(records[4].source, "logging");
    EXPECT_EQ(records[4].file, "price_server/ps_common/logging/source/async_sink.cpp");
    EXPECT_EQ(records[5].text, "after");
    EXPECT_EQ(records[6].text, "last");
    EXPECT_EQ(m_sink->GetDroppedCount(), 2U);
}

TEST_F(AsyncSinkTest, TellsEachLossWhereItHappened)
{
    FillQueue();
    m_sink->Write(MakeRecord("dropped"));
    m_next->SetOpen(true);
    m_sink->Flush();
    m_next->SetOpen(false);
    m_sink->Write(MakeRecord("second gate"));
    m_next->WaitForArrivals(5); // the loss record stands at the gate, "second gate" is out of the queue too
    for (std::size_t i = 0; i < kCapacity + 3; ++i)
    {
        m_sink->Write(MakeRecord("more"));
    }
    m_next->SetOpen(true);
    m_sink->Flush();
    m_sink->Write(MakeRecord("end"));
    m_sink.reset();
    EXPECT_EQ(m_next->GetTexts(),
              (std::vector<std::string>{"at the gate", "queued 0", "queued 1", "queued 2", kLost + "1", "second gate",
                                        "more", "more", "more", kLost + "3", "end"}));
}

TEST_F(AsyncSinkTest, CopiesTheRecordWholeWithTimeAndThread)
{
    Record original = MakeRecord("x");
    original.time -= std::chrono::hours(1);
    original.thread += 1000000; // no thread of this test
    {
        std::string text = "a text that is too long to be kept inside a string object";
        std::string file = "some/file.cpp";
        const auto source = std::make_unique<Source>("a source with a long, long name");
        Record record{21, 5, 2, source.get(), file.c_str(), 8, text, original.time, original.thread};
        m_sink->Write(record);
        text.assign(text.size(), '#');
        file.assign(file.size(), '#');
    }
    m_next->SetOpen(true);
    m_sink.reset();
    const auto records = m_next->m_kept.GetRecords();
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].level, 21);
    EXPECT_EQ(records[0].tag, 5U);
    EXPECT_EQ(records[0].decodeType, 2U);
    EXPECT_EQ(records[0].source, "a source with a long, long name");
    EXPECT_EQ(records[0].file, "some/file.cpp");
    EXPECT_EQ(records[0].line, 8);
    EXPECT_EQ(records[0].text, "a text that is too long to be kept inside a string object");
    EXPECT_EQ(m_next->m_threads, std::vector{original.thread});
    EXPECT_EQ(m_next->m_times, std::vector{original.time});
}

TEST_F(AsyncSinkTest, WritesWhatIsQueuedWhenItIsDestroyed)
{
    FillQueue();
    m_next->SetOpen(true);
    m_sink.reset();
    EXPECT_EQ(m_next->GetTexts().size(), kCapacity + 1);
}

TEST_F(AsyncSinkTest, TellsALossThatNoRecordFollowedWhenItIsDestroyed)
{
    FillQueue();
    m_sink->Write(MakeRecord("dropped"));
    m_next->SetOpen(true);
    m_sink.reset();
    const auto texts = m_next->GetTexts();
    ASSERT_EQ(texts.size(), kCapacity + 2);
    EXPECT_EQ(texts.back(), kLost + "1");
}

TEST_F(AsyncSinkTest, FlushesTheNextSinkWheneverTheQueueIsEmpty)
{
    m_next->SetOpen(true);
    m_sink->Write(MakeRecord("x"));
    m_next->WaitForArrivals(1);
    m_next->WaitForFlush();
    EXPECT_EQ(m_next->GetTexts(), std::vector<std::string>{"x"});
}

TEST_F(AsyncSinkTest, ReturnsFromFlushOfAnEmptyQueue)
{
    m_sink->Flush();
    EXPECT_TRUE(m_next->GetTexts().empty());
}

TEST_F(AsyncSinkTest, RefusesToBeMadeWithoutACapacityOrANextSink)
{
    EXPECT_THROW(AsyncSink(m_next, 0), std::invalid_argument);
    EXPECT_THROW(AsyncSink(nullptr, 1), std::invalid_argument);
}

TEST_F(AsyncSinkTest, LosesNothingUncountedFromSeveralThreads)
{
    constexpr int kThreads = 4;
    constexpr int kRecords = 500;
    m_next->SetOpen(true);
    std::latch start(kThreads);
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int thread = 0; thread < kThreads; ++thread)
    {
        threads.emplace_back(
            [&]
            {
                start.arrive_and_wait();
                for (int i = 0; i < kRecords; ++i)
                {
                    m_sink->Write(MakeRecord("x"));
                }
            });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    const auto dropped = m_sink->GetDroppedCount();
    m_sink.reset();
    std::uint64_t written = 0;
    std::uint64_t told = 0;
    for (const std::string& text : m_next->GetTexts())
    {
        const bool loss = text.starts_with(kLost);
        written += loss ? 0 : 1;
        told += loss ? std::stoull(text.substr(kLost.size())) : 0;
    }
    EXPECT_EQ(written + dropped, std::uint64_t{kThreads} * kRecords);
    EXPECT_EQ(told, dropped);
}
