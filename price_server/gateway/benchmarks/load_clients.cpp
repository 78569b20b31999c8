#include "load_clients.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace ps_ns::gateway_bench
{
namespace
{

constexpr std::size_t kBuffer = 512 * 1024;
constexpr std::size_t kSampleEvery = 10;

[[noreturn]] void Fail(const char* what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

/// A client's frame: masked, as the protocol wants it, with zeros.
std::string MakeFrame(const std::string& text)
{
    std::string frame(1, '\x81');
    if (text.size() < 126)
    {
        frame += static_cast<char>(0x80U | text.size());
    }
    else
    {
        frame += static_cast<char>(0x80U | 126U);
        frame += static_cast<char>(text.size() >> 8U);
        frame += static_cast<char>(text.size() & 0xFFU);
    }
    return frame.append(4, '\0') + text;
}

std::uint64_t CountLines(const char* data, std::size_t size)
{
    return static_cast<std::uint64_t>(std::count(data, data + size, '\n'));
}

/// The length that a frame's header says, and how long the header is; 0: more of it must come.
std::size_t ReadHeader(const std::string& header, std::uint64_t& payload)
{
    if (header.size() < 2)
    {
        return 0;
    }
    const auto byte = [&](std::size_t i) { return static_cast<std::uint64_t>(static_cast<unsigned char>(header[i])); };
    payload = byte(1) & 0x7FU;
    const std::size_t more = payload == 126 ? 2 : payload == 127 ? 8 : 0;
    if (header.size() < 2 + more)
    {
        return 0;
    }
    if (more != 0)
    {
        payload = 0;
        for (std::size_t i = 0; i < more; ++i)
        {
            payload = payload << 8U | byte(2 + i);
        }
    }
    return 2 + more;
}

} // namespace

std::uint64_t GetTime_ns()
{
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch())
            .count());
}

void WriteAll(int file, const std::string& text)
{
    for (std::size_t done = 0; done < text.size();)
    {
        const ssize_t written = ::write(file, text.data() + done, text.size() - done);
        if (written < 0)
        {
            Fail("write");
        }
        done += static_cast<std::size_t>(written);
    }
}

