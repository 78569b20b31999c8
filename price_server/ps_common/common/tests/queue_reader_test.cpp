#include "common/queue_reader.h"

#include "common/action_center.h"
#include "test_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <stdexcept>
#include <thread>
#include <vector>

using namespace ps_ns;
using namespace ps_ns::test;

namespace
{

class QueueReaderTest : public testing::Test
{
protected:
    ~QueueReaderTest() override { zel::logging::Logger::SetSink(nullptr); }

    void Post(std::function<void()> action, const std::string& name = "")
    {
        m_center.ExecuteAction(std::move(action), name);
    }

    Sequence m_sequence; ///< written by the reader's thread until it is stopped
    DataQueue<DataMsgTask> m_queue{"requests", zel::metrics::Gauge()};
    ActionCenter<DataQueue<DataMsgTask>, Task> m_center{&m_queue, nullptr};
    const std::shared_ptr<zel::logging::CapturingSink> m_sink = []
    {
        auto sink = std::make_shared<zel::logging::CapturingSink>();
        zel::logging::Logger::SetSink(sink);
        return sink;
    }();
};

/// Counts how often the reader waited, and begins anew with each task it found.
struct CountingWait
{
    static inline std::atomic<int> waits{0};
    static inline std::atomic<int> resets{0};
    void Wait()
    {
        ++waits;
        std::this_thread::yield();
    }
    void Reset() { ++resets; }
};

} // namespace

using RunDryTest = QueueReaderTest;

TEST_F(RunDryTest, RunsEverythingInOrderAndCounts)
{
    for (const char* const name : {"a", "b", "c"})
    {
        m_queue.insert(new RecordingTask(m_sequence, name));
    }
    EXPECT_EQ(RunDry(m_queue), 3U);
    EXPECT_EQ(m_sequence, (Sequence{"a run", "a destroyed", "b run", "b destroyed", "c run", "c destroyed"}));
    EXPECT_EQ(RunDry(m_queue), 0U);
}

TEST_F(RunDryTest, RunsWhatTheTasksThemselvesPost)
{
    Post(
        [this]
        {
            m_sequence.push_back("first");
            Post([this] { m_sequence.push_back("posted by the first"); });
        });
    Post([this] { m_sequence.push_back("second"); });
    EXPECT_EQ(RunDry(m_queue), 3U);
    EXPECT_EQ(m_sequence, (Sequence{"first", "second", "posted by the first"}));
}

TEST_F(RunDryTest, LetsATaskSeeAnEmptyQueueOnlyWhenNothingIsBehindIt)
{
    constexpr std::size_t kPosts = 100; // more than are taken at once
    std::vector<std::size_t> behind;
    for (std::size_t number = 0; number < kPosts; ++number)
    {
        Post([&] { behind.push_back(m_queue.size()); });
    }
    EXPECT_EQ(RunDry(m_queue), kPosts);
    ASSERT_EQ(behind.size(), kPosts);
    for (std::size_t number = 0; number < kPosts; ++number)
    {
        EXPECT_GE(behind[number], kPosts - 1 - number);
    }
    EXPECT_EQ(behind.back(), 0U);
    EXPECT_EQ(m_queue.size(), 0U);
}

TEST_F(RunDryTest, RunsEachTaskAsTheQueuesThread)
{
    DataQueue<DataMsgTask> other("other", zel::metrics::Gauge());
    bool inside = false;
    bool insideOther = true;
    Post(
        [&]
        {
            inside = IsQueueThread(&m_queue);
            insideOther = IsQueueThread(&other);
        });
    EXPECT_FALSE(IsQueueThread(&m_queue));
    RunDry(m_queue);
    EXPECT_TRUE(inside);
    EXPECT_FALSE(insideOther);
    EXPECT_FALSE(IsQueueThread(&m_queue));
}

TEST_F(RunDryTest, DisposesOfATaskAsTheQueuesThreadToo)
{
    bool inside = false;
    {
        std::shared_ptr<void> last(nullptr, [&](void*) { inside = IsQueueThread(&m_queue); });
        Post([last = std::move(last)] {});
    }
    RunDry(m_queue);
    EXPECT_TRUE(inside);
}

TEST_F(RunDryTest, HandsATaskThatHasRunToItsDisposer)
{
    RecordingTask task(m_sequence, "a");
    Task* handed = nullptr;
    task.m_disposer = [&](Task* disposed) { handed = disposed; };
    m_queue.insert(&task);
    RunDry(m_queue);
    EXPECT_EQ(handed, &task);
    EXPECT_EQ(m_sequence, (Sequence{"a run", "a disposed of"}));
}

TEST_F(RunDryTest, LogsWhatATaskThrowsWithItsNameAndRunsTheNext)
{
    Post([] { throw std::runtime_error("no such thing"); }, "subscribe");
    Post([] { throw 42; }, "odd");
    Post({}, "empty");
    Post([this] { m_sequence.push_back("next"); });
    EXPECT_EQ(RunDry(m_queue), 4U);
    EXPECT_EQ(m_sequence, (Sequence{"next"}));

    const auto records = m_sink->GetRecords();
    ASSERT_EQ(records.size(), 3U);
    for (const zel::logging::CapturedRecord& record : records)
    {
        EXPECT_EQ(record.level, 30);
        EXPECT_EQ(record.source, "queue_reader");
        EXPECT_EQ(record.tag, 13U);
    }
    EXPECT_EQ(records[0].text, "DataQueue requests: task \"subscribe\" threw: no such thing");
    EXPECT_EQ(records[1].text, "DataQueue requests: task \"odd\" threw: something that is no exception");
    EXPECT_EQ(records[2].text, "DataQueue requests: task \"empty\" threw: bad_function_call");
}

