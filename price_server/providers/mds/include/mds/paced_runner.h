#pragma once

#include "mds/market_source.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

namespace ps_ns
{

/// Ends waits early. Threads: any.
class StopSignal
{
public:
    using TimePoint = std::chrono::steady_clock::time_point;

    void Set();
    bool IsSet() const noexcept { return m_isSet.load(); }
    /// For code that looks now and then.
    const std::atomic<bool>& GetFlag() const noexcept { return m_isSet; }
    /// Waits until then, or until Set.
    void WaitUntil(TimePoint until);

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::atomic<bool> m_isSet{false}; ///< written under m_mutex
};

/// Wall time, as far as pacing needs it: the steady clock in the server, a clock of the test's own in tests.
class IPaceClock
{
public:
    using TimePoint = StopSignal::TimePoint;

    virtual ~IPaceClock() = default;
    virtual TimePoint Now() const = 0;
    /// Returns at `until`, or as soon as `stop` is set.
    virtual void SleepUntil(TimePoint until, StopSignal& stop) = 0;
};

class SteadyPaceClock final : public IPaceClock
{
public:
    TimePoint Now() const override { return std::chrono::steady_clock::now(); }
    void SleepUntil(TimePoint until, StopSignal& stop) override { stop.WaitUntil(until); }
};

/// When messages are due on the wall clock.
class Pace
{
public:
    using TimePoint = IPaceClock::TimePoint;

    /// `speed` 1: as recorded; N: N times as fast; 0: nothing ever waits. A silence longer than `longestGap_ns` on the
    /// source's time line is cut to it; 0: none is cut.
    Pace(double speed, std::uint64_t longestGap_ns);

    bool Waits() const noexcept { return m_speed > 0; }

    /// The first message of an epoch is due now.
    TimePoint GetDue(const NextMessage& next, TimePoint now);

private:
    const double m_speed;
    const std::uint64_t m_longestGap_ns;
    std::optional<std::uint64_t> m_epoch;
    TimePoint m_begin;              ///< when the epoch began
    std::uint64_t m_elapsed_ns = 0; ///< on the source's time line since then, gaps cut
    std::uint64_t m_last_ns = 0;    ///< of the message before
};

/// What a runner runs. Threads: the runner's, except Wake.
class IPacedWork
{
public:
    virtual ~IPacedWork() = default;
    /// First of all; may take long, and returns early once `stop` is true.
    virtual void Prepare(const std::atomic<bool>& stop) = 0;
    virtual std::optional<NextMessage> PeekNext() = 0;
    /// Waits until one more step may be made; false: woken for good.
    virtual bool WaitForRoom() = 0;
    /// Ends WaitForRoom, now and later. From any thread.
    virtual void Wake() = 0;
    /// False at the end.
    virtual bool Step() = 0;
};

/// A thread that takes the steps of its work at their times. What the work throws ends the thread, and is logged at
/// level 30.
///
/// Threads: Start and Stop are the owner's.
class PacedRunner
{
public:
    /// `work` must outlive the runner.
    PacedRunner(IPacedWork& work, Pace pace, std::shared_ptr<IPaceClock> clock);
    /// Stops.
    ~PacedRunner();
    PacedRunner(const PacedRunner&) = delete;
    PacedRunner& operator=(const PacedRunner&) = delete;

    /// Once.
    void Start();
    /// Ends whatever wait the thread is in, and joins it. Idempotent.
    void Stop();
    /// The work came to its end, or failed.
    bool HasEnded() const noexcept { return m_hasEnded.load(); }
    /// The work has thrown. Set before HasEnded is.
    bool HasFailed() const noexcept { return m_hasFailed.load(); }

private:
    void Run() noexcept;
    void RunSteps();

    IPacedWork& m_work;
    Pace m_pace; ///< the runner's thread only
    const std::shared_ptr<IPaceClock> m_clock;
    StopSignal m_stop;
    std::atomic<bool> m_hasEnded{false};
    std::atomic<bool> m_hasFailed{false};
    std::thread m_thread; ///< the owner's
};

} // namespace ps_ns
