#pragma once

#include <chrono>
#include <cstdint>

#if defined(__x86_64__)
#include <x86intrin.h>
#endif

namespace ps_ns
{

/// Short durations, for loops in which a look at std::chrono::steady_clock would take as long as what is measured.
///
/// A tick is one of the processor's time-stamp counter where that runs evenly on all cores (the processor says that it
/// is invariant, and the system keeps its own time by it), and a nanosecond of steady_clock elsewhere. The counter is
/// compared with steady_clock for a millisecond, once, when the clock is first asked for. Long durations are right to
/// some 0.1 %, those of some nanoseconds to some of them: a look does not wait for what the processor still has in
/// hand. It is no clock to tell the time by, and of two moments on two cores the later may be a few ticks before the
/// earlier.
///
/// Threads: any.
class TickClock
{
public:
    /// The one of this process.
    static const TickClock& Get();

    std::uint64_t Now() const noexcept
    {
#if defined(__x86_64__)
        if (m_usesCounter)
        {
            return __rdtsc();
        }
#endif
        return GetSteady_ns();
    }
    std::uint64_t ToNanoseconds(std::uint64_t ticks) const noexcept
    {
        return static_cast<std::uint64_t>(static_cast<double>(ticks) * m_nanosecondsPerTick);
    }
    /// Whether a tick is one of the processor's counter.
    bool UsesCounter() const noexcept
    {
        return m_usesCounter;
    }

private:
    TickClock();
    static std::uint64_t GetSteady_ns() noexcept
    {
        return static_cast<std::uint64_t>(
            std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
                .count());
    }

    bool m_usesCounter = false;
    double m_nanosecondsPerTick = 1;
};

} // namespace ps_ns
