#include "async/thread_pool.h"

#include "logging/sinks.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <future>
#include <latch>
#include <memory>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

using namespace ps_ns;

namespace
{

/// True when the pool behind `executor` is stopped: then Post destroys a task at once.
bool IsStopped(Executor& executor)
{
    auto token = std::make_shared<int>();
    const std::weak_ptr<int> observed = token;
    executor.Post([token = std::move(token)] {});
    return observed.expired();
}

/// A pool with one thread that is busy until Stop has begun, so that what is posted meanwhile waits.
class BusyPool
{
public:
    BusyPool()
    {
        std::latch running(1);
        m_busy->Post(
            [this, &running]
            {
                running.count_down();
                while (!IsStopped(*m_probe))
                {
                    std::this_thread::yield();
                }
                m_finished = true;
            });
        running.wait();
    }

    ThreadPool m_pool{1};
    bool m_finished = false; ///< the pool's thread; the test's after Stop

private:
    const std::shared_ptr<Executor> m_busy = m_pool.MakeExecutor();
    const std::shared_ptr<Executor> m_probe = m_pool.MakeExecutor();
};

} // namespace

TEST(ThreadPool, RunsTheTasksOfAStrandOneAtATimeInTheOrderOfEachPoster)
{
    constexpr std::size_t kPosters = 4;
    constexpr int kTasks = 1000;
    ThreadPool pool(4);
    const auto executor = pool.MakeExecutor();
    std::vector<std::pair<std::size_t, int>> order; // without a lock: the strand is one
    std::latch start(kPosters);
    std::vector<std::thread> posters;
    posters.reserve(kPosters);
    for (std::size_t poster = 0; poster < kPosters; ++poster)
    {
        posters.emplace_back(
            [&, poster]
            {
                start.arrive_and_wait();
                for (int i = 0; i < kTasks; ++i)
                {
                    executor->Post([&order, poster, i] { order.emplace_back(poster, i); });
                }
            });
    }
    for (std::thread& poster : posters)
    {
        poster.join();
    }
    pool.Drain();
    std::array<int, kPosters> next{};
    for (const auto& [poster, i] : order)
    {
        ASSERT_EQ(i, next[poster]++) << "poster " << poster;
    }
    EXPECT_EQ(order.size(), kPosters * kTasks);
}

TEST(ThreadPool, RunsStrandsBesideEachOther)
{
    ThreadPool pool(2);
    std::latch both(2); // each waits for the other: on one thread this would not end
    int passed = 0;
    const auto first = pool.MakeExecutor();
    const auto second = pool.MakeExecutor();
    first->Post([&] { both.arrive_and_wait(); });
    second->Post(
        [&]
        {
            both.arrive_and_wait();
            ++passed;
        });
    pool.Drain();
    EXPECT_EQ(passed, 1);
}

TEST(ThreadPool, RunsNoTaskInsidePost)
{
    ThreadPool pool(1);
    const auto executor = pool.MakeExecutor();
    std::vector<int> order;
    executor->Post(
        [&]
        {
            executor->Post([&] { order.push_back(2); });
            order.push_back(1);
        });
    pool.Drain();
    EXPECT_EQ(order, (std::vector{1, 2}));
}

