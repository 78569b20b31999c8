#include "simulation/batch.h"

#include <CLI/CLI.hpp>

#include <chrono>
#include <exception>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>

/// manager_simulation: runs the manager beside its model, for as many seeds as one likes.
///
/// Results go to standard output, progress and trouble to standard error. Exit codes: 0 no difference, 1 a difference
/// or a crash, 2 bad arguments or a script that cannot be read.
namespace
{

using namespace ps_ns::simulation;

struct Arguments
{
    BatchOptions batch;
    std::string scriptFile;
    std::uint64_t traceSeed = 0;
    bool isQuiet = false;
};

int ReportFailure(const Scenario& scenario, const RunOptions& options, const std::string& difference)
{
    std::cerr << "difference: " << difference << "\nshrinking ...\n";
    const Scenario shortest = Shrink(scenario, [&](const Scenario& shorter) { return FailsAlone(shorter, options); });
    std::cerr << "the shortest script that still fails, to be run with --script:\n";
    WriteScenario(std::cout, shortest);
    return 1;
}

int RunSeeds(Arguments& arguments)
{
    const auto begin = std::chrono::steady_clock::now();
    const auto seconds = [begin]
    { return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count(); };
    double nextReport = 2;
    if (!arguments.isQuiet)
    {
        arguments.batch.onProgress = [&](std::uint64_t done)
        {
            if (seconds() >= nextReport)
            {
                nextReport = seconds() + 2;
                std::cerr << done << " of " << arguments.batch.seedCount << " seeds in "
                          << static_cast<unsigned>(seconds()) << " s\n";
            }
        };
    }
    const BatchResult result = RunBatch(arguments.batch);
    if (result.failedSeed)
    {
        std::cerr << "seed " << *result.failedSeed << " with " << arguments.batch.operationsPerSeed
                  << " operations fails\n";
        return ReportFailure(MakeScenario(*result.failedSeed, arguments.batch.operationsPerSeed), arguments.batch.run,
                             result.difference);
    }
    WriteBatchResult(std::cout, result);
    std::cout << "no difference, in " << seconds() << " s\n";
    return 0;
}

int RunTraced(const Scenario& scenario)
{
    const RunResult result = RunScenario(scenario, {.keepsTrace = true, .modelIsWrong = false});
    for (const std::string& line : result.trace)
    {
        std::cout << line << '\n';
    }
    if (result.failed)
    {
        std::cerr << "difference at operation " << result.failedAt << ": " << result.difference << '\n';
        return 1;
    }
    std::cerr << "no difference; trace " << std::hex << result.traceHash << '\n';
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    Arguments arguments;
    arguments.batch.seedCount = 100;
    CLI::App app("Runs the composite subscription manager beside a model of it: random requests, faults and orders of "
                 "events, and a comparison after every step.");
    app.add_option("--seeds", arguments.batch.seedCount, "how many seeds")->capture_default_str();
    app.add_option("--first", arguments.batch.firstSeed, "the first seed")->capture_default_str();
    app.add_option("--operations", arguments.batch.operationsPerSeed, "operations for each seed")
        ->capture_default_str();
    app.add_option("--jobs", arguments.batch.jobs, "processes side by side; 0: none but this one")
        ->capture_default_str();
    app.add_option("--trace", arguments.traceSeed, "run one seed and write everything that happens");
    app.add_option("--script", arguments.scriptFile, "run a script and write everything that happens");
    app.add_flag("--quiet", arguments.isQuiet, "no progress");
    CLI11_PARSE(app, argc, argv);
    try
    {
        if (!arguments.scriptFile.empty())
        {
            std::ifstream file(arguments.scriptFile);
            if (!file)
            {
                throw std::runtime_error("cannot be read");
            }
            return RunTraced(ReadScenario(file));
        }
        if (app.count("--trace") != 0)
        {
            return RunTraced(MakeScenario(arguments.traceSeed, arguments.batch.operationsPerSeed));
        }
        return RunSeeds(arguments);
    }
    catch (const std::exception& error)
    {
        std::cerr << "manager_simulation: " << (arguments.scriptFile.empty() ? "" : arguments.scriptFile + ": ")
                  << error.what() << '\n';
        return 2;
    }
}
