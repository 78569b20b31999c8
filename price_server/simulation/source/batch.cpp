#include "simulation/batch.h"

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <iomanip>
#include <new>
#include <ostream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <type_traits>
#include <vector>

namespace ps_ns::simulation
{
namespace
{

/// What a process tells its parent, in memory that both see. The parent reads `seedsDone` at any time and the rest
/// when the process has ended.
struct Share
{
    std::atomic<std::uint64_t> seedsDone{0};
    std::atomic<std::uint64_t> currentSeed{0};
    std::uint64_t steps = 0;
    std::uint64_t events = 0;
    FaultCounts faults;
    bool hasFailed = false;
    std::array<char, 2000> difference{};
};
static_assert(std::is_trivially_destructible_v<Share>);

/// Memory for shares that a child shares with its parent.
class SharedMemory
{
public:
    explicit SharedMemory(std::size_t count)
        : m_size(sizeof(Share) * count)
        , m_memory(mmap(nullptr, m_size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))
    {
        if (m_memory == MAP_FAILED)
        {
            throw std::system_error(errno, std::generic_category(), "no memory to share with child processes");
        }
        for (std::size_t i = 0; i < count; ++i)
        {
            new (&Get(i)) Share;
        }
    }
    ~SharedMemory() { munmap(m_memory, m_size); }
    SharedMemory(const SharedMemory&) = delete;
    SharedMemory& operator=(const SharedMemory&) = delete;

    Share& Get(std::size_t index) { return static_cast<Share*>(m_memory)[index]; }

private:
    const std::size_t m_size;
    void* const m_memory;
};

/// Every `stride`th seed from `first` on.
void RunSeeds(const BatchOptions& options, std::uint64_t first, std::uint64_t stride, Share& share,
              const std::function<void(std::uint64_t)>& onProgress)
{
    for (std::uint64_t i = first; i < options.seedCount && !share.hasFailed; i += stride)
    {
        const std::uint64_t seed = options.firstSeed + i;
        share.currentSeed = seed;
        const RunResult result = RunScenario(MakeScenario(seed, options.operationsPerSeed), options.run);
        share.steps += result.stepCount;
        share.events += result.eventCount;
        share.faults += result.faults;
        if (result.failed)
        {
            share.hasFailed = true;
            const std::string text = "operation " + std::to_string(result.failedAt) + ": " + result.difference;
            std::strncpy(share.difference.data(), text.c_str(), share.difference.size() - 1);
            return;
        }
        ++share.seedsDone;
        if (onProgress)
        {
            onProgress(share.seedsDone);
        }
    }
}

pid_t ForkOrThrow()
{
    const pid_t child = fork();
    if (child < 0)
    {
        throw std::system_error(errno, std::generic_category(), "no child process");
    }
    return child;
}

/// Ends the process with what `run` returns: whatever comes out of it must not run on in the parent's place.
template <class Run>
[[noreturn]] void InChild(const Run& run) noexcept
{
    constexpr int kThrown = 3;
    try
    {
        _exit(run());
    }
    catch (...)
    {
        _exit(kThrown);
    }
}

void Gather(BatchResult& result, const BatchOptions& options, const Share& share)
{
    result.seeds += share.seedsDone;
    result.operations += share.seedsDone * options.operationsPerSeed;
    result.steps += share.steps;
    result.events += share.events;
    result.faults += share.faults;
    if (share.hasFailed && !result.failedSeed)
    {
        result.failedSeed = share.currentSeed;
        result.difference = share.difference.data();
    }
}

/// Waits for one child; false while it runs. One that did not end by itself has crashed in its current seed.
bool HasEnded(pid_t child, Share& share)
{
    int status = 0;
    const pid_t ended = waitpid(child, &status, WNOHANG);
    if (ended == 0)
    {
        return false;
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
    {
        share.hasFailed = true;
        const std::string text = WIFSIGNALED(status)
                                     ? "the process ended with signal " + std::to_string(WTERMSIG(status))
                                     : "the process ended with code " + std::to_string(WEXITSTATUS(status));
        std::strncpy(share.difference.data(), text.c_str(), share.difference.size() - 1);
    }
    return true;
}

BatchResult RunInChildren(const BatchOptions& options)
{
    SharedMemory memory(options.jobs);
    std::vector<pid_t> children;
    for (unsigned job = 0; job < options.jobs; ++job)
    {
        const pid_t child = ForkOrThrow();
        if (child == 0)
        {
            InChild(
                [&]
                {
                    RunSeeds(options, job, options.jobs, memory.Get(job), nullptr);
                    return 0;
                });
        }
        children.push_back(child);
    }
    std::vector<bool> hasEnded(options.jobs);
    while (std::find(hasEnded.begin(), hasEnded.end(), false) != hasEnded.end())
    {
        std::uint64_t done = 0;
        for (unsigned job = 0; job < options.jobs; ++job)
        {
            hasEnded[job] = hasEnded[job] || HasEnded(children[job], memory.Get(job));
            done += memory.Get(job).seedsDone;
        }
        if (options.onProgress)
        {
            options.onProgress(done);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    BatchResult result;
    for (unsigned job = 0; job < options.jobs; ++job)
    {
        Gather(result, options, memory.Get(job));
    }
    return result;
}

} // namespace

BatchResult RunBatch(const BatchOptions& options)
{
    if (options.jobs != 0)
    {
        return RunInChildren(options);
    }
    Share share;
    RunSeeds(options, 0, 1, share, options.onProgress);
    BatchResult result;
    Gather(result, options, share);
    return result;
}

bool FailsAlone(const Scenario& scenario, const RunOptions& options)
{
    const pid_t child = ForkOrThrow();
    if (child == 0)
    {
        InChild([&] { return RunScenario(scenario, options).failed ? 1 : 0; });
    }
    int status = 0;
    waitpid(child, &status, 0);
    return !WIFEXITED(status) || WEXITSTATUS(status) != 0;
}

void WriteBatchResult(std::ostream& out, const BatchResult& result)
{
    out << result.operations << " operations in " << result.seeds << " seeds: " << result.steps
        << " requests made and tasks run, " << result.events << " events compared\n";
    for (std::size_t i = 0; i < kFaultCount; ++i)
    {
        const auto fault = static_cast<Fault>(i);
        out << std::setw(12) << result.faults.Get(fault) << "  " << GetName(fault) << '\n';
    }
}

} // namespace ps_ns::simulation
