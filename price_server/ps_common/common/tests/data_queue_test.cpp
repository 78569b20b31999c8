#include "common/data_queue.h"

#include "common/channel_task.h"
#include "test_queue.h"

#include <gtest/gtest.h>

#include <array>
#include <latch>
#include <set>
#include <span>
#include <sstream>
#include <thread>
#include <vector>

using namespace ps_ns;
using namespace ps_ns::test;

// The hot members' lines begin where the queue does; the header checks each of them.
static_assert(alignof(DataQueue<DataMsgTask>) == kCacheLineSize);
static_assert(sizeof(DataMsgTask) == sizeof(Task*));

namespace
{

const zel::metrics::Metric kDepth{"data_queue_test_depth", "queued tasks", {}};

class DataQueueTest : public testing::Test
{
protected:
    ~DataQueueTest() override { zel::metrics::DestroyGauge(kDepth); }

    void Insert(const std::string& name) { m_queue->insert(new RecordingTask(m_sequence, name)); }

    /// Takes one task, runs it and deletes it; false when there is none.
    bool RunOne()
    {
        Task* const task = m_queue->take();
        if (task == nullptr)
        {
            return false;
        }
        task->execute();
        delete task;
        return true;
    }

    static std::string Address(const void* pointer)
    {
        std::ostringstream text;
        text << pointer;
        return text.str();
    }

    Sequence m_sequence;
    const zel::metrics::Gauge m_gauge = zel::metrics::CreateGauge(kDepth);
    std::unique_ptr<DataQueue<DataMsgTask>> m_queue = std::make_unique<DataQueue<DataMsgTask>>("requests", m_gauge);
};

} // namespace

TEST_F(DataQueueTest, IsEmptyAndAcceptingAtFirst)
{
    EXPECT_EQ(m_queue->take(), nullptr);
    EXPECT_EQ(m_queue->size(), 0U);
    EXPECT_EQ(m_queue->maxSize(), 0U);
    EXPECT_FALSE(m_queue->isShutdown());
    EXPECT_EQ(m_queue->name(), "requests");
}

TEST_F(DataQueueTest, GivesTasksInTheOrderOfTheirInserts)
{
    for (const char* const name : {"a", "b", "c"})
    {
        Insert(name);
    }
    while (RunOne())
    {
    }
    EXPECT_EQ(m_sequence, (Sequence{"a run", "a destroyed", "b run", "b destroyed", "c run", "c destroyed"}));
}

TEST_F(DataQueueTest, MayRunEmptyAndFillAgain)
{
    for (int round = 0; round < 3; ++round)
    {
        Insert("a");
        EXPECT_TRUE(RunOne());
        EXPECT_FALSE(RunOne());
    }
    EXPECT_EQ(m_sequence.size(), 6U);
}

TEST_F(DataQueueTest, NeitherRunsNorDestroysWhatIsInserted)
{
    Insert("a");
    EXPECT_TRUE(m_sequence.empty());
}

TEST_F(DataQueueTest, CountsTheQueuedTasksInSizeAndGauge)
{
    Insert("a");
    Insert("b");
    EXPECT_EQ(m_queue->size(), 2U);
    EXPECT_EQ(m_gauge.Get(), 2.0);
    RunOne();
    EXPECT_EQ(m_queue->size(), 1U);
    EXPECT_EQ(m_gauge.Get(), 1.0);
    RunOne();
    RunOne();
    EXPECT_EQ(m_queue->size(), 0U);
    EXPECT_EQ(m_gauge.Get(), 0.0);
}

TEST_F(DataQueueTest, GivesSeveralTasksAtOnceInTheirOrder)
{
    for (const char* const name : {"a", "b", "c"})
    {
        Insert(name);
    }
    std::array<Task*, 2> tasks{};
    ASSERT_EQ(m_queue->take(tasks), 2U);
    for (Task* const task : tasks)
    {
        task->execute();
        delete task;
    }
    EXPECT_EQ(m_sequence, (Sequence{"a run", "a destroyed", "b run", "b destroyed"}));
    EXPECT_TRUE(RunOne());
    EXPECT_EQ(m_sequence.back(), "c destroyed");
    EXPECT_EQ(m_queue->take(tasks), 0U);
}

TEST_F(DataQueueTest, GivesAsManyAsThereAreWhenAskedForMore)
{
    std::array<Task*, 8> tasks{};
    Insert("a");
    Insert("b");
    ASSERT_EQ(m_queue->take(tasks), 2U);
    EXPECT_EQ(tasks[2], nullptr);
    Insert("c");
    ASSERT_EQ(m_queue->take(std::span(tasks).subspan(2)), 1U);
    for (std::size_t i = 0; i < 3; ++i)
    {
        tasks[i]->execute();
        delete tasks[i];
    }
    EXPECT_EQ(m_sequence, (Sequence{"a run", "a destroyed", "b run", "b destroyed", "c run", "c destroyed"}));
}

