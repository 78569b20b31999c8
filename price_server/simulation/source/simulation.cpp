#include "simulation/simulation.h"

#include "simulation_run.h"

#include <algorithm>

namespace ps_ns::simulation
{

RunResult RunScenario(const Scenario& scenario, const RunOptions& options)
{
    SimulationRun run(scenario, options);
    std::size_t at = 0;
    try
    {
        for (; at < scenario.operations.size(); ++at)
        {
            run.Step(scenario.operations[at]);
        }
        run.End(scenario.endsSettled);
    }
    catch (const Difference& difference)
    {
        run.result.failed = true;
        run.result.failedAt = at;
        run.result.difference = difference.what();
    }
    return run.TakeResult();
}

Scenario Shrink(const Scenario& scenario, const std::function<bool(const Scenario&)>& fails)
{
    Scenario shortest = scenario;
    // Leaves out ever smaller parts, until not even one operation can be left out.
    for (std::size_t size = std::max<std::size_t>(shortest.operations.size() / 2, 1); size != 0;)
    {
        bool hasShrunk = false;
        for (std::size_t begin = 0; begin < shortest.operations.size();)
        {
            Scenario shorter = shortest;
            const auto first = shorter.operations.begin() + static_cast<std::ptrdiff_t>(begin);
            const auto length = std::min(size, shorter.operations.size() - begin);
            shorter.operations.erase(first, first + static_cast<std::ptrdiff_t>(length));
            if (fails(shorter))
            {
                shortest = std::move(shorter);
                hasShrunk = true;
            }
            else
            {
                begin += size;
            }
        }
        size = hasShrunk && size == 1 ? 1 : size / 2;
    }
    return shortest;
}

} // namespace ps_ns::simulation
