#include "tcp_socket.h"

#include <linux/tcp.h> // <netinet/tcp.h> does not have all of tcp_info
#include <netinet/in.h>
#include <sys/socket.h>

namespace ps_ns::gateway
{
namespace
{

constexpr int kLongestResendPause = 44; // TCP_RTO_MAX_MS, which Debian 12's headers do not have
constexpr int kOneSecond_ms = 1000;     // the system takes no less

bool Set(int socket, int option, int value) noexcept
{
    return ::setsockopt(socket, IPPROTO_TCP, option, &value, sizeof value) == 0;
}

} // namespace

std::uint64_t GetTakenBytes(int socket) noexcept
{
    tcp_info info{};
    socklen_t size = sizeof info;
    return ::getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &size) == 0 ? info.tcpi_bytes_acked : 0;
}

void BoundResendPause(int socket) noexcept
{
    if (!Set(socket, kLongestResendPause, kOneSecond_ms))
    {
        Set(socket, TCP_THIN_LINEAR_TIMEOUTS, 1);
    }
}

} // namespace ps_ns::gateway
