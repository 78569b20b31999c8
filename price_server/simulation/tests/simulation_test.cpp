#include "simulation/batch.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iostream>
#include <sstream>

namespace ps_ns::simulation
{
namespace
{

constexpr std::uint64_t kShare = PS_IS_SANITIZED ? 8 : 1; // of the seeds: sanitizers are that much slower
constexpr unsigned kJobs = PS_IS_SANITIZED ? 0 : 2;       // none: in this process, where the leak checker looks

TEST(Simulation, FindsNoDifferenceBetweenManagerAndModelInAMillionOperations)
{
    BatchOptions options;
    options.seedCount = 2500 / kShare;
    options.operationsPerSeed = 400;
    options.jobs = kJobs;
    const BatchResult result = RunBatch(options);
    ASSERT_FALSE(result.failedSeed) << "seed " << *result.failedSeed << ": " << result.difference
                                    << "\nto see it shrunk: manager_simulation --seeds 1 --operations 400 --first "
                                    << *result.failedSeed;
    EXPECT_EQ(result.operations, options.seedCount * options.operationsPerSeed);
    WriteBatchResult(std::cout, result);
    for (std::size_t i = 0; i < kFaultCount; ++i)
    {
        const auto fault = static_cast<Fault>(i);
        EXPECT_GT(result.faults.Get(fault), 0U) << "never seen: " << GetName(fault);
    }
}

TEST(Simulation, DoesTheSameForTheSameSeed)
{
    const RunOptions options{.keepsTrace = true, .modelIsWrong = false};
    for (const std::uint64_t seed : {7U, 8U, 9U})
    {
        const RunResult first = RunScenario(MakeScenario(seed, 500), options);
        const RunResult second = RunScenario(MakeScenario(seed, 500), options);
        EXPECT_EQ(first.trace, second.trace);
        EXPECT_EQ(first.traceHash, second.traceHash);
        EXPECT_GT(first.eventCount, 100U);
    }
    EXPECT_NE(RunScenario(MakeScenario(7, 500)).traceHash, RunScenario(MakeScenario(8, 500)).traceHash);
}

TEST(Simulation, FindsAMistakeInTheModelAndShrinksItToAShortScriptThatFailsTheSameWay)
{
    BatchOptions options;
    options.jobs = 0;
    options.seedCount = 100;
    options.run.modelIsWrong = true;
    const BatchResult result = RunBatch(options);
    ASSERT_TRUE(result.failedSeed);
    const Scenario scenario = MakeScenario(*result.failedSeed, options.operationsPerSeed);
    const Scenario shortest =
        Shrink(scenario, [&](const Scenario& shorter) { return RunScenario(shorter, options.run).failed; });

    // Subscribe, let it happen, unsubscribe, let it happen.
    EXPECT_LE(shortest.operations.size(), 5U);
    const RunResult again = RunScenario(shortest, options.run);
    EXPECT_TRUE(again.failed);
    EXPECT_NE(again.difference.find("the gauge of"), std::string::npos) << again.difference;
    EXPECT_FALSE(RunScenario(shortest).failed) << "the manager itself is right";
}

TEST(Simulation, ReportsTheSeedOfAProcessThatFails)
{
    BatchOptions options;
    options.jobs = 2;
    options.seedCount = 100;
    options.run.modelIsWrong = true;
    const BatchResult result = RunBatch(options);
    ASSERT_TRUE(result.failedSeed);
    EXPECT_TRUE(FailsAlone(MakeScenario(*result.failedSeed, options.operationsPerSeed), options.run));
    EXPECT_FALSE(FailsAlone(MakeScenario(*result.failedSeed, options.operationsPerSeed), {}));
}

TEST(Simulation, ReadsBackTheScriptThatItWrites)
{
    const Scenario scenario = MakeScenario(42, 200);
    std::stringstream text;
    WriteScenario(text, scenario);
    EXPECT_EQ(ReadScenario(text), scenario);
}

TEST(Simulation, SaysWhereAScriptIsWrong)
{
    const auto reasonOf = [](const std::string& script)
    {
        std::istringstream text(script);
        try
        {
            ReadScenario(text);
        }
        catch (const std::runtime_error& error)
        {
            return std::string(error.what());
        }
        return std::string("none");
    };
    const std::string setup = "setup zel=1 directory=0 skip=0 settled=1\n";
    EXPECT_EQ(reasonOf(""), "line 1: nothing found, \"setup\" expected");
    EXPECT_EQ(reasonOf("run_queue 1 2 3 4\n"), "line 1: \"run_queue\" found, \"setup\" expected");
    EXPECT_EQ(reasonOf("setup zel=2 directory=0 skip=0 settled=1\n"),
              "line 1: \"zel=2\" found, \"zel=0\" or \"=1\" expected");
    EXPECT_EQ(reasonOf(setup + "run_queue 1 2 3 4\nfly 1 2 3 4\n"), "line 3: there is no operation \"fly\"");
    EXPECT_EQ(reasonOf(setup + "run_queue 1 2 3\n"), "line 2: \"run_queue\" has 4 numbers");
    EXPECT_EQ(reasonOf(setup), "none");
}

TEST(Simulation, LeavesOutAllThatIsNotNeededWhenItShrinks)
{
    const Scenario scenario = MakeScenario(3, 300);
    const Operation needed = scenario.operations[123];
    const Operation alsoNeeded = scenario.operations[200];
    const auto contains = [](const Scenario& in, const Operation& operation)
    { return std::find(in.operations.begin(), in.operations.end(), operation) != in.operations.end(); };
    const Scenario shortest = Shrink(scenario, [&](const Scenario& shorter)
                                     { return contains(shorter, needed) && contains(shorter, alsoNeeded); });
    EXPECT_EQ(shortest.operations, (std::vector<Operation>{needed, alsoNeeded}));
}

} // namespace
} // namespace ps_ns::simulation
