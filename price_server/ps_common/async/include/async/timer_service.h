#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace ps_ns
{

class AsyncTask;

/// Where an AsyncDispatcher gets its time and its wake-ups: one thread over Boost.Asio in the server, a hand-driven
/// clock in tests.
///
/// Threads: all operations may be called from any thread.
class ITimerService
{
public:
    using Clock = std::chrono::steady_clock;

    virtual ~ITimerService() = default;

    /// Calls task->asioHandler(no error, armingId) once, `delay` from now, on the service's thread, holding the task
    /// only for the length of the call; when the task is gone by then, nothing happens. After Shutdown nothing is
    /// armed; what waits then is told operation_aborted, or nothing.
    virtual void Arm(std::weak_ptr<AsyncTask> task, unsigned long armingId, std::chrono::milliseconds delay) = 0;

    /// Runs nothing more; returns when a handler that is running has returned, unless called by that handler.
    /// Idempotent, and every call from another thread waits. A handler that throws is logged at level 30 and ends
    /// nothing.
    virtual void Shutdown() = 0;

    virtual Clock::time_point Now() const = 0;
};

using TimerServiceFactory = std::function<std::shared_ptr<ITimerService>(const std::string& name)>;

/// Replaces what new dispatchers get, and returns the previous factory; empty brings back the real one. For tests,
/// which own time.
TimerServiceFactory SetTimerServiceFactory(TimerServiceFactory factory);

/// A service by the current factory. The real one starts a thread at its first Arm.
std::shared_ptr<ITimerService> MakeTimerService(const std::string& name);

} // namespace ps_ns
