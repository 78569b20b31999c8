#include "common/tick_clock.h"

#if defined(__x86_64__)
#include <cpuid.h>
#endif

#include <fstream>
#include <string>

namespace ps_ns
{
namespace
{

#if defined(__x86_64__)

bool IsCounterInvariant()
{
    constexpr unsigned kPowerManagement = 0x80000007U;
    constexpr unsigned kInvariantCounter = 1U << 8U; // of edx
    unsigned a = 0;
    unsigned b = 0;
    unsigned c = 0;
    unsigned d = 0;
    return __get_cpuid(kPowerManagement, &a, &b, &c, &d) != 0 && (d & kInvariantCounter) != 0;
}

/// The kernel has compared the cores' counters, and goes on watching them.
bool DoesSystemTrustCounter()
{
    std::ifstream file("/sys/devices/system/clocksource/clocksource0/current_clocksource");
    std::string name;
    return static_cast<bool>(file >> name) && name == "tsc";
}

struct Moment
{
    std::uint64_t ticks = 0;
    std::uint64_t steady_ns = 0;
};

/// Of several, the one that was least disturbed between its two looks.
template <class GetSteady>
Moment LookAtBoth(GetSteady getSteady)
{
    constexpr int kLooks = 5;
    Moment best;
    std::uint64_t least = ~std::uint64_t{0};
    for (int i = 0; i < kLooks; ++i)
    {
        const std::uint64_t before = __rdtsc();
        const std::uint64_t steady_ns = getSteady();
        const std::uint64_t after = __rdtsc();
        if (after - before < least)
        {
            least = after - before;
            best = {before + least / 2, steady_ns};
        }
    }
    return best;
}

#endif

} // namespace

const TickClock& TickClock::Get()
{
    static const TickClock clock;
    return clock;
}

TickClock::TickClock()
{
#if defined(__x86_64__)
    if (!IsCounterInvariant() || !DoesSystemTrustCounter())
    {
        return;
    }
    constexpr std::uint64_t kCompare_ns = 1'000'000;
    const Moment begin = LookAtBoth(&GetSteady_ns);
    while (GetSteady_ns() - begin.steady_ns < kCompare_ns)
    {
    }
    const Moment end = LookAtBoth(&GetSteady_ns);
    if (end.ticks > begin.ticks)
    {
        m_nanosecondsPerTick =
            static_cast<double>(end.steady_ns - begin.steady_ns) / static_cast<double>(end.ticks - begin.ticks);
        m_usesCounter = true;
    }
#endif
}

} // namespace ps_ns
