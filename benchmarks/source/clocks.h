#pragma once

#include <chrono>
#include <cstdint>
#include <ctime>
#include <thread>

#include <pthread.h>

namespace compare
{

inline std::uint64_t ReadClock_ns(clockid_t clock)
{
    timespec time{};
    clock_gettime(clock, &time);
    return static_cast<std::uint64_t>(time.tv_sec) * 1'000'000'000U + static_cast<std::uint64_t>(time.tv_nsec);
}

/// Processor time of the calling thread so far: what others take of the machine meanwhile does not count.
inline std::uint64_t OwnCpu_ns()
{
    return ReadClock_ns(CLOCK_THREAD_CPUTIME_ID);
}

/// Processor time of another thread, which must not have ended.
inline std::uint64_t CpuOf_ns(std::thread& thread)
{
    clockid_t clock{};
    pthread_getcpuclockid(thread.native_handle(), &clock);
    return ReadClock_ns(clock);
}

inline std::uint64_t Now_ns()
{
    return ReadClock_ns(CLOCK_MONOTONIC);
}

/// Processor time of the calling thread that `work` takes.
template <class Work>
double MeasureCpu_ns(Work&& work)
{
    const std::uint64_t begin = OwnCpu_ns();
    work();
    return static_cast<double>(OwnCpu_ns() - begin);
}

} // namespace compare
