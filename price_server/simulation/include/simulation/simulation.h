#pragma once

#include "simulation/faults.h"
#include "simulation/operations.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

/// The whole manager beside its model: one thread, virtual time, and a scenario that says what happens next. After each
/// operation both sides must have done the same, to the letter, and their maps, scopes and gauges must agree.
namespace ps_ns::simulation
{

struct RunOptions
{
    bool keepsTrace = false;
    /// A model that is wrong on purpose: it expects that a flexible unsubscribe moves the gauge. For tests of the
    /// simulation itself.
    bool modelIsWrong = false;
};

struct RunResult
{
    bool failed = false;
    std::size_t failedAt = 0;    ///< index of the operation; their number: at the end
    std::string difference;      ///< what the sides differ in, for a person
    std::uint64_t traceHash = 0; ///< of all events in their order: equal runs have equal hashes
    std::uint64_t eventCount = 0;
    std::uint64_t stepCount = 0; ///< tasks run and requests made: an operation may be several
    FaultCounts faults;
    std::vector<std::string> trace; ///< when kept: each operation, then its events
};

/// Runs a scenario from beginning to end. Runs do not nest: the process's log and timers are the run's meanwhile.
RunResult RunScenario(const Scenario& scenario, const RunOptions& options = {});

/// A shortest scenario that still fails, found by leaving operations out: none of the rest can be left out. `fails` is
/// asked whether a scenario does.
Scenario Shrink(const Scenario& scenario, const std::function<bool(const Scenario&)>& fails);

} // namespace ps_ns::simulation
