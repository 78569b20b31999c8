/// Publisher, broker, price server and clients under stress: each option adds one kind of it, and each kind has a chain
/// of its own. Short runs are tests; long ones are for people:
///
///     broker_soak --kills 1000 --freezes 50
///     broker_soak --churn 100000 --rate 60000 --least-rate 50000
///     broker_soak --switches 2000 --instruments 2000
///     broker_soak --renames 2000

#include "broker/soak.h"

#include "logging/logging.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <exception>

int main(int argc, char** argv)
{
    using namespace ps_ns::broker_soak;
    SoakOptions options;
    double recovery_sec = 1;
    int logLevel = 100;
    CLI::App app("Publisher, broker, price server and clients under stress.", "broker_soak");
    app.add_option("--instruments", options.instruments, "instruments (1000)")->check(CLI::Range(10, 100'000));
    app.add_option("--rate", options.rate, "messages a second (5000)")->check(CLI::Range(1000, 1'000'000));
    app.add_option("--seed", options.seed, "of what is random (1)");
    app.add_option("--kills", options.kills, "times that the broker is killed");
    app.add_option("--freezes", options.freezes, "times that the broker is frozen");
    app.add_option("--longest-freeze", options.longestFreeze_sec, "seconds (5)");
    app.add_option("--recovery", recovery_sec, "seconds in which all books must be good again (1)");
    app.add_option("--churn", options.churn, "pairs of subscribe and unsubscribe");
    app.add_option("--least-rate", options.leastRate, "messages a second that the provider must take meanwhile (0)");
    app.add_option("--growth", options.mostGrowth_mb, "megabytes that memory may grow meanwhile (20)");
    app.add_option("--switches", options.switches, "symbols that go from ZEL to MDS");
    app.add_option("--renames", options.renames, "renames");
    app.add_option("--log-level", logLevel, "write records from this level on (100)");
    CLI11_PARSE(app, argc, argv);
    std::setvbuf(stdout, nullptr, _IOLBF, 0); // what was seen survives a run that is cut off
    options.recovery = std::chrono::milliseconds(static_cast<long>(recovery_sec * 1000));
    zel::logging::g_minLogLevel.store(logLevel);
    std::printf("%zu instruments, %u messages a second, seed %llu\n", options.instruments, options.rate,
                static_cast<unsigned long long>(options.seed));
    try
    {
        bool isGood = true;
        isGood = (options.kills + options.freezes == 0 || RunOutages(options)) && isGood;
        isGood = (options.churn == 0 || RunChurn(options)) && isGood;
        isGood = (options.switches == 0 || RunSwitches(options)) && isGood;
        isGood = (options.renames == 0 || RunRenames(options)) && isGood;
        std::puts(isGood ? "good" : "NOT GOOD");
        return isGood ? 0 : 1;
    }
    catch (const std::exception& error)
    {
        std::fprintf(stderr, "broker_soak: %s\n", error.what());
        return 1;
    }
}