int ConnectTo(std::uint16_t port)
{
    const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (socket < 0 || ::connect(socket, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
    {
        Fail("connect");
    }
    const int yes = 1;
    ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
    return socket;
}

LoadClients::LoadClients(Framing framing)
    : m_framing(framing)
    , m_epoll(::epoll_create1(EPOLL_CLOEXEC))
    , m_buffer(kBuffer)
{
}

LoadClients::~LoadClients()
{
    for (const Connection& connection : m_connections)
    {
        if (connection.socket >= 0)
        {
            ::close(connection.socket);
        }
    }
    ::close(m_epoll);
}

std::size_t LoadClients::Connect(std::uint16_t port, const std::string& hello)
{
    Connection connection;
    connection.socket = ConnectTo(port);
    connection.isSampled = m_connections.size() % kSampleEvery == 0;
    WriteAll(connection.socket, hello);
    if (m_framing == Framing::WebSocket)
    {
        std::string answer;
        while (answer.find("\r\n\r\n") == std::string::npos)
        {
            char byte = 0;
            if (::read(connection.socket, &byte, 1) != 1)
            {
                throw std::runtime_error("no answer to the handshake");
            }
            answer += byte;
        }
        if (answer.find(" 101 ") == std::string::npos)
        {
            throw std::runtime_error("the handshake was refused: " + answer);
        }
    }
    ::fcntl(connection.socket, F_SETFL, ::fcntl(connection.socket, F_GETFL) | O_NONBLOCK);
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = m_connections.size();
    if (::epoll_ctl(m_epoll, EPOLL_CTL_ADD, connection.socket, &event) != 0)
    {
        Fail("epoll_ctl");
    }
    m_connections.push_back(std::move(connection));
    return m_connections.size() - 1;
}

void LoadClients::Send(std::size_t connection, const std::string& text)
{
    WriteAll(m_connections.at(connection).socket, m_framing == Framing::WebSocket ? MakeFrame(text) : text);
}

void LoadClients::SetStalled(std::size_t number, bool isStalled)
{
    Connection& connection = m_connections.at(number);
    connection.isStalled = isStalled;
    epoll_event event{};
    event.events = isStalled ? 0U : EPOLLIN;
    event.data.u64 = number;
    if (connection.socket >= 0)
    {
        // Otherwise the system takes megabytes for a client that does not read.
        constexpr int kSmall = 64 * 1024;
        if (isStalled)
        {
            ::setsockopt(connection.socket, SOL_SOCKET, SO_RCVBUF, &kSmall, sizeof kSmall);
        }
        ::epoll_ctl(m_epoll, EPOLL_CTL_MOD, connection.socket, &event);
    }
}

bool LoadClients::WakeToEnd(std::size_t number)
{
    Connection& connection = m_connections.at(number);
    ssize_t size = connection.socket < 0 ? 0 : 1;
    while (size > 0)
    {
        size = ::recv(connection.socket, m_buffer.data(), m_buffer.size(), MSG_DONTWAIT);
    }
    const bool hasEnded = size == 0 || errno == ECONNRESET;
    if (connection.socket >= 0)
    {
        ::close(connection.socket);
        connection.socket = -1;
    }
    return hasEnded;
}

void LoadClients::Poll(int timeout_ms)
{
    std::array<epoll_event, 256> events{};
    const int count = ::epoll_wait(m_epoll, events.data(), static_cast<int>(events.size()), timeout_ms);
    for (int i = 0; i < count; ++i)
    {
        Read(events[static_cast<std::size_t>(i)].data.u64);
    }
}

void LoadClients::Read(std::size_t number)
{
    Connection& connection = m_connections[number];
    const ssize_t size = connection.socket < 0 ? -1 : ::recv(connection.socket, m_buffer.data(), m_buffer.size(), 0);
    if (size > 0)
    {
        return Take(connection, m_buffer.data(), static_cast<std::size_t>(size));
    }
    if (size < 0 && (errno == EAGAIN || errno == EINTR))
    {
        return;
    }
    ::close(connection.socket);
    connection.socket = -1;
    if (!connection.isStalled)
    {
        throw std::runtime_error("the server has closed connection " + std::to_string(number));
    }
}

void LoadClients::Take(Connection& connection, const char* data, std::size_t size)
{
    m_bytes += size;
    if (connection.isSampled)
    {
        Sample(connection, data, size);
    }
    if (m_framing == Framing::WebSocket)
    {
        return TakeFrames(connection, data, size);
    }
    const std::uint64_t linesOfOne = m_framing == Framing::Nats ? 2 : 7;
    connection.lines += CountLines(data, size);
    connection.deliveries += connection.lines / linesOfOne;
    m_deliveries += connection.lines / linesOfOne;
    connection.lines %= linesOfOne;
}

void LoadClients::TakeFrames(Connection& connection, const char* data, std::size_t size)
{
    std::uint64_t deliveries = 0;
    while (size != 0)
    {
        if (connection.payload == 0)
        {
            connection.header += *data++;
            --size;
            std::uint64_t payload = 0;
            if (ReadHeader(connection.header, payload) != 0)
            {
                constexpr unsigned kControl = 8;
                constexpr unsigned kPing = 9;
                const unsigned opcode = static_cast<unsigned char>(connection.header[0]) & 0xFU;
                deliveries += opcode < kControl ? 1 : 0; // the last line has no end
                if (opcode == kPing)
                {
                    WriteAll(connection.socket, std::string("\x8A\x80\0\0\0\0", 6)); // its pings have no text
                }
                connection.payload = payload;
                connection.header.clear();
            }
            continue;
        }
        const std::size_t part = static_cast<std::size_t>(std::min<std::uint64_t>(size, connection.payload));
        deliveries += CountLines(data, part);
        connection.payload -= part;
        data += part;
        size -= part;
    }
    connection.deliveries += deliveries;
    m_deliveries += deliveries;
}

void LoadClients::Sample(Connection& connection, const char* data, std::size_t size)
{
    constexpr std::string_view kName = "receive_time_ns\":\"";
    constexpr std::size_t kDigits = 19;
    const std::uint64_t now = GetTime_ns();
    connection.tail.append(data, size);
    std::size_t begin = 0;
    for (;;)
    {
        const std::size_t found = connection.tail.find(kName, begin);
        if (found == std::string::npos || found + kName.size() + kDigits > connection.tail.size())
        {
            break;
        }
        std::uint64_t sent = 0;
        const char* const number = connection.tail.data() + found + kName.size();
        std::from_chars(number, number + kDigits, sent);
        m_latencies_ns.push_back(now > sent ? now - sent : 0);
        begin = found + kName.size();
    }
    const std::size_t keep = std::min(connection.tail.size() - begin, kName.size() + kDigits);
    connection.tail.erase(0, connection.tail.size() - keep);
}

std::uint64_t LoadClients::GetFewestDeliveries() const
{
    std::uint64_t fewest = ~std::uint64_t{0};
    for (const Connection& connection : m_connections)
    {
        fewest = connection.isStalled ? fewest : std::min(fewest, connection.deliveries);
    }
    return fewest;
}

void LoadClients::Reset()
{
    for (Connection& connection : m_connections)
    {
        connection.deliveries = 0;
        connection.lines = 0;
    }
    m_deliveries = 0;
    m_bytes = 0;
    m_latencies_ns.clear();
}

} // namespace ps_ns::gateway_bench
