#include "server/service_notifier.h"

#include "config/config_values.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace ps_ns
{
namespace
{

constexpr std::size_t kMostPath = sizeof(sockaddr_un::sun_path) - 1;

std::string_view GetVariable(const char* name)
{
    const char* const value = std::getenv(name);
    return value == nullptr ? "" : value;
}

/// The interval, when the watchdog is meant for this process.
std::chrono::microseconds ReadWatchdog()
{
    const std::string_view process = GetVariable("WATCHDOG_PID");
    if (!process.empty() && process != std::to_string(::getpid()))
    {
        return std::chrono::microseconds(0);
    }
    constexpr std::uint64_t kMost_us = 1'000'000'000'000; // eleven days
    const auto interval_us = ParseUnsigned(std::string(GetVariable("WATCHDOG_USEC")));
    return std::chrono::microseconds(interval_us && *interval_us <= kMost_us ? *interval_us : 0);
}

} // namespace

ServiceNotifier::ServiceNotifier()
{
    const std::string_view address = GetVariable("NOTIFY_SOCKET");
    const bool isKnownKind = !address.empty() && (address.front() == '/' || address.front() == '@');
    if (!isKnownKind || address.size() < 2 || address.size() > kMostPath)
    {
        return;
    }
    m_socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (m_socket < 0)
    {
        return;
    }
    m_address = address;
    if (m_address.front() == '@')
    {
        m_address.front() = '\0';
    }
    m_watchdog = ReadWatchdog();
}

ServiceNotifier::~ServiceNotifier()
{
    if (m_socket >= 0)
    {
        ::close(m_socket);
    }
}

void ServiceNotifier::Ready(const std::string& status)
{
    Send("READY=1\nSTATUS=" + status);
}

void ServiceNotifier::Stopping()
{
    Send("STOPPING=1\nSTATUS=stopping");
}

void ServiceNotifier::Ping(Clock::time_point now)
{
    if (m_watchdog.count() == 0)
    {
        return;
    }
    const Clock::rep time = now.time_since_epoch().count();
    Clock::rep next = m_nextPing.load();
    const Clock::rep pause = std::chrono::duration_cast<Clock::duration>(m_watchdog).count() / 3;
    if (time >= next && m_nextPing.compare_exchange_strong(next, time + pause))
    {
        Send("WATCHDOG=1");
    }
}

void ServiceNotifier::Send(std::string_view message) const
{
    if (m_socket < 0)
    {
        return;
    }
    sockaddr_un to{};
    to.sun_family = AF_UNIX;
    std::memcpy(to.sun_path, m_address.data(), m_address.size());
    // A path ends with its zero byte, which the length may leave out; an abstract name ends with the length.
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + m_address.size());
    static_cast<void>(::sendto(m_socket, message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                               reinterpret_cast<const sockaddr*>(&to), size) +
                      1);
}

} // namespace ps_ns
