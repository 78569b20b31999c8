#include "common/action_center.h"

#include "common/data_queue.h"
#include "common/queue_reader.h"
#include "test_queue.h"

#include <gtest/gtest.h>

#include <functional>
#include <latch>
#include <thread>
#include <vector>

using namespace ps_ns;
using namespace ps_ns::test;

namespace
{

using FakeCenter = ActionCenter<FakeQueue, Task>;

const ChannelTask<Task>& AsChannelTask(const Task* task)
{
    return dynamic_cast<const ChannelTask<Task>&>(*task);
}

} // namespace

TEST(ActionCenter, PostsOneTaskWithTheActionAndItsName)
{
    FakeQueue queue;
    FakeCenter center(&queue, nullptr);
    int runs = 0;
    center.ExecuteAction([&] { ++runs; }, "count");
    ASSERT_EQ(queue.m_tasks.size(), 1U);
    EXPECT_EQ(runs, 0);
    EXPECT_EQ(AsChannelTask(queue.m_tasks[0]).GetName(), "count");
    EXPECT_EQ(queue.m_tasks[0]->m_tag, 1U);
    EXPECT_FALSE(queue.m_tasks[0]->m_disposer);
    queue.m_tasks[0]->execute();
    EXPECT_EQ(runs, 1);
}

TEST(ActionCenter, LeavesTheCallersFunctionAndNameAsTheyWere)
{
    FakeQueue queue;
    FakeCenter center(&queue, nullptr);
    int runs = 0;
    const std::function<void()> action = [&] { ++runs; };
    const std::string name = "a name that is too long to be kept inside the string itself";
    center.ExecuteAction(action, name);
    center.ExecuteAction(action, name);
    ASSERT_TRUE(action);
    action();
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(AsChannelTask(queue.m_tasks[1]).GetName(), name);
}

TEST(ActionCenter, PostsAnEmptyActionWhichThrowsWhenItIsRun)
{
    FakeQueue queue;
    FakeCenter center(&queue, nullptr);
    center.ExecuteAction({}, "");
    ASSERT_EQ(queue.m_tasks.size(), 1U);
    EXPECT_THROW(queue.m_tasks[0]->execute(), std::bad_function_call);
}

TEST(ActionCenter, HasLetGoOfTheActionWhenItInserts)
{
    Sequence sequence;
    FakeQueue queue(FakeQueue::Mode::RunAtOnce);
    queue.m_atEndOfInsert = [&] { sequence.push_back("end of insert"); };
    FakeCenter center(&queue, nullptr);
    std::shared_ptr<void> last(nullptr, [&](void*) { sequence.push_back("last reference gone"); });
    center.ExecuteAction([last = std::move(last), &sequence] { sequence.push_back("run"); }, "");
    EXPECT_EQ(sequence, (Sequence{"run", "last reference gone", "end of insert"}));
}

TEST(ActionCenter, HasLetGoOfARefusedAction)
{
    Sequence sequence;
    FakeQueue queue(FakeQueue::Mode::Refuse);
    queue.m_atEndOfInsert = [&] { sequence.push_back("end of insert"); };
    FakeCenter center(&queue, nullptr);
    std::shared_ptr<void> last(nullptr, [&](void*) { sequence.push_back("last reference gone"); });
    center.ExecuteAction([last = std::move(last), &sequence] { sequence.push_back("run"); }, "");
    EXPECT_EQ(sequence, (Sequence{"last reference gone", "end of insert"}));
}

TEST(ActionCenter, KeepsTheDispatcherAlive)
{
    FakeQueue queue;
    auto dispatcher = std::make_shared<AsyncDispatcher>("test");
    const std::weak_ptr<AsyncDispatcher> watched = dispatcher;
    {
        const FakeCenter center(&queue, std::move(dispatcher));
        EXPECT_FALSE(watched.expired());
    }
    EXPECT_TRUE(watched.expired());
}

TEST(ActionCenter, PostsToTheDataQueueInTheOrderOfEachCaller)
{
    constexpr int kCallers = 2;
    constexpr int kActions = 2000;
    DataQueue<DataMsgTask> queue("requests", zel::metrics::Gauge());
    ActionCenter<DataQueue<DataMsgTask>, Task> center(&queue, nullptr);
    std::vector<std::vector<int>> runs(kCallers);
    std::latch start(kCallers);
    std::vector<std::thread> callers;
    for (int caller = 0; caller < kCallers; ++caller)
    {
        callers.emplace_back(
            [&, caller]
            {
                std::vector<int>& mine = runs[static_cast<std::size_t>(caller)];
                start.arrive_and_wait();
                for (int number = 0; number < kActions; ++number)
                {
                    center.ExecuteAction([&mine, number] { mine.push_back(number); }, "");
                }
            });
    }
    for (std::thread& caller : callers)
    {
        caller.join();
    }
    EXPECT_EQ(RunDry(queue), static_cast<std::size_t>(kCallers * kActions));
    for (const std::vector<int>& mine : runs)
    {
        ASSERT_EQ(mine.size(), static_cast<std::size_t>(kActions));
        EXPECT_TRUE(std::is_sorted(mine.begin(), mine.end()));
    }
}

TEST(ActionCenter, HasItsActionDestroyedUnrunWhenTheDataQueueIsShutDown)
{
    DataQueue<DataMsgTask> queue("requests", zel::metrics::Gauge());
    ActionCenter<DataQueue<DataMsgTask>, Task> center(&queue, nullptr);
    queue.shutdown();
    const auto captured = std::make_shared<int>(1);
    center.ExecuteAction([captured] { FAIL() << "run"; }, "");
    EXPECT_EQ(captured.use_count(), 1);
    EXPECT_EQ(RunDry(queue), 0U);
}
