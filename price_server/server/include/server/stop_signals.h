#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace ps_ns
{

/// Turns SIGINT, SIGTERM and SIGHUP into a request to stop. The second of them ends the process at once, with exit code
/// 130; one that follows the first within kSameRequest is the same request: supervisors such as timeout(1) signal both
/// the process and its group. SIGPIPE is ignored from then on: who writes hears of a reader that has gone.
///
/// Threads: made on the main thread before there is any other, so that all threads have these signals blocked.
class StopSignals
{
public:
    static constexpr std::chrono::milliseconds kSameRequest{200};

    /// `onFirst` runs on the signals' own thread at the first signal, `onSecond` just before the process ends. Both are
    /// quick.
    StopSignals(std::function<void()> onFirst, std::function<void()> onSecond);
    /// The signals are left blocked: what comes late ends nothing.
    ~StopSignals();
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

    /// A signal has come.
    bool IsStopRequested() const noexcept { return m_isRequested.load(); }

    /// Waits that long, or until a signal comes; true: one has.
    bool WaitFor(std::chrono::milliseconds time);

private:
    void Run();

    const std::function<void()> m_onFirst;
    const std::function<void()> m_onSecond;
    int m_signals = -1;                     ///< a signalfd
    int m_end = -1;                         ///< an eventfd: the thread is to end
    std::atomic<bool> m_isRequested{false}; ///< written under m_mutex
    std::mutex m_mutex;
    std::condition_variable m_requested;
    std::thread m_thread;
};

} // namespace ps_ns
