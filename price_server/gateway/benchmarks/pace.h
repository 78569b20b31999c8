#pragma once

#include <chrono>
#include <cstdint>
#include <thread>

namespace ps_ns::gateway_bench
{

/// Calls `publish` so many times a second for so long: each quarter of a millisecond what is due by then.
template <class Publish>
void Pace(std::uint64_t rate, std::uint64_t milliseconds, Publish publish)
{
    using Clock = std::chrono::steady_clock;
    const auto begin = Clock::now();
    const std::uint64_t count = rate * milliseconds / 1000;
    auto next = begin;
    for (std::uint64_t done = 0; done < count;)
    {
        next += std::chrono::microseconds(250);
        std::this_thread::sleep_until(next);
        const auto passed = static_cast<std::uint64_t>(
            std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - begin).count());
        for (const std::uint64_t due = passed * rate / 1'000'000'000U; done < due && done < count; ++done)
        {
            publish();
        }
    }
}

} // namespace ps_ns::gateway_bench
