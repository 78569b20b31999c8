#include "testing/manager_bench.h"

#include "config/config.h"

#include <gtest/gtest.h>

#include <stdexcept>

using namespace ps_ns;
using namespace ps_ns::testing;
using namespace std::chrono_literals;

namespace
{

using Events = std::vector<std::string>;

ManagerBench::Options NotInitialised(const std::string& configuration = "<PriceServer/>")
{
    ManagerBench::Options options;
    options.init = false;
    options.configuration = configuration;
    return options;
}

bool UnitTestInit(ManagerBench& bench)
{
    return bench.manager->UnitTestInit(bench.config, &bench.queue.Get(),
                                       std::make_shared<DefaultCompositePriceFactory>());
}

bool Init(ManagerBench& bench)
{
    return bench.manager->Init(bench.config, &bench.queue.Get(), std::make_shared<DefaultCompositePriceFactory>());
}

std::string InitLine(bool skips, unsigned interval)
{
    return LogLine(10, std::string("CompositeSubscriptionMgr::Init skipUnchangedSnapshots=") +
                           (skips ? "true" : "false") +
                           " instrumentMonitoringInterval_sec=" + std::to_string(interval));
}

std::string GeneralWith(const std::string& attributes)
{
    return "<PriceServer><General " + attributes + "/></PriceServer>";
}

} // namespace

TEST(ManagerLifecycle, StartsWithSkippingOnBeforeTheConfigurationIsRead)
{
    ManagerBench bench(NotInitialised());
    EXPECT_TRUE(bench.Access().SkipsUnchangedSnapshots());
    EXPECT_EQ(bench.Access().InstrumentMonitoringInterval_sec(), 0U);
    EXPECT_EQ(bench.manager->GetPriceFactory(), nullptr);
}

TEST(ManagerLifecycle, ReadsSkippingAsOffAndNoIntervalWithoutAGeneralSection)
{
    ManagerBench bench(NotInitialised());
    EXPECT_TRUE(UnitTestInit(bench));
    EXPECT_FALSE(bench.Access().SkipsUnchangedSnapshots());
    EXPECT_EQ(bench.Access().InstrumentMonitoringInterval_sec(), 0U);
    EXPECT_EQ(bench.events.Take(), Events{InitLine(false, 0)});
}

TEST(ManagerLifecycle, ReadsSkippingAsOffWhenTheSectionHasNoAttributes)
{
    ManagerBench bench(NotInitialised(GeneralWith("")));
    EXPECT_TRUE(UnitTestInit(bench));
    EXPECT_EQ(bench.events.Take(), Events{InitLine(false, 0)});
}

TEST(ManagerLifecycle, FindsTheSectionWhenItIsTheRootItself)
{
    ManagerBench bench(NotInitialised(R"(<General SkipUnchangedSnapshots="T" InstrumentMonitoringInterval_sec="7"/>)"));
    EXPECT_TRUE(UnitTestInit(bench));
    EXPECT_EQ(bench.events.Take(), Events{InitLine(true, 7)});
}

TEST(ManagerLifecycle, AcceptsYesTAndOneInAnyCaseAsTrue)
{
    for (const char* const text : {"yes", "YES", "yEs", "t", "T", "1", "true", "True"})
    {
        ManagerBench bench(NotInitialised(GeneralWith("SkipUnchangedSnapshots=\"" + std::string(text) + "\"")));
        EXPECT_TRUE(UnitTestInit(bench)) << text;
        EXPECT_TRUE(bench.Access().SkipsUnchangedSnapshots()) << text;
    }
}

TEST(ManagerLifecycle, AcceptsNoFAndZeroInAnyCaseAsFalse)
{
    for (const char* const text : {"No", "no", "f", "F", "0", "false", "FALSE"})
    {
        ManagerBench bench(NotInitialised(GeneralWith("SkipUnchangedSnapshots=\"" + std::string(text) + "\"")));
        EXPECT_TRUE(UnitTestInit(bench)) << text;
        EXPECT_FALSE(bench.Access().SkipsUnchangedSnapshots()) << text;
    }
}

