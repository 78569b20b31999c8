#include "testing/event_log.h"
#include "testing/hand_driven_executors.h"
#include "testing/hand_driven_queue.h"
#include "testing/hand_driven_time.h"
#include "testing/log_capture.h"

#include "async/async_task.h"
#include "common/channel_task.h"

#include <gtest/gtest.h>

#include <stdexcept>

using namespace ps_ns;
using namespace ps_ns::testing;
using namespace std::chrono_literals;

using Events = std::vector<std::string>;

TEST(HandDrivenExecutors, RunsEachExecutorsTasksInOrderWhenTold)
{
    HandDrivenExecutors executors;
    const auto first = executors.MakeExecutor();
    const auto second = executors.MakeExecutor();
    EventLog events;
    first->Post([&] { events.Add("first 1"); });
    first->Post([&] { events.Add("first 2"); });
    second->Post([&] { events.Add("second 1"); });
    EXPECT_TRUE(events.Take().empty());
    EXPECT_TRUE(executors.RunOne(1));
    EXPECT_FALSE(executors.RunOne(1));
    EXPECT_EQ(executors.RunAll(), 2U);
    EXPECT_EQ(events.Take(), (Events{"second 1", "first 1", "first 2"}));
}

TEST(HandDrivenExecutors, DestroysTasksOnceStopped)
{
    HandDrivenExecutors executors;
    const auto executor = executors.MakeExecutor();
    const auto held = std::make_shared<int>(0);
    executor->Post([held] {});
    EXPECT_EQ(held.use_count(), 2);
    executors.Stop();
    executor->Post([held] {});
    EXPECT_EQ(held.use_count(), 1);
}

TEST(HandDrivenExecutors, RecordsPostsOnlyWhenAskedTo)
{
    HandDrivenExecutors executors;
    const auto first = executors.MakeExecutor();
    EventLog events;
    first->Post([] {});
    executors.RecordPosts(events);
    const auto second = executors.MakeExecutor();
    second->Post([&] { events.Add("second"); });
    first->Post([] {});
    EXPECT_EQ(events.Take(), (Events{"executor.Post 1", "executor.Post 0"}));
    executors.SetOnPost(nullptr);
    second->Post([] {});
    executors.RunAll();
    EXPECT_EQ(events.Take(), Events{"second"});
}

TEST(HandDrivenExecutors, QueuesNothingWhenAPostThrows)
{
    HandDrivenExecutors executors;
    const auto executor = executors.MakeExecutor();
    executors.SetOnPost([](std::size_t) { throw std::runtime_error("thrown"); });
    EXPECT_THROW(executor->Post([] {}), std::runtime_error);
    EXPECT_EQ(executors.GetWaiting(), 0U);
    executors.Stop();
    EXPECT_NO_THROW(executor->Post([] {})); // posts to what is stopped do not count
}

TEST(HandDrivenQueue, PlaysTheQueueThreadWhileATaskRuns)
{
    HandDrivenQueue queue;
    EventLog events;
    queue.Get().insert(new ChannelTask<Task>([&] { events.Add(GetPlace(&queue.Get())); }, ""));
    events.Add(GetPlace(&queue.Get()));
    EXPECT_EQ(queue.RunAll(), 1U);
    EXPECT_EQ(events.Take(), (Events{"caller", "queue"}));
}

TEST(HandDrivenQueue, LetsOutWhatATaskThrowsAndGoesOn)
{
    HandDrivenQueue queue;
    queue.Get().insert(new ChannelTask<Task>([] { throw std::runtime_error("thrown"); }, ""));
    queue.Get().insert(new ChannelTask<Task>([] {}, ""));
    EXPECT_THROW(queue.RunOne(), std::runtime_error);
    EXPECT_TRUE(queue.RunOne());
    EXPECT_EQ(queue.GetWaiting(), 0U);
}

TEST(HandDrivenTime, RunsExpiriesAtTheirMoments)
{
    HandDrivenTime time;
    const auto dispatcher = std::make_shared<AsyncDispatcher>("test");
    Events seen;
    const auto start = time.Now();
    const auto note = [&](const char* name)
    {
        seen.push_back(std::string(name) + " at " + std::to_string((time.Now() - start) / 1ms));
        return true;
    };
    const auto late = std::make_shared<AsyncTask>("late", dispatcher, [&] { return note("late"); });
    const auto early = std::make_shared<AsyncTask>("early", dispatcher, [&] { return note("early"); });
    late->Run(20);
    early->Run(5);
    EXPECT_EQ(time.GetArmed(), 2U);
    time.Advance(4ms);
    EXPECT_TRUE(seen.empty());
    time.Advance(16ms);
    EXPECT_EQ(seen, (Events{"early at 5", "late at 20"}));
    EXPECT_EQ(time.GetArmed(), 0U);
}

TEST(LogCapture, RecordsWholeRecordsFromLevelZeroOnAndPutsTheLevelBack)
{
    zel::logging::g_minLogLevel = 20;
    EventLog events;
    {
        const LogCapture capture(events);
        zel::logging::Log({0, 7}, std::make_shared<const zel::logging::Source>("test"),
                          [](std::ostream& text) { text << "hello " << 5; });
    }
    EXPECT_EQ(events.Take(), Events{LogLine(0, 7, "hello 5")});
    EXPECT_EQ(zel::logging::g_minLogLevel.load(), 20);
    zel::logging::g_minLogLevel = 10;
}

TEST(LogHook, ActsBehindTheRecordsItIsToldOfAndNotBehindItsOwn)
{
    EventLog events;
    const LogCapture capture(events);
    const auto write = [](const std::string& line)
    {
        zel::logging::Log(20, std::make_shared<const zel::logging::Source>("test"),
                          [&](std::ostream& text) { text << line; });
    };
    {
        const LogHook hook("here", [&] { write("acted, and not again because of here"); });
        write("not now");
        write("it is here");
    }
    write("it was here");
    EXPECT_EQ(events.Take(), (Events{LogLine(20, "not now"), LogLine(20, "it is here"),
                                     LogLine(20, "acted, and not again because of here"), LogLine(20, "it was here")}));
}
