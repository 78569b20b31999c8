#include "async/async_task.h"

#include "async/async_dispatcher.h"

#include <boost/asio/error.hpp>
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <vector>

using namespace ps_ns;
using namespace std::chrono_literals;

namespace
{

/// Time stands still until Advance moves it; the handlers run inside Advance.
class ManualTimerService final : public ITimerService
{
public:
    void Arm(std::weak_ptr<AsyncTask> task, unsigned long armingId, std::chrono::milliseconds delay) override
    {
        if (!m_stopped)
        {
            m_waiting.push_back({m_now + delay, std::move(task), armingId});
        }
    }

    void Shutdown() override
    {
        ++m_shutdowns;
        m_stopped = true;
        m_waiting.clear();
    }

    Clock::time_point Now() const override { return m_now; }

    void Advance(std::chrono::milliseconds time)
    {
        const Clock::time_point end = m_now + time;
        while (const auto expired = TakeFirst(end))
        {
            m_now = expired->due;
            if (const auto task = expired->task.lock())
            {
                task->asioHandler({}, expired->armingId);
            }
        }
        m_now = end;
    }

    std::size_t CountWaiting() const { return m_waiting.size(); }
    int CountShutdowns() const { return m_shutdowns; }

private:
    struct Waiting
    {
        Clock::time_point due;
        std::weak_ptr<AsyncTask> task;
        unsigned long armingId;
    };

    std::optional<Waiting> TakeFirst(Clock::time_point end)
    {
        const auto first = std::min_element(m_waiting.begin(), m_waiting.end(),
                                            [](const Waiting& a, const Waiting& b) { return a.due < b.due; });
        if (first == m_waiting.end() || first->due > end)
        {
            return std::nullopt;
        }
        Waiting taken = std::move(*first);
        m_waiting.erase(first);
        return taken;
    }

    Clock::time_point m_now{};
    std::vector<Waiting> m_waiting; ///< in the order of Arm
    bool m_stopped = false;
    int m_shutdowns = 0;
};

/// Timers on a clock that the test drives, all on the test's thread.
class AsyncTaskTest : public testing::Test
{
protected:
    AsyncTaskTest()
    {
        SetTimerServiceFactory(
            [this](const std::string& name)
            {
                m_askedName = name;
                return m_service;
            });
        m_dispatcher = std::make_shared<AsyncDispatcher>("unit");
    }
    ~AsyncTaskTest() override { SetTimerServiceFactory({}); }

    std::shared_ptr<AsyncTask> MakeTask(std::function<bool()> callback)
    {
        return std::make_shared<AsyncTask>("tick", m_dispatcher, std::move(callback));
    }

    /// A task that counts its expiries in m_fired, and does no more.
    std::shared_ptr<AsyncTask> MakeCounter()
    {
        return MakeTask(
            [this]
            {
                ++m_fired;
                return true;
            });
    }

    std::string m_askedName;
    const std::shared_ptr<ManualTimerService> m_service = std::make_shared<ManualTimerService>();
    std::shared_ptr<AsyncDispatcher> m_dispatcher;
    int m_fired = 0;
};

} // namespace

TEST_F(AsyncTaskTest, AsksTheFactoryForATimeServiceByTheDispatchersName)
{
    EXPECT_EQ(m_askedName, "unit");
    EXPECT_EQ(m_dispatcher->GetName(), "unit");
    m_service->Advance(5ms);
    EXPECT_EQ(m_dispatcher->Now(), m_service->Now());
}

TEST_F(AsyncTaskTest, FiresOnceForOneRunAndNotBeforeItsTime)
{
    const auto task = MakeCounter();
    EXPECT_EQ(task->GetName(), "tick");
    EXPECT_FALSE(task->IsArmed());
    task->Run(10);
    EXPECT_TRUE(task->IsArmed());
    m_service->Advance(9ms);
    EXPECT_EQ(m_fired, 0);
    m_service->Advance(1ms);
    EXPECT_EQ(m_fired, 1);
    m_service->Advance(1h);
    EXPECT_EQ(m_fired, 1);
}

TEST_F(AsyncTaskTest, IsIdleAfterACallbackThatReturnedTrueAndMayRunAgain)
{
    const auto task = MakeCounter();
    task->Run(10);
    m_service->Advance(10ms);
    EXPECT_FALSE(task->IsArmed());
    EXPECT_EQ(m_service->CountWaiting(), 0U);
    task->Run(3);
    m_service->Advance(3ms);
    EXPECT_EQ(m_fired, 2);
}

TEST_F(AsyncTaskTest, ForgetsTheEarlierIntervalOnASecondRun)
{
    const auto task = MakeCounter();
    task->Run(10);
    m_service->Advance(5ms);
    task->Run(20);
    m_service->Advance(19ms);
    EXPECT_EQ(m_fired, 0);
    EXPECT_TRUE(task->IsArmed());
    m_service->Advance(1ms);
    EXPECT_EQ(m_fired, 1);
}

TEST_F(AsyncTaskTest, FiresEarlierOnASecondRunThatIsShorter)
{
    const auto task = MakeCounter();
    task->Run(20);
    task->Run(5);
    m_service->Advance(5ms);
    EXPECT_EQ(m_fired, 1);
    m_service->Advance(1h);
    EXPECT_EQ(m_fired, 1);
}

TEST_F(AsyncTaskTest, DoesNotFireWhenNobodyHoldsIt)
{
    auto task = MakeCounter();
    task->Run(10);
    const std::weak_ptr<AsyncTask> observed = task;
    task.reset();
    EXPECT_TRUE(observed.expired());
    m_service->Advance(1h);
    EXPECT_EQ(m_fired, 0);
}

