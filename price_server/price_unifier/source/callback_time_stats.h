#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <limits>

namespace ps_ns
{

/// Durations that one thread has collected, to be added to the record at once.
struct CallbackTimes
{
    std::uint64_t min = std::numeric_limits<std::uint64_t>::max();
    std::uint64_t max = 0;
    std::uint64_t total = 0;
    std::uint64_t count = 0;

    void Add(std::uint64_t duration) noexcept
    {
        min = std::min(min, duration);
        max = std::max(max, duration);
        total += duration;
        ++count;
    }
};

/// How long callbacks take, in whatever unit the caller measures (the composite subscriptions: nanoseconds).
///
/// Threads: Update from any thread, without a lock: of two concurrent updates one may lose its minimum or maximum,
/// never its part in total and count. A copy is not one atomic step.
struct CallbackTimeStats
{
    static constexpr std::uint64_t kNoMinimum = std::numeric_limits<std::uint64_t>::max();

    CallbackTimeStats() = default;
    CallbackTimeStats(const CallbackTimeStats& other)
        : min(other.min.load())
        , max(other.max.load())
        , total(other.total.load())
        , count(other.count.load())
    {
    }
    CallbackTimeStats& operator=(const CallbackTimeStats&) = delete;

    void Update(std::uint64_t duration)
    {
        if (duration < min.load())
        {
            min.store(duration);
        }
        if (duration > max.load())
        {
            max.store(duration);
        }
        total.fetch_add(duration);
        count.fetch_add(1);
    }

    /// The same as an Update for each of them.
    void Update(const CallbackTimes& times)
    {
        if (times.min < min.load())
        {
            min.store(times.min);
        }
        if (times.max > max.load())
        {
            max.store(times.max);
        }
        total.fetch_add(times.total);
        count.fetch_add(times.count);
    }

    /// A copy of the record, which then starts over. An update that falls between the two is lost.
    CallbackTimeStats GetAndReset()
    {
        CallbackTimeStats copy(*this);
        min.store(kNoMinimum);
        max.store(0);
        total.store(0);
        count.store(0);
        return copy;
    }

    std::atomic<std::uint64_t> min{kNoMinimum};
    std::atomic<std::uint64_t> max{0};
    std::atomic<std::uint64_t> total{0};
    std::atomic<std::uint64_t> count{0};
};

} // namespace ps_ns
