#pragma once

#include <atomic>
#include <chrono>
#include <string>
#include <string_view>

namespace ps_ns
{

/// Tells the service manager that started the process how it is: datagrams to the socket that the environment variable
/// NOTIFY_SOCKET names, a path or, after '@', a name in the abstract space. Without the variable nothing is told.
///
/// A watchdog (WATCHDOG_USEC, and WATCHDOG_PID when it is there names this process) is pinged at most three times in
/// its interval: whoever calls Ping proves by it that what he watches is alive.
///
/// Threads: any. A datagram that cannot be sent, because nobody takes it, is dropped: nothing here waits.
class ServiceNotifier
{
public:
    using Clock = std::chrono::steady_clock;

    /// Reads the environment.
    ServiceNotifier();
    ~ServiceNotifier();
    ServiceNotifier(const ServiceNotifier&) = delete;
    ServiceNotifier& operator=(const ServiceNotifier&) = delete;

    /// The service serves; `status` is one line for people.
    void Ready(const std::string& status);
    void Stopping();
    /// The service is alive.
    void Ping(Clock::time_point now);

    /// The watchdog's interval; zero: there is none.
    std::chrono::microseconds GetWatchdog() const noexcept { return m_watchdog; }

private:
    void Send(std::string_view message) const;

    std::string m_address; ///< a sun_path; empty: nobody listens
    int m_socket = -1;
    std::chrono::microseconds m_watchdog{0};
    std::atomic<Clock::rep> m_nextPing{0}; ///< since the clock's epoch
};

} // namespace ps_ns