TEST(ManagerLifecycle, ThrowsOutOfInitForAnyOtherBooleanNamingItInUpperCase)
{
    ManagerBench bench(NotInitialised(GeneralWith("SkipUnchangedSnapshots=\"maybe\"")));
    try
    {
        UnitTestInit(bench);
        FAIL() << "accepted";
    }
    catch (const std::runtime_error& error)
    {
        EXPECT_STREQ(error.what(), "Invalid Value MAYBE for Attribute SkipUnchangedSnapshots");
    }
    EXPECT_TRUE(bench.events.Take().empty());
}

TEST(ManagerLifecycle, DoesNotTrimABoolean)
{
    ManagerBench bench(NotInitialised(GeneralWith("SkipUnchangedSnapshots=\" 1\"")));
    EXPECT_THROW(UnitTestInit(bench), std::runtime_error);
}

TEST(ManagerLifecycle, TakesAnIntervalThatIsNoNumberAsZero)
{
    ManagerBench bench(NotInitialised(GeneralWith("InstrumentMonitoringInterval_sec=\"soon\"")));
    EXPECT_TRUE(UnitTestInit(bench));
    EXPECT_EQ(bench.Access().InstrumentMonitoringInterval_sec(), 0U);
}

TEST(ManagerLifecycle, TakesAnIntervalOfMinusOneAsTheLargestNumber)
{
    ManagerBench bench(NotInitialised(GeneralWith("InstrumentMonitoringInterval_sec=\"-1\"")));
    EXPECT_TRUE(UnitTestInit(bench));
    EXPECT_EQ(bench.Access().InstrumentMonitoringInterval_sec(), 4294967295U);
}

TEST(ManagerLifecycle, MakesNoPeriodicTaskInAUnitTestInit)
{
    ManagerBench bench(NotInitialised());
    UnitTestInit(bench);
    EXPECT_EQ(bench.Access().PeriodicTasks()[0], nullptr);
    EXPECT_EQ(bench.time.GetArmed(), 0U);
}

TEST(ManagerLifecycle, MakesNoPeriodicTaskWithOneProvider)
{
    ManagerBench::Options options = NotInitialised();
    options.withZel = false;
    ManagerBench bench(options);
    Init(bench);
    EXPECT_EQ(bench.Access().PeriodicTasks()[0], nullptr);
}

TEST(ManagerLifecycle, MakesNoPeriodicTaskWithoutMds)
{
    ManagerBench::Options options = NotInitialised();
    options.withMds = false;
    ManagerBench bench(options);
    Init(bench);
    EXPECT_EQ(bench.Access().PeriodicTasks()[0], nullptr);
}

TEST(ManagerLifecycle, PostsATaskThatDoesNothingEveryTwoSecondsWithBothProviders)
{
    ManagerBench bench(NotInitialised());
    Init(bench);
    ASSERT_NE(bench.Access().PeriodicTasks()[0], nullptr);
    EXPECT_EQ(bench.Access().PeriodicTasks()[0]->GetName(), "MonitorPendingSymbolsTask");
    bench.Access().PendingProvider()[PendingSubscriptionID(MakeDef("X"))] = {};
    bench.CompleteDirectories();
    bench.events.Clear();

    bench.time.Advance(1999ms);
    EXPECT_EQ(bench.queue.GetWaiting(), 0U);
    bench.time.Advance(1ms);
    EXPECT_EQ(bench.queue.GetWaiting(), 1U);
    bench.time.Advance(4000ms);
    EXPECT_EQ(bench.queue.GetWaiting(), 3U);
    EXPECT_EQ(bench.queue.RunAll(), 3U);
    // Not even the pending check runs.
    EXPECT_EQ(bench.events.Take(), Events{});
    EXPECT_EQ(bench.Access().PendingProvider().size(), 1U);
}

