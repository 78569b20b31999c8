#include "common/channel_periodic_task.h"
#include "common/timer_task.h"
#include "test_queue.h"

#include <gtest/gtest.h>

#include <memory>

using namespace ps_ns;
using namespace ps_ns::test;
using namespace std::chrono_literals;

namespace
{

using Timer = TimerTask<FakeQueue, Task>;
using Periodic = ChannelPeriodicTask<FakeQueue, Task>;

/// Both kinds of timer on a clock that stands still until the test lets it expire.
class TimerTest : public testing::Test
{
protected:
    TimerTest()
    {
        SetTimerServiceFactory([this](const std::string&) { return m_timers; });
        m_dispatcher = std::make_shared<AsyncDispatcher>("test");
    }
    ~TimerTest() override { SetTimerServiceFactory({}); }

    std::shared_ptr<Timer> MakeTimer(FakeQueue& queue, std::uint32_t delay_ms = 100)
    {
        return std::make_shared<Timer>("timer", m_dispatcher, CountRuns(), delay_ms, &queue);
    }
    std::shared_ptr<Periodic> MakePeriodic(FakeQueue& queue, std::uint32_t period_ms = 2000)
    {
        return std::make_shared<Periodic>("ticks", m_dispatcher, CountRuns(), &queue, period_ms);
    }

    /// An action that counts its runs, and holds m_held.
    std::function<void()> CountRuns()
    {
        return [this, held = m_held] { ++m_runs; };
    }

    static const std::string& NameOf(const Task* task)
    {
        return dynamic_cast<const ChannelTask<Task>&>(*task).GetName();
    }

    const std::shared_ptr<HandDrivenTimers> m_timers = std::make_shared<HandDrivenTimers>();
    std::shared_ptr<AsyncDispatcher> m_dispatcher;
    const std::shared_ptr<int> m_held = std::make_shared<int>(0);
    int m_runs = 0;
};

} // namespace

using TimerTaskTest = TimerTest;
using ChannelPeriodicTaskTest = TimerTest;

TEST_F(TimerTaskTest, DoesNotArmItself)
{
    FakeQueue queue;
    const auto timer = MakeTimer(queue);
    EXPECT_TRUE(m_timers->m_armed.empty());
    EXPECT_FALSE(timer->IsArmed());
    EXPECT_EQ(timer->GetPeriod(), 100U);
}

TEST_F(TimerTaskTest, PostsOncePerExpiryAndDoesNotArmAgain)
{
    FakeQueue queue;
    const auto timer = MakeTimer(queue);
    timer->Run(timer->GetPeriod());
    ASSERT_EQ(m_timers->m_armed.size(), 1U);
    EXPECT_EQ(m_timers->m_armed[0].delay, 100ms);
    EXPECT_EQ(queue.m_inserts, 0);

    m_timers->Expire();
    EXPECT_EQ(queue.m_inserts, 1);
    EXPECT_TRUE(m_timers->m_armed.empty());
    EXPECT_FALSE(timer->IsArmed());

    m_timers->Expire();
    EXPECT_EQ(queue.m_inserts, 1);

    timer->Run(5);
    m_timers->Expire();
    EXPECT_EQ(queue.m_inserts, 2);
}

TEST_F(TimerTaskTest, PostsATaskWithItsActionAndItsOwnName)
{
    FakeQueue queue;
    EXPECT_TRUE(MakeTimer(queue)->onTimer());
    ASSERT_EQ(queue.m_tasks.size(), 1U);
    EXPECT_EQ(NameOf(queue.m_tasks[0]), "timer");
    EXPECT_EQ(queue.m_tasks[0]->m_tag, 1U);
    EXPECT_FALSE(queue.m_tasks[0]->m_disposer);
    EXPECT_EQ(m_runs, 0) << "never on the timer's thread";
    queue.m_tasks[0]->execute();
    EXPECT_EQ(m_runs, 1);
}

TEST_F(TimerTaskTest, KeepsItsActionForTheNextExpiry)
{
    FakeQueue queue(FakeQueue::Mode::RunAtOnce);
    const auto timer = MakeTimer(queue);
    EXPECT_TRUE(timer->onTimer());
    EXPECT_TRUE(timer->onTimer());
    EXPECT_EQ(m_runs, 2);
}

TEST_F(TimerTaskTest, HasLetGoOfItsCopyOfTheActionWhenItInserts)
{
    FakeQueue queue(FakeQueue::Mode::RunAtOnce);
    const auto timer = MakeTimer(queue);
    const long before = m_held.use_count();
    long atEndOfInsert = 0;
    queue.m_atEndOfInsert = [&] { atEndOfInsert = m_held.use_count(); };
    timer->onTimer();
    EXPECT_EQ(m_runs, 1);
    EXPECT_EQ(atEndOfInsert, before);
}

TEST_F(TimerTaskTest, AnswersTrueWhenTheQueueRefuses)
{
    FakeQueue queue(FakeQueue::Mode::Refuse);
    const auto timer = MakeTimer(queue);
    EXPECT_TRUE(timer->onTimer());
    EXPECT_EQ(m_runs, 0);
    EXPECT_TRUE(m_timers->m_armed.empty());
}