TEST_F(RunDryTest, LogsAThrowingTaskOfAnotherKindWithoutAName)
{
    struct Throwing final : Task
    {
        void execute() override { throw std::runtime_error("no"); }
    };
    m_queue.insert(new Throwing);
    RunDry(m_queue);
    ASSERT_EQ(m_sink->GetRecords().size(), 1U);
    EXPECT_EQ(m_sink->GetRecords()[0].text, "DataQueue requests: task \"\" threw: no");
}

TEST_F(RunDryTest, LetsGoOfATaskThatHasThrown)
{
    const auto held = std::make_shared<int>(0);
    Post([held] { throw std::runtime_error("no"); });
    RunDry(m_queue);
    EXPECT_EQ(held.use_count(), 1);
}

TEST_F(RunDryTest, IsNotTheQueuesThreadAnyMoreAfterATaskHasThrown)
{
    Post([] { throw std::runtime_error("no"); });
    RunDry(m_queue);
    EXPECT_FALSE(IsQueueThread(&m_queue));
}

TEST_F(QueueReaderTest, RunsTasksInOrderOnAThreadOfItsOwn)
{
    QueueReader<> reader(m_queue);
    reader.Start();
    std::promise<std::thread::id> ran;
    for (int number = 0; number < 100; ++number)
    {
        Post([this, number] { m_sequence.push_back(std::to_string(number)); });
    }
    Post([&] { ran.set_value(std::this_thread::get_id()); });
    EXPECT_NE(ran.get_future().get(), std::this_thread::get_id());
    reader.Stop();
    ASSERT_EQ(m_sequence.size(), 100U);
    for (std::size_t number = 0; number < 100; ++number)
    {
        EXPECT_EQ(m_sequence[number], std::to_string(number));
    }
}

TEST_F(QueueReaderTest, IsTheQueuesThreadInsideATaskOnly)
{
    QueueReader<> reader(m_queue);
    reader.Start();
    std::promise<bool> inside;
    Post([&] { inside.set_value(IsQueueThread(&m_queue)); });
    EXPECT_TRUE(inside.get_future().get());
    EXPECT_FALSE(IsQueueThread(&m_queue));
}

TEST_F(QueueReaderTest, GoesOnAfterATaskHasThrown)
{
    QueueReader<> reader(m_queue);
    reader.Start();
    std::promise<void> ran;
    Post([] { throw std::runtime_error("no"); }, "bad");
    Post([&] { ran.set_value(); });
    ran.get_future().get();
    ASSERT_EQ(m_sink->GetRecords().size(), 1U);
    EXPECT_EQ(m_sink->GetRecords()[0].text, "DataQueue requests: task \"bad\" threw: no");
}

TEST_F(QueueReaderTest, RunsWhatIsQueuedBeforeItStops)
{
    constexpr int kTasks = 1000;
    int runs = 0;
    std::promise<void> go;
    QueueReader<> reader(m_queue);
    reader.Start();
    Post([&] { go.get_future().get(); });
    for (int number = 0; number < kTasks; ++number)
    {
        Post([&] { ++runs; });
    }
    Post([&] { Post([&] { ++runs; }); }); // and what a queued task posts
    std::thread release([&] { go.set_value(); });
    reader.Stop();
    release.join();
    EXPECT_EQ(runs, kTasks + 1);
    EXPECT_EQ(m_queue.size(), 0U);
}

TEST_F(QueueReaderTest, RunsWhatWasQueuedBeforeItStarted)
{
    int runs = 0;
    Post([&] { ++runs; });
    QueueReader<> reader(m_queue);
    reader.Start();
    reader.Stop();
    EXPECT_EQ(runs, 1);
}

TEST_F(QueueReaderTest, RunsWhatAShutDownQueueStillHolds)
{
    int runs = 0;
    Post([&] { ++runs; });
    m_queue.shutdown();
    Post([&] { ++runs; });
    QueueReader<> reader(m_queue);
    reader.Start();
    reader.Stop();
    EXPECT_EQ(runs, 1);
}

TEST_F(QueueReaderTest, MayBeStoppedTwiceOrNeverStarted)
{
    QueueReader<> reader(m_queue);
    reader.Start();
    reader.Stop();
    reader.Stop();
    QueueReader<> idle(m_queue);
    idle.Stop();
    Post([] {});
    EXPECT_EQ(m_queue.size(), 1U) << "nobody reads any more";
}

TEST_F(QueueReaderTest, StopsWhenItDies)
{
    int runs = 0;
    {
        QueueReader<> reader(m_queue);
        reader.Start();
        Post([&] { ++runs; });
    }
    EXPECT_EQ(runs, 1);
}

TEST_F(QueueReaderTest, WaitsOnlyWhenThereIsNothing)
{
    CountingWait::waits = 0;
    CountingWait::resets = 0;
    std::atomic<int> runs{0};
    for (int number = 0; number < 100; ++number)
    {
        Post(
            [&]
            {
                EXPECT_EQ(CountingWait::waits, 0);
                ++runs;
            });
    }
    QueueReader<CountingWait> reader(m_queue);
    reader.Start();
    reader.Stop();
    EXPECT_EQ(runs, 100);
}

TEST_F(QueueReaderTest, StartsTheWaitOverWhenItHasFoundSomething)
{
    CountingWait::waits = 0;
    CountingWait::resets = 0;
    QueueReader<CountingWait> reader(m_queue);
    reader.Start();
    for (int round = 1; round <= 10; ++round)
    {
        std::promise<void> ran;
        Post([&] { ran.set_value(); });
        ran.get_future().wait();
        const int before = CountingWait::waits;
        while (CountingWait::waits == before)
        {
            std::this_thread::yield();
        }
        EXPECT_EQ(CountingWait::resets, round);
    }
}
