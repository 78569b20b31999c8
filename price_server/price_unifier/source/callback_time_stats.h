#pragma once

#include <atomic>
#include <cstdint>
#include <limits>

namespace ps_ns
{

/// How long callbacks take, in whatever unit the caller measures. The composite subscriptions measure in nanoseconds,
/// and all callbacks that one change of an instrument sets off as one duration.
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
