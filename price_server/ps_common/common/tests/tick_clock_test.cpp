#include "common/tick_clock.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>

namespace ps_ns
{
namespace
{

using Steady = std::chrono::steady_clock;
using Nanoseconds = std::chrono::duration<double, std::nano>;

TEST(TickClock, NeverGoesBack)
{
    const TickClock& clock = TickClock::Get();
    std::uint64_t last = clock.Now();
    for (int i = 0; i < 100'000; ++i)
    {
        const std::uint64_t now = clock.Now();
        ASSERT_GE(now, last);
        last = now;
    }
}

/// The tick clock's interval lies within the outer one of the steady clock, and contains the inner one: whatever
/// disturbs the thread, the first is not shorter, nor the second longer, than what is measured.
TEST(TickClock, MeasuresWhatTheSteadyClockMeasures)
{
    const TickClock& clock = TickClock::Get();
    const auto outerBegin = Steady::now();
    const std::uint64_t begin = clock.Now();
    const auto innerBegin = Steady::now();
    while (Steady::now() - innerBegin < std::chrono::milliseconds(20))
    {
    }
    const auto innerEnd = Steady::now();
    const std::uint64_t end = clock.Now();
    const auto outerEnd = Steady::now();
    const auto measured = static_cast<double>(clock.ToNanoseconds(end - begin));
    constexpr double kPrecision = 0.01;
    EXPECT_LE(measured, (1 + kPrecision) * Nanoseconds(outerEnd - outerBegin).count());
    EXPECT_GE(measured, (1 - kPrecision) * Nanoseconds(innerEnd - innerBegin).count());
}

TEST(TickClock, ConvertsHoursWithoutOverflow)
{
    const TickClock& clock = TickClock::Get();
    constexpr std::uint64_t kHour_ns = 3'600'000'000'000;
    const double perTick = static_cast<double>(clock.ToNanoseconds(1'000'000'000)) / 1e9;
    const auto ticks = static_cast<std::uint64_t>(static_cast<double>(100 * kHour_ns) / perTick);
    EXPECT_NEAR(static_cast<double>(clock.ToNanoseconds(ticks)), 100.0 * kHour_ns, 1e-6 * 100 * kHour_ns);
    EXPECT_EQ(clock.ToNanoseconds(0), 0U);
}

} // namespace
} // namespace ps_ns