TEST_F(AsyncTaskTest, LivesUntilItsCallbackReturnsWhenTheCallbackLetsGoOfIt)
{
    std::shared_ptr<AsyncTask> task;
    std::weak_ptr<AsyncTask> observed;
    bool alive = false;
    task = MakeTask(
        [&]
        {
            task.reset();
            alive = !observed.expired();
            return true;
        });
    observed = task;
    task->Run(1);
    m_service->Advance(1ms);
    EXPECT_TRUE(alive);
    EXPECT_TRUE(observed.expired());
}

TEST_F(AsyncTaskTest, DoesNotFireAfterCancel)
{
    const auto task = MakeCounter();
    task->Run(10);
    task->Cancel();
    EXPECT_FALSE(task->IsArmed());
    m_service->Advance(1h);
    EXPECT_EQ(m_fired, 0);
}

TEST_F(AsyncTaskTest, DoesNotArmAgainAfterCancel)
{
    const auto task = MakeCounter();
    task->Cancel();
    task->Cancel();
    task->Run(10);
    EXPECT_FALSE(task->IsArmed());
    EXPECT_EQ(m_service->CountWaiting(), 0U);
    m_service->Advance(1h);
    EXPECT_EQ(m_fired, 0);
}

TEST_F(AsyncTaskTest, StaysCancelledWhenItsCallbackCancelsAndThenRuns)
{
    std::shared_ptr<AsyncTask> task;
    task = MakeTask(
        [&]
        {
            ++m_fired;
            task->Cancel();
            task->Run(1);
            return false;
        });
    task->Run(1);
    m_service->Advance(1h);
    EXPECT_EQ(m_fired, 1);
    EXPECT_FALSE(task->IsArmed());
}

TEST_F(AsyncTaskTest, StaysCancelledWhenItsCallbackRunsAndThenCancels)
{
    std::shared_ptr<AsyncTask> task;
    task = MakeTask(
        [&]
        {
            ++m_fired;
            task->Run(1);
            task->Cancel();
            return false;
        });
    task->Run(1);
    m_service->Advance(1h);
    EXPECT_EQ(m_fired, 1);
}

TEST_F(AsyncTaskTest, ArmsAgainWhenItsCallbackRunsIt)
{
    std::vector<std::chrono::milliseconds> times;
    const auto start = m_service->Now();
    std::shared_ptr<AsyncTask> task;
    task = MakeTask(
        [&]
        {
            times.push_back(std::chrono::duration_cast<std::chrono::milliseconds>(m_service->Now() - start));
            task->Run(10);
            return false;
        });
    task->Run(10);
    m_service->Advance(35ms);
    EXPECT_EQ(times, (std::vector{10ms, 20ms, 30ms}));
    EXPECT_TRUE(task->IsArmed());
    task->Cancel();
    m_service->Advance(1h);
    EXPECT_EQ(times.size(), 3U);
}

TEST_F(AsyncTaskTest, FiresAtOnceForAnIntervalOfZero)
{
    const auto task = MakeCounter();
    task->Run(0);
    EXPECT_EQ(m_fired, 0) << "inside Run";
    m_service->Advance(0ms);
    EXPECT_EQ(m_fired, 1);
}

TEST_F(AsyncTaskTest, TakesTheLongestIntervalWhole)
{
    const auto task = MakeCounter();
    task->Run(4'294'967'295U);
    m_service->Advance(4'294'967'294ms);
    EXPECT_EQ(m_fired, 0);
    m_service->Advance(1ms);
    EXPECT_EQ(m_fired, 1);
}

TEST_F(AsyncTaskTest, IsIdleAndSilentWhenTheTimerWasAborted)
{
    const auto task = MakeCounter();
    task->Run(10); // the first arming of a task is number 1
    task->asioHandler(boost::asio::error::operation_aborted, 1);
    EXPECT_EQ(m_fired, 0);
    EXPECT_FALSE(task->IsArmed());
    m_service->Advance(1h);
    EXPECT_EQ(m_fired, 0);
}

TEST_F(AsyncTaskTest, IgnoresAnArmingThatItNeverMade)
{
    const auto task = MakeCounter();
    task->Run(10);
    task->asioHandler({}, 2);
    task->asioHandler({}, 0);
    EXPECT_EQ(m_fired, 0);
    EXPECT_TRUE(task->IsArmed());
    task->Cancel();
    task->asioHandler({}, 0);
    task->asioHandler({}, 1);
    EXPECT_EQ(m_fired, 0);
}

TEST_F(AsyncTaskTest, DoesNotFireAfterTheDispatcherWasShutDown)
{
    const auto task = MakeCounter();
    task->Run(10);
    m_dispatcher->Shutdown();
    m_dispatcher->Shutdown();
    task->Run(10);
    m_service->Advance(1h);
    EXPECT_EQ(m_fired, 0);
}

TEST_F(AsyncTaskTest, DoesNotFireAgainWhenItsCallbackShutsTheDispatcherDown)
{
    const auto other = MakeCounter();
    const auto task = MakeTask(
        [this]
        {
            m_dispatcher->Shutdown();
            return true;
        });
    task->Run(10);
    other->Run(10);
    m_service->Advance(1h);
    EXPECT_EQ(m_fired, 0);
}

TEST_F(AsyncTaskTest, KeepsItsDispatcherWhichShutsDownWithItsLastOwner)
{
    auto task = MakeCounter();
    m_dispatcher.reset();
    EXPECT_EQ(m_service->CountShutdowns(), 0);
    task.reset();
    EXPECT_EQ(m_service->CountShutdowns(), 1);
}
