#include "async/timer_service.h"

#include "async/async_dispatcher.h"
#include "async/async_task.h"
#include "logging/sinks.h"

#include <gtest/gtest.h>

#include <array>
#include <future>
#include <latch>
#include <stdexcept>
#include <thread>
#include <vector>

using namespace ps_ns;
using namespace std::chrono_literals;

namespace
{

constexpr auto kDeadline = 60s; // for what takes milliseconds

/// The service that the server uses, with its thread.
class TimerServiceTest : public testing::Test
{
protected:
    ~TimerServiceTest() override { zel::logging::Logger::SetSink(nullptr); }

    static void Await(std::future<void> future) { ASSERT_EQ(future.wait_for(kDeadline), std::future_status::ready); }

    std::shared_ptr<AsyncTask> MakeTask(std::function<void()> callback)
    {
        return std::make_shared<AsyncTask>("tick", m_dispatcher,
                                           [callback = std::move(callback)]
                                           {
                                               callback();
                                               return true;
                                           });
    }

    std::shared_ptr<AsyncDispatcher> m_dispatcher = std::make_shared<AsyncDispatcher>("unit");
};

} // namespace

TEST_F(TimerServiceTest, FiresATimerOfOneMillisecondNotBeforeItsTimeOnAThreadOfItsOwn)
{
    std::promise<void> fired;
    std::thread::id thread;
    ITimerService::Clock::time_point when;
    const auto task = MakeTask(
        [&]
        {
            thread = std::this_thread::get_id();
            when = m_dispatcher->Now();
            fired.set_value();
        });
    const auto start = m_dispatcher->Now();
    task->Run(1);
    Await(fired.get_future());
    EXPECT_GE(when - start, 1ms);
    EXPECT_NE(thread, std::this_thread::get_id());
    EXPECT_FALSE(task->IsArmed());
}

TEST_F(TimerServiceTest, DoesNotHoldAShortIntervalUpForALongOneThatWasArmedBefore)
{
    std::promise<void> fired;
    bool lateFired = false;
    const auto late = MakeTask([&] { lateFired = true; });
    const auto early = MakeTask([&] { fired.set_value(); });
    late->Run(3'600'000);
    early->Run(1);
    Await(fired.get_future());
    m_dispatcher->Shutdown();
    EXPECT_FALSE(lateFired);
}

TEST_F(TimerServiceTest, ArmsAgainWhenItsCallbackRunsIt)
{
    std::promise<void> third;
    int fired = 0;
    std::shared_ptr<AsyncTask> task;
    task = MakeTask(
        [&]
        {
            if (++fired == 3)
            {
                third.set_value();
                return;
            }
            task->Run(1);
        });
    task->Run(1);
    Await(third.get_future());
    m_dispatcher->Shutdown();
    EXPECT_EQ(fired, 3);
}

TEST_F(TimerServiceTest, RunsNothingMoreAfterAShutdownFromItsCallback)
{
    std::promise<void> done;
    bool fired = false;
    const auto second = MakeTask([&] { fired = true; });
    const auto first = MakeTask(
        [&]
        {
            second->Run(0);
            m_dispatcher->Shutdown();
            done.set_value();
        });
    first->Run(0);
    Await(done.get_future());
    m_dispatcher->Shutdown(); // joins the thread: what has not fired now never does
    second->Run(0);
    EXPECT_FALSE(fired);
}

TEST_F(TimerServiceTest, WaitsInShutdownForARunningCallbackAlsoAfterThatCallbackShutItDown)
{
    constexpr int kCallers = 2;
    std::promise<void> inside;
    std::latch gate(kCallers + 1);
    bool finished = false;
    const auto task = MakeTask(
        [&]
        {
            m_dispatcher->Shutdown();
            inside.set_value();
            gate.arrive_and_wait();
            finished = true;
        });
    task->Run(0);
    Await(inside.get_future());
    std::array<bool, kCallers> seen{};
    std::vector<std::thread> callers;
    callers.reserve(kCallers);
    for (bool& seenByThis : seen)
    {
        callers.emplace_back(
            [&]
            {
                gate.arrive_and_wait();
                m_dispatcher->Shutdown();
                seenByThis = finished;
            });
    }
    for (std::thread& caller : callers)
    {
        caller.join();
    }
    EXPECT_EQ(seen, (std::array{true, true}));
}

TEST_F(TimerServiceTest, DropsWhatWaitsWhenItsOwnersLetGo)
{
    bool fired = false;
    auto task = MakeTask([&] { fired = true; });
    const std::weak_ptr<AsyncTask> observed = task;
    task->Run(3'600'000);
    task.reset();
    EXPECT_TRUE(observed.expired());
    m_dispatcher.reset();
    EXPECT_FALSE(fired);
}

TEST_F(TimerServiceTest, MayDieInItsOwnCallback)
{
    std::promise<void> gone;
    auto real = MakeTimerService("unit");
    const auto release = [&gone, real](ITimerService*) mutable
    {
        real.reset();
        gone.set_value();
    };
    SetTimerServiceFactory([service = std::shared_ptr<ITimerService>(real.get(), release)](const std::string&)
                           { return service; });
    real.reset();
    m_dispatcher = std::make_shared<AsyncDispatcher>("unit");
    SetTimerServiceFactory({});
    std::promise<void> handedOver;
    std::shared_ptr<AsyncTask> task;
    task = MakeTask(
        [&]
        {
            handedOver.get_future().wait();
            task.reset(); // the last owner but the running handler
        });
    task->Run(0);
    m_dispatcher.reset();
    handedOver.set_value();
    Await(gone.get_future());
}

TEST_F(TimerServiceTest, LogsACallbackThatThrowsAndRunsTheNext)
{
    const auto log = std::make_shared<zel::logging::CapturingSink>();
    zel::logging::Logger::SetSink(log);
    std::promise<void> done;
    const auto next = MakeTask([&] { done.set_value(); });
    const auto wild = MakeTask(
        [&]
        {
            next->Run(0);
            throw 1;
        });
    const auto broken = MakeTask(
        [&]
        {
            wild->Run(0);
            throw std::runtime_error("no more");
        });
    broken->Run(0);
    Await(done.get_future());
    m_dispatcher->Shutdown();
    const auto records = log->GetRecords();
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(records[0].level, 30);
    EXPECT_EQ(records[0].text, "a timer's callback threw: no more");
    EXPECT_EQ(records[1].text, "a timer's callback threw something that is no exception");
}

TEST_F(TimerServiceTest, MayBeRunAndCancelledFromSeveralThreads)
{
    constexpr int kThreads = 3;
    constexpr int kRuns = 200;
    int fired = 0;
    const auto task = MakeTask([&] { ++fired; });
    std::latch start(kThreads);
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int i = 0; i < kThreads; ++i)
    {
        threads.emplace_back(
            [&, last = i == 0]
            {
                start.arrive_and_wait();
                for (int run = 0; run < kRuns; ++run)
                {
                    task->Run(0);
                }
                if (last)
                {
                    task->Cancel();
                }
            });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_FALSE(task->IsArmed());
    m_dispatcher->Shutdown();
    EXPECT_LE(fired, kThreads * kRuns);
}