TEST_F(DataQueueTest, CountsWhatWasTakenTogetherUntilItIsToldOtherwise)
{
    Insert("a");
    Insert("b");
    Insert("c");
    std::array<Task*, 2> tasks{};
    ASSERT_EQ(m_queue->take(tasks), 2U);
    EXPECT_EQ(m_queue->size(), 3U);
    EXPECT_EQ(m_gauge.Get(), 3.0);
    m_queue->uncount(2);
    EXPECT_EQ(m_queue->size(), 1U);
    EXPECT_EQ(m_gauge.Get(), 1.0);
    m_queue->uncount(0);
    EXPECT_EQ(m_queue->size(), 1U);
    EXPECT_EQ(m_gauge.Get(), 1.0);
    delete tasks[0];
    delete tasks[1];
}

TEST_F(DataQueueTest, RemembersTheLargestSize)
{
    Insert("a");
    Insert("b");
    Insert("c");
    RunOne();
    RunOne();
    EXPECT_EQ(m_queue->maxSize(), 3U);
    Insert("d");
    EXPECT_EQ(m_queue->maxSize(), 3U);
    Insert("e");
    Insert("f");
    EXPECT_EQ(m_queue->maxSize(), 4U);
}

TEST_F(DataQueueTest, WorksWithoutAGauge)
{
    DataQueue<DataMsgTask> queue("bare", zel::metrics::Gauge());
    queue.insert(new RecordingTask(m_sequence, "a"));
    EXPECT_EQ(queue.size(), 1U);
    delete queue.take();
    EXPECT_EQ(queue.size(), 0U);
}

TEST_F(DataQueueTest, DisposesOfWhatNobodyTookWhenItDies)
{
    RecordingTask owned(m_sequence, "owned");
    owned.m_disposer = [](Task*) {};
    Insert("a");
    m_queue->insert(&owned);
    Insert("b");
    m_queue.reset();
    EXPECT_EQ(m_sequence, (Sequence{"a destroyed", "owned disposed of", "b destroyed"}));
    EXPECT_EQ(m_gauge.Get(), 0.0);
}

TEST_F(DataQueueTest, DestroysARefusedTaskBeforeItLogs)
{
    const LogIntoSequence log(m_sequence);
    m_queue->shutdown();
    Insert("a");
    EXPECT_EQ(m_sequence, (Sequence{"a destroyed", "logged"}));
}

TEST_F(DataQueueTest, NamesBothAddressesOfARefusal)
{
    const LogIntoSequence log(m_sequence);
    m_queue->shutdown();
    EXPECT_TRUE(m_queue->isShutdown());
    auto* const task = new RecordingTask(m_sequence, "a");
    const std::string address = Address(task);
    m_queue->insert(task);

    const auto records = log.GetRecords();
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].text, "DataQueue requests @" + Address(m_queue.get()) +
                                   " is in Shutdown mode. Ignoring insert for task @" + address);
    EXPECT_EQ(records[0].level, 0);
    EXPECT_EQ(records[0].tag, 13U);
    EXPECT_EQ(records[0].decodeType, 1U);
    EXPECT_EQ(records[0].source, "data_queue");
    EXPECT_TRUE(records[0].file.ends_with("data_queue_impl.h")) << records[0].file;
    EXPECT_GT(records[0].line, 0);
}

TEST_F(DataQueueTest, DoesNotLogARefusalThatTheLogDoesNotWant)
{
    const LogIntoSequence log(m_sequence);
    zel::logging::g_minLogLevel = 1;
    m_queue->shutdown();
    Insert("a");
    EXPECT_EQ(m_sequence, (Sequence{"a destroyed"}));
}

TEST_F(DataQueueTest, HandsARefusedTaskToItsDisposerAndDoesNotDeleteIt)
{
    const LogIntoSequence log(m_sequence);
    RecordingTask task(m_sequence, "a");
    Task* handed = nullptr;
    task.m_disposer = [&](Task* disposed) { handed = disposed; };
    m_queue->shutdown();
    m_queue->insert(&task);
    EXPECT_EQ(handed, &task);
    EXPECT_EQ(m_sequence, (Sequence{"a disposed of", "logged"}));
}