TEST(ThreadPool, DrainsWhatWasPostedBeforeThoughItIsNeverIdle)
{
    ThreadPool pool(2);
    const auto busy = pool.MakeExecutor();
    const auto other = pool.MakeExecutor();
    std::atomic<bool> isOver{false};
    std::latch begun(1);
    std::thread poster(
        [&]
        {
            // Each task ends when the next one has been posted: there is always one that has not.
            auto mayEnd = std::make_shared<std::promise<void>>();
            busy->Post([mayEnd] { mayEnd->get_future().wait(); });
            begun.count_down();
            while (!isOver.load())
            {
                const auto last = std::exchange(mayEnd, std::make_shared<std::promise<void>>());
                busy->Post([mayEnd] { mayEnd->get_future().wait(); });
                last->set_value();
            }
            mayEnd->set_value();
        });
    begun.wait();
    bool ran = false;
    other->Post([&] { other->Post([&] { ran = true; }); });
    auto drained = std::async(std::launch::async, [&] { pool.Drain(); });
    EXPECT_EQ(drained.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    isOver.store(true);
    poster.join();
    drained.wait();
    EXPECT_TRUE(ran) << "what a task has posted is of its generation";
}

TEST(ThreadPool, HasAThreadWhenNoneIsAskedFor)
{
    ThreadPool pool(0);
    bool ran = false;
    pool.MakeExecutor()->Post([&] { ran = true; });
    pool.Drain();
    EXPECT_TRUE(ran);
}

TEST(ThreadPool, LogsATaskThatThrowsAndRunsTheNext)
{
    const auto log = std::make_shared<zel::logging::CapturingSink>();
    zel::logging::Logger::SetSink(log);
    ThreadPool pool(1);
    const auto executor = pool.MakeExecutor();
    bool ran = false;
    executor->Post([] { throw std::runtime_error("no book"); });
    executor->Post([] { throw 1; });
    executor->Post([&] { ran = true; });
    pool.Drain();
    zel::logging::Logger::SetSink(nullptr);
    EXPECT_TRUE(ran);
    const auto records = log->GetRecords();
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(records[0].level, 30);
    EXPECT_EQ(records[0].source, "executor");
    EXPECT_EQ(records[0].text, "a task threw: no book");
    EXPECT_EQ(records[1].level, 30);
    EXPECT_EQ(records[1].text, "a task threw something that is no exception");
}

TEST(ThreadPool, DrainsWhatTasksPostToTheirOwnAndToOtherStrands)
{
    constexpr int kLength = 100;
    ThreadPool pool(2);
    const std::array executors{pool.MakeExecutor(), pool.MakeExecutor()};
    int ran = 0;
    std::function<void()> step = [&]
    {
        if (++ran < kLength)
        {
            executors[static_cast<std::size_t>(ran / 2 % 2)]->Post(step);
        }
    };
    executors[0]->Post(step);
    pool.Drain();
    EXPECT_EQ(ran, kLength);
}

TEST(ThreadPool, HasDestroyedTheTasksThatRanWhenDrainReturns)
{
    ThreadPool pool(2);
    const auto executor = pool.MakeExecutor();
    auto token = std::make_shared<int>();
    const std::weak_ptr<int> observed = token;
    executor->Post([token = std::move(token)] {});
    pool.Drain();
    EXPECT_TRUE(observed.expired());
}

TEST(ThreadPool, ReturnsFromDrainWhenNothingWasPosted)
{
    ThreadPool pool(1);
    pool.Drain();
    pool.Stop();
    pool.Drain();
    EXPECT_TRUE(IsStopped(*pool.MakeExecutor()));
}

TEST(ThreadPool, FinishesTheRunningTaskInStop)
{
    BusyPool busy;
    busy.m_pool.Stop();
    EXPECT_TRUE(busy.m_finished);
}

TEST(ThreadPool, DestroysWaitingTasksInStopWithoutRunningThem)
{
    BusyPool busy;
    const auto executor = busy.m_pool.MakeExecutor();
    auto token = std::make_shared<int>();
    const std::weak_ptr<int> observed = token;
    bool ran = false;
    executor->Post([&ran, token = std::move(token)] { ran = true; });
    executor->Post([&ran] { ran = true; });
    EXPECT_FALSE(observed.expired());
    busy.m_pool.Stop();
    EXPECT_TRUE(observed.expired());
    EXPECT_FALSE(ran);
}

TEST(ThreadPool, FreesAWaitingTaskThatOwnsItsOwnExecutor)
{
    std::weak_ptr<Executor> observedExecutor;
    std::weak_ptr<int> observedToken;
    {
        BusyPool busy;
        auto executor = busy.m_pool.MakeExecutor();
        auto token = std::make_shared<int>();
        observedExecutor = executor;
        observedToken = token;
        Executor& strand = *executor;
        strand.Post([executor = std::move(executor), token = std::move(token)] {});
        EXPECT_FALSE(observedExecutor.expired());
        busy.m_pool.Stop();
        EXPECT_TRUE(observedExecutor.expired());
        EXPECT_TRUE(observedToken.expired());
    }
}

TEST(ThreadPool, DestroysWhatADyingTaskPosts)
{
    BusyPool busy;
    const auto executor = busy.m_pool.MakeExecutor();
    std::weak_ptr<int> observed;
    const auto postOnDeath = [&executor, &observed](const int* dying)
    {
        delete dying;
        auto token = std::make_shared<int>();
        observed = token;
        executor->Post([token = std::move(token)] {});
    };
    bool ran = false;
    executor->Post([&ran, dying = std::shared_ptr<const int>(new int(0), postOnDeath)] { ran = true; });
    busy.m_pool.Stop();
    EXPECT_FALSE(ran);
    EXPECT_EQ(observed.use_count(), 0);
}

TEST(ThreadPool, DestroysWhatIsPostedAfterStop)
{
    ThreadPool pool(1);
    const auto executor = pool.MakeExecutor();
    pool.Stop();
    pool.Stop();
    bool ran = false;
    auto token = std::make_shared<int>();
    const std::weak_ptr<int> observed = token;
    executor->Post([&ran, token = std::move(token)] { ran = true; });
    EXPECT_TRUE(observed.expired());
    EXPECT_FALSE(ran);
}

TEST(ThreadPool, MayDieBeforeItsExecutors)
{
    std::shared_ptr<Executor> executor;
    {
        ThreadPool pool(2);
        executor = pool.MakeExecutor();
    }
    EXPECT_TRUE(IsStopped(*executor));
}

TEST(ThreadPool, RunsOrDestroysEveryTaskThatIsPostedWhileItStops)
{
    constexpr int kPosters = 3;
    constexpr int kTasks = 1000;
    ThreadPool pool(2);
    std::vector<std::shared_ptr<Executor>> executors;
    const auto token = std::make_shared<int>();
    std::latch start(kPosters + 1);
    std::vector<std::thread> posters;
    posters.reserve(kPosters);
    for (int poster = 0; poster < kPosters; ++poster)
    {
        posters.emplace_back(
            [&start, token, executor = executors.emplace_back(pool.MakeExecutor())]
            {
                start.arrive_and_wait();
                for (int i = 0; i < kTasks; ++i)
                {
                    executor->Post([token] {});
                }
            });
    }
    start.arrive_and_wait();
    pool.Stop();
    for (std::thread& poster : posters)
    {
        poster.join();
    }
    posters.clear();
    EXPECT_EQ(token.use_count(), 1);
}
