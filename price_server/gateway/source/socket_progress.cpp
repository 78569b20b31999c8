#include "socket_progress.h"

#include <linux/tcp.h> // <netinet/tcp.h> does not have all of tcp_info
#include <netinet/in.h>
#include <sys/socket.h>

namespace ps_ns::gateway
{

std::uint64_t GetTakenBytes(int socket) noexcept
{
    tcp_info info{};
    socklen_t size = sizeof info;
    return ::getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &size) == 0 ? info.tcpi_bytes_acked : 0;
}

} // namespace ps_ns::gateway
