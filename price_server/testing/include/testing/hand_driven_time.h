#pragma once

#include "async/timer_service.h"

#include <chrono>
#include <cstddef>
#include <memory>

namespace ps_ns::testing
{

/// Time that passes when the test says so. While it lives, every new AsyncDispatcher gets its time and wake-ups from
/// here; expiries run inside Advance, on the test's thread.
///
/// Threads: one. Objects do not nest.
class HandDrivenTime
{
public:
    HandDrivenTime();
    ~HandDrivenTime();
    HandDrivenTime(const HandDrivenTime&) = delete;
    HandDrivenTime& operator=(const HandDrivenTime&) = delete;

    /// Lets time pass, running each expiry at its moment, those of one moment in the order of their arming.
    void Advance(std::chrono::milliseconds duration);
    /// Timers that are armed and whose task still lives.
    std::size_t GetArmed() const;
    ITimerService::Clock::time_point Now() const;

    struct State;

private:
    std::shared_ptr<State> m_state;
    TimerServiceFactory m_previous;
};

} // namespace ps_ns::testing