TEST(ManagerLifecycle, EndsThePeriodicTaskAtShutdownWhichMayComeTwice)
{
    ManagerBench bench(NotInitialised());
    Init(bench);
    const std::weak_ptr<AsyncTask> task = bench.Access().PeriodicTasks()[0];
    bench.manager->Shutdown();
    EXPECT_TRUE(task.expired());
    bench.manager->Shutdown();
    bench.time.Advance(10s);
    EXPECT_EQ(bench.queue.GetWaiting(), 0U);
}

TEST(ManagerLifecycle, RunsQueuedRequestsAfterShutdown)
{
    ManagerBench bench;
    const auto observer = bench.MakeObserver("A");
    bench.manager->Subscribe(MakeDef("X"), {}, observer, 1);
    bench.manager->Shutdown();
    bench.Run();
    EXPECT_EQ(bench.zel->GetListenerCount("X"), 1U);
}

TEST(ManagerLifecycle, HandsOutTheFactoryItWasGiven)
{
    ManagerBench bench(NotInitialised());
    const auto factory = std::make_shared<DefaultCompositePriceFactory>();
    bench.manager->UnitTestInit(bench.config, &bench.queue.Get(), factory);
    EXPECT_EQ(bench.manager->GetPriceFactory(), factory);
    bench.manager->Start(); // does nothing
    EXPECT_EQ(bench.queue.GetWaiting(), 0U);
}

TEST(ManagerLifecycle, StartsATimerThatPostsOnceAndBelongsToTheCaller)
{
    ManagerBench bench;
    int runs = 0;
    auto timer = bench.manager->StartTimer([&] { ++runs; }, 50, "once");
    EXPECT_EQ(timer->GetName(), "once");
    bench.time.Advance(49ms);
    EXPECT_EQ(bench.queue.GetWaiting(), 0U);
    bench.time.Advance(200ms);
    EXPECT_EQ(runs, 0);
    EXPECT_EQ(bench.queue.RunAll(), 1U);
    EXPECT_EQ(runs, 1);

    timer = bench.manager->StartTimer([&] { ++runs; }, 50, "dropped");
    timer.reset();
    bench.time.Advance(100ms);
    EXPECT_EQ(bench.queue.GetWaiting(), 0U);
}

TEST(ManagerLifecycle, CutsATimersDelayToItsLowThirtyTwoBits)
{
    ManagerBench bench;
    const auto timer = bench.manager->StartTimer([] {}, 0x1'0000'0005L, "long");
    EXPECT_EQ(timer->GetPeriod(), 5U);
    bench.time.Advance(5ms);
    EXPECT_EQ(bench.queue.GetWaiting(), 1U);
    const auto negative = bench.manager->StartTimer([] {}, -1L, "negative");
    EXPECT_EQ(negative->GetPeriod(), 4294967295U);
}

TEST(ManagerLifecycle, LeavesSubscriptionsToTheRegistryWhenItDies)
{
    ManagerBench bench;
    bench.manager->Subscribe(MakeDef("X"), {}, bench.MakeObserver("A"), 1);
    bench.Run();
    bench.manager.reset();
    EXPECT_EQ(bench.simple->GetRegistry().GetSize(), 1U);
    bench.zel->Stop();
    bench.executors->Stop();
    bench.simple.reset();
}

TEST(ManagerConstants, KeepTheirUnevenLetters)
{
    EXPECT_EQ(impliedSymbolPrefix, "IM_");
    EXPECT_EQ(legweaverSymbolPrefix, "SI_");
    EXPECT_EQ(aggregatorSymbolPrefix, "AI_");
    EXPECT_EQ(simulatedSymbolPrefix, "EX_");
    EXPECT_EQ(uncoveredSymbolPrefix, "UC_");
    EXPECT_EQ(lbm::th_log->GetName(), "lbm_triage_handler");
}
