#pragma once

#include "simulation/simulation.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <optional>
#include <string>

/// Many seeds, one after another.
namespace ps_ns::simulation
{

struct BatchOptions
{
    std::uint64_t firstSeed = 1;
    std::uint64_t seedCount = 2500;
    std::size_t operationsPerSeed = 400;
    /// Processes side by side, each with its share of the seeds; a run that crashes takes only its own down, and is
    /// reported by its seed. 0: this process runs them all, and a crash is a crash.
    unsigned jobs = 2;
    RunOptions run;
    /// Told now and then how many seeds are done. May be empty.
    std::function<void(std::uint64_t seedsDone)> onProgress;
};

struct BatchResult
{
    std::uint64_t seeds = 0;
    std::uint64_t operations = 0;
    std::uint64_t steps = 0;
    std::uint64_t events = 0;
    FaultCounts faults;
    std::optional<std::uint64_t> failedSeed; ///< the first that failed, in the share that failed first
    std::string difference;                  ///< or how the process ended
};

/// Stops at the first failure.
BatchResult RunBatch(const BatchOptions& options);

/// True when the scenario fails, or crashes: it is run in a process of its own.
bool FailsAlone(const Scenario& scenario, const RunOptions& options);

/// Operations, steps, events, and how often each fault has been seen.
void WriteBatchResult(std::ostream& out, const BatchResult& result);

} // namespace ps_ns::simulation