TEST_F(DataQueueTest, DestroysTheActionOfARefusedTask)
{
    const auto captured = std::make_shared<int>(1);
    m_queue->shutdown();
    m_queue->insert(new ChannelTask<Task>([captured] { FAIL() << "run"; }, "name"));
    EXPECT_EQ(captured.use_count(), 1);
}

TEST_F(DataQueueTest, LeavesSizeAndGaugeAloneWhenItRefuses)
{
    Insert("a");
    m_queue->shutdown();
    Insert("b");
    Insert("c");
    EXPECT_EQ(m_queue->size(), 1U);
    EXPECT_EQ(m_queue->maxSize(), 1U);
    EXPECT_EQ(m_gauge.Get(), 1.0);
}

TEST_F(DataQueueTest, StillGivesWhatWasQueuedBeforeTheShutdown)
{
    Insert("a");
    m_queue->shutdown();
    m_queue->shutdown();
    EXPECT_TRUE(RunOne());
    EXPECT_FALSE(RunOne());
    EXPECT_EQ(m_queue->size(), 0U);
    EXPECT_EQ(m_gauge.Get(), 0.0);
}

TEST_F(DataQueueTest, TimesOnlyTheInsertsThatMeetAnotherProducer)
{
    for (int i = 0; i < 100; ++i)
    {
        Insert("alone");
    }
    EXPECT_EQ(m_queue->takeLongestWait_ns(), 0U);

    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    std::uint64_t longest_ns = 0;
    while (longest_ns == 0 && std::chrono::steady_clock::now() < deadline)
    {
        constexpr int kInserts = 10'000;
        std::latch start(2);
        const auto produce = [&]
        {
            start.arrive_and_wait();
            for (int i = 0; i < kInserts; ++i)
            {
                m_queue->insert(new ChannelTask<Task>([] {}, ""));
            }
        };
        std::thread other(produce);
        produce();
        other.join();
        longest_ns = m_queue->takeLongestWait_ns();
    }
    EXPECT_GT(longest_ns, 0U);
    EXPECT_EQ(m_queue->takeLongestWait_ns(), 0U) << "taken once";
}

TEST_F(DataQueueTest, LinksEveryTaskOfTwoProducersOnceAndEachOnesInOrder)
{
    constexpr int kTasks = 5000;
    std::latch start(2);
    std::vector<int> order[2]; // of each producer's runs
    std::vector<std::thread> producers;
    for (std::vector<int>& runs : order)
    {
        producers.emplace_back(
            [&start, &runs, this]
            {
                start.arrive_and_wait();
                for (int number = 0; number < kTasks; ++number)
                {
                    m_queue->insert(new ChannelTask<Task>([&runs, number] { runs.push_back(number); }, ""));
                }
            });
    }
    for (std::thread& producer : producers)
    {
        producer.join();
    }
    EXPECT_EQ(m_queue->size(), 2U * kTasks);
    EXPECT_EQ(m_gauge.Get(), 2.0 * kTasks);
    EXPECT_GE(m_queue->maxSize(), 2U * kTasks - 1) << "a racing producer may lower the mark by one";
    while (RunOne())
    {
    }
    std::vector<int> expected;
    for (int number = 0; number < kTasks; ++number)
    {
        expected.push_back(number);
    }
    EXPECT_EQ(order[0], expected);
    EXPECT_EQ(order[1], expected);
    EXPECT_EQ(m_gauge.Get(), 0.0);
}

TEST_F(DataQueueTest, GivesEachTaskToOneOfTwoThreadsThatTakeAtTheSameTime)
{
    constexpr std::size_t kTasks = 20'000;
    for (std::size_t i = 0; i < kTasks; ++i)
    {
        m_queue->insert(new ChannelTask<Task>({}, ""));
    }
    std::array<std::vector<Task*>, 2> taken;
    std::latch start(2);
    const auto takeAll = [&](std::vector<Task*>& mine)
    {
        std::array<Task*, 3> tasks{};
        start.arrive_and_wait();
        while (const std::size_t count = m_queue->take(tasks))
        {
            m_queue->uncount(count);
            mine.insert(mine.end(), tasks.begin(), tasks.begin() + static_cast<std::ptrdiff_t>(count));
        }
    };
    std::thread other([&] { takeAll(taken[0]); });
    takeAll(taken[1]);
    other.join();
    std::set<Task*> all;
    for (const std::vector<Task*>& mine : taken)
    {
        all.insert(mine.begin(), mine.end());
    }
    EXPECT_EQ(taken[0].size() + taken[1].size(), kTasks);
    EXPECT_EQ(all.size(), kTasks);
    EXPECT_EQ(m_queue->size(), 0U);
    for (Task* const task : all)
    {
        delete task;
    }
}
