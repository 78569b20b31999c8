#pragma once

#include "async/timer_service.h"

#include <memory>
#include <string>

namespace ps_ns
{

/// Drives the timers of one owner. It keeps weak pointers to their tasks: a timer nobody holds does not fire.
///
/// Threads: any. Timer callbacks run on the dispatcher's own thread, one at a time.
class AsyncDispatcher
{
public:
    /// Takes its time service from the current factory (timer_service.h).
    explicit AsyncDispatcher(const std::string& name);
    /// Shuts down.
    ~AsyncDispatcher();
    AsyncDispatcher(const AsyncDispatcher&) = delete;
    AsyncDispatcher& operator=(const AsyncDispatcher&) = delete;

    /// No callback starts after this has returned, and none runs (unless it is the caller). Idempotent.
    void Shutdown();

    ITimerService::Clock::time_point Now() const { return m_service->Now(); }
    const std::string& GetName() const noexcept { return m_name; }

private:
    friend class AsyncTask;

    const std::string m_name;
    const std::shared_ptr<ITimerService> m_service;
};

} // namespace ps_ns
