#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

namespace ps_ns::gateway_bench
{

/// How a peer's stream of bytes is made of deliveries.
enum class Framing
{
    WebSocket, ///< frames of one line or more; a line is a delivery
    Nats,      ///< a line that says MSG, a line that is the payload
    Redis      ///< seven lines: an array of three texts, each with its length
};

/// Many connections to one server, read by one thread that counts what comes and does nothing else.
///
/// Threads: one. Failure: std::runtime_error, when a connection cannot be made or ends.
class LoadClients
{
public:
    explicit LoadClients(Framing framing);
    ~LoadClients();
    LoadClients(const LoadClients&) = delete;
    LoadClients& operator=(const LoadClients&) = delete;

    /// Connects to a port of this machine and says `hello` at once; returns the connection's number. A WebSocket
    /// connection is past its handshake when this returns.
    std::size_t Connect(std::uint16_t port, const std::string& hello);
    /// Sends text: a WebSocket message, or bytes as they are.
    void Send(std::size_t connection, const std::string& text);
    /// Reads what has come, or waits at most so long for something.
    void Poll(int timeout_ms);
    /// Nothing of this connection is read until it is told otherwise.
    void SetStalled(std::size_t connection, bool isStalled);
    /// Reads what a stalled connection has been sent, and ends it; true: the server had ended it.
    bool WakeToEnd(std::size_t connection);

    std::size_t GetCount() const noexcept { return m_connections.size(); }
    bool IsOpen(std::size_t connection) const { return m_connections.at(connection).socket >= 0; }
    /// Deliveries since the last Reset, of one connection and of all that are not stalled: the least.
    std::uint64_t GetDeliveries(std::size_t connection) const { return m_connections.at(connection).deliveries; }
    std::uint64_t GetFewestDeliveries() const;
    std::uint64_t GetDeliveries() const noexcept { return m_deliveries; }
    std::uint64_t GetBytes() const noexcept { return m_bytes; }
    /// From the time that stands in a delivery as receive_time_ns to its arrival; of one connection in ten.
    std::vector<std::uint64_t>& Latencies_ns() noexcept { return m_latencies_ns; }
    void Reset();

private:
    struct Connection
    {
        int socket = -1;
        bool isStalled = false;
        bool isSampled = false;
        std::uint64_t deliveries = 0;
        std::uint64_t lines = 0;   ///< Nats and Redis: of a delivery that has begun
        std::uint64_t payload = 0; ///< WebSocket: bytes of the frame that are still to come
        std::string header;        ///< WebSocket: of a frame that has not come whole
        std::string tail;          ///< of a sampled one: a line that has not come whole
    };

    void Read(std::size_t number);
    void Take(Connection& connection, const char* data, std::size_t size);
    void TakeFrames(Connection& connection, const char* data, std::size_t size);
    void Sample(Connection& connection, const char* data, std::size_t size);

    const Framing m_framing;
    const int m_epoll;
    std::vector<Connection> m_connections;
    std::vector<char> m_buffer;
    std::uint64_t m_deliveries = 0;
    std::uint64_t m_bytes = 0;
    std::vector<std::uint64_t> m_latencies_ns;
};

/// Nanoseconds since 1970 UTC.
std::uint64_t GetTime_ns();

/// Writes all of it to a socket or pipe that blocks.
void WriteAll(int file, const std::string& text);

/// A blocking connection to a port of this machine.
int ConnectTo(std::uint16_t port);

} // namespace ps_ns::gateway_bench
