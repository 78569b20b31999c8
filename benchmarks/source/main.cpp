#include "comparison.h"
#include "logging/logging.h"

#include <CLI/CLI.hpp>

#include <exception>
#include <iostream>

/// Runs the project and what a user would pick instead on the same work, in turn, and prints how they compare.
int main(int argc, char** argv)
{
    CLI::App app("Runs the project and its peers on the same work, in turn.");
    std::size_t rounds = 7;
    std::string filter;
    std::string json;
    app.add_option("--rounds", rounds, "Rounds that count, after one to warm up")->check(CLI::Range(1, 1000));
    app.add_option("--filter", filter, "Only comparisons whose \"group/name\" contains this");
    app.add_option("--json", json, "Write the results to this file as well");
    CLI11_PARSE(app, argc, argv);

    zel::logging::g_minLogLevel = 100;
    try
    {
        compare::Runner runner(rounds, filter, std::cout);
        compare::CompareQueues(runner);
        compare::ComparePacedQueues(runner);
        compare::CompareKeys(runner);
        compare::CompareMerge(runner);
        compare::CompareDelivery(runner);
        compare::CompareRequests(runner);
        compare::CompareReplay(runner);
        if (!json.empty())
        {
            runner.WriteJson(json);
        }
    }
    catch (const std::exception& error)
    {
        std::cerr << "compare: " << error.what() << "\n";
        return 1;
    }
    return 0;
}
