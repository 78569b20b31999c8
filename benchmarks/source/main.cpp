#include "comparison.h"
#include "logging/logging.h"
#include "resident.h"

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
    std::string resident;
    std::size_t live = 0;
    app.add_option("--resident", resident, "Print the memory of a live subscription; for this program itself");
    app.add_option("--live", live, "Of how many");
    CLI11_PARSE(app, argc, argv);

    zel::logging::g_minLogLevel = 100;
    try
    {
        if (!resident.empty())
        {
            return compare::PrintResident(resident, live);
        }
        compare::Runner runner(rounds, filter, std::cout);
        for (auto* const subject :
             {compare::CompareQueues, compare::ComparePacedQueues, compare::CompareKeys, compare::CompareMerge,
              compare::CompareDelivery, compare::CompareRequests, compare::CompareLifeCycles, compare::CompareReplay})
        {
            subject(runner);
            if (!json.empty()) // each time: what has been measured is not lost with what fails
            {
                runner.WriteJson(json);
            }
        }
    }
    catch (const std::exception& error)
    {
        std::cerr << "compare: " << error.what() << "\n";
        return 1;
    }
    return 0;
}