TEST_F(TimerTaskTest, DoesNotPostWhenItIsCancelledOrGone)
{
    FakeQueue queue;
    const auto cancelled = MakeTimer(queue);
    cancelled->Run(100);
    cancelled->Cancel();
    auto gone = MakeTimer(queue);
    gone->Run(100);
    gone.reset();
    m_timers->Expire();
    EXPECT_EQ(queue.m_inserts, 0);
}

TEST_F(TimerTaskTest, LetsGoOfItsActionWhenItDies)
{
    FakeQueue queue;
    const long before = m_held.use_count();
    MakeTimer(queue).reset();
    EXPECT_EQ(m_held.use_count(), before);
}

TEST_F(ChannelPeriodicTaskTest, ArmsAgainAfterEachPost)
{
    FakeQueue queue;
    const auto ticks = MakePeriodic(queue);
    EXPECT_TRUE(m_timers->m_armed.empty()) << "the first Run is the owner's";
    ticks->Run(2000);
    for (int tick = 1; tick <= 3; ++tick)
    {
        ASSERT_EQ(m_timers->m_armed.size(), 1U);
        EXPECT_EQ(m_timers->m_armed[0].delay, 2000ms);
        m_timers->Expire();
        EXPECT_EQ(queue.m_inserts, tick);
    }
    EXPECT_TRUE(ticks->IsArmed());
}

TEST_F(ChannelPeriodicTaskTest, ArmsAfterItHasPosted)
{
    FakeQueue queue;
    const auto ticks = MakePeriodic(queue);
    int insertsBeforeArming = -1;
    m_timers->m_onArm = [&] { insertsBeforeArming = queue.m_inserts; };
    EXPECT_FALSE(ticks->onTimer());
    EXPECT_EQ(insertsBeforeArming, 1);
}

TEST_F(ChannelPeriodicTaskTest, PostsATaskWithItsActionAndItsOwnName)
{
    FakeQueue queue;
    const auto ticks = MakePeriodic(queue);
    ticks->onTimer();
    ASSERT_EQ(queue.m_tasks.size(), 1U);
    EXPECT_EQ(NameOf(queue.m_tasks[0]), "ticks");
    EXPECT_EQ(queue.m_tasks[0]->m_tag, 1U);
    EXPECT_FALSE(queue.m_tasks[0]->m_disposer);
    EXPECT_EQ(m_runs, 0);
    queue.m_tasks[0]->execute();
    EXPECT_EQ(m_runs, 1);
}

TEST_F(ChannelPeriodicTaskTest, ArmsAgainAlsoWhenTheQueueRefused)
{
    DataQueue<DataMsgTask> queue("requests", zel::metrics::Gauge());
    queue.shutdown();
    const auto ticks = std::make_shared<ChannelPeriodicTask<DataQueue<DataMsgTask>, Task>>("ticks", m_dispatcher,
                                                                                           CountRuns(), &queue, 2000);
    const long before = m_held.use_count();
    ticks->Run(2000);
    m_timers->Expire();
    EXPECT_EQ(m_runs, 0);
    EXPECT_EQ(queue.size(), 0U);
    EXPECT_EQ(m_held.use_count(), before) << "the refused task is gone";
    ASSERT_EQ(m_timers->m_armed.size(), 1U);
    EXPECT_EQ(m_timers->m_armed[0].delay, 2000ms);
}

TEST_F(ChannelPeriodicTaskTest, HasLetGoOfItsCopyOfTheActionWhenItInserts)
{
    FakeQueue queue(FakeQueue::Mode::RunAtOnce);
    const auto ticks = MakePeriodic(queue);
    const long before = m_held.use_count();
    long atEndOfInsert = 0;
    queue.m_atEndOfInsert = [&] { atEndOfInsert = m_held.use_count(); };
    ticks->onTimer();
    EXPECT_EQ(m_runs, 1);
    EXPECT_EQ(atEndOfInsert, before);
}

TEST_F(ChannelPeriodicTaskTest, EndsWhenItIsCancelledAlsoByItsOwnTick)
{
    FakeQueue queue;
    const auto ticks = MakePeriodic(queue);
    ticks->Run(2000);
    m_timers->Expire();
    ticks->Cancel();
    m_timers->Expire();
    EXPECT_EQ(queue.m_inserts, 1);

    const auto cancelledInTick = MakePeriodic(queue);
    queue.m_atEndOfInsert = [&] { cancelledInTick->Cancel(); };
    cancelledInTick->Run(2000);
    m_timers->Expire();
    EXPECT_EQ(queue.m_inserts, 2);
    EXPECT_TRUE(m_timers->m_armed.empty());
}

TEST_F(ChannelPeriodicTaskTest, PilesUpItsTicksInASlowQueue)
{
    FakeQueue queue;
    const auto ticks = MakePeriodic(queue, 1);
    ticks->Run(1);
    for (int tick = 0; tick < 10; ++tick)
    {
        m_timers->Expire();
    }
    EXPECT_EQ(queue.m_tasks.size(), 10U);
    EXPECT_EQ(m_timers->m_armed.size(), 1U);
}

TEST_F(ChannelPeriodicTaskTest, PostsNothingAfterItsDispatcherIsShutDown)
{
    FakeQueue queue;
    const auto ticks = MakePeriodic(queue);
    ticks->Run(2000);
    m_dispatcher->Shutdown();
    m_timers->Expire();
    EXPECT_EQ(queue.m_inserts, 0);
}
