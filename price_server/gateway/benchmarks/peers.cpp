#include "peers.h"

#include "child_process.h"
#include "pace.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <thread>

namespace ps_ns::gateway_bench
{
namespace
{

/// A port that was free a moment ago.
std::uint16_t FindPort()
{
    const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    ::bind(socket, reinterpret_cast<sockaddr*>(&address), size);
    ::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size);
    ::close(socket);
    return ntohs(address.sin_port);
}

/// Waits until somebody listens there.
int ConnectWhenThere(std::uint16_t port)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    for (;;)
    {
        try
        {
            return ConnectTo(port);
        }
        catch (const std::system_error&)
        {
            if (std::chrono::steady_clock::now() > end)
            {
                throw;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }
}

class GatewayPeer final : public IPeer
{
public:
    explicit GatewayPeer(std::size_t instruments)
        : m_process({"/proc/self/exe", "--serve", std::to_string(instruments)}, true)
        , m_port(static_cast<std::uint16_t>(std::stoul(m_process.ReadLine())))
    {
    }
    const char* GetName() const override { return "gateway"; }
    Framing GetFraming() const override { return Framing::WebSocket; }
    pid_t GetProcess() const override { return m_process.GetId(); }
    std::size_t Connect(LoadClients& clients) override
    {
        return clients.Connect(m_port,
                               "GET /ws HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                               "Sec-WebSocket-Version: 13\r\nSec-WebSocket-Key: AAAAAAAAAAAAAAAAAAAAAA==\r\n\r\n");
    }
    void Subscribe(LoadClients& clients, std::size_t client, std::size_t instrument) override
    {
        const std::string name = "I" + std::to_string(instrument);
        clients.Send(client, R"({"type":"subscribe","request":")" + name + R"(","instrument":"BENCH:)" + name +
                                 R"(","depth":10})");
    }
    void Publish(std::uint64_t count) override
    {
        m_process.WriteLine("publish " + std::to_string(count));
        m_process.ReadLine();
    }
    void BeginPace(std::uint64_t rate, std::uint64_t milliseconds) override
    {
        m_process.WriteLine("pace " + std::to_string(rate) + " " + std::to_string(milliseconds));
    }
    void EndPace() override { m_process.ReadLine(); }

private:
    ChildProcess m_process;
    const std::uint16_t m_port;
};

/// Another engine, which is sent what it is to fan out over a connection: texts like the gateway's updates.
class EnginePeer : public IPeer
{
public:
    EnginePeer(const std::vector<std::string>& program, std::uint16_t port, std::size_t instruments)
        : m_process(program, false)
        , m_port(port)
        , m_publisher(ConnectWhenThere(port))
    {
        for (std::size_t i = 0; i < instruments; ++i)
        {
            m_texts.push_back(R"({"type":"update","instrument":"BENCH:I)" + std::to_string(i) +
                              R"(","depth":10,"epoch":1,"previous":123456,"sequence":123457,)"
                              R"("exchange_time_ns":"1790000000000000000","receive_time_ns":"1790000000000000000",)"
                              R"("bids":[["60999.95","0.57","0",null]],"asks":[]})");
        }
    }
    ~EnginePeer() override
    {
        EnginePeer::EndPace();
        ::close(m_publisher);
    }
    EnginePeer(const EnginePeer&) = delete;
    EnginePeer& operator=(const EnginePeer&) = delete;

    pid_t GetProcess() const override { return m_process.GetId(); }
    void Publish(std::uint64_t count) override
    {
        std::string commands;
        for (; count != 0; --count)
        {
            m_next = (m_next + 1) % m_texts.size();
            std::string& text = m_texts[m_next];
            const std::size_t time = text.find("receive_time_ns") + std::string_view(R"(receive_time_ns":")").size();
            const std::string now = std::to_string(GetTime_ns());
            text.replace(time, now.size(), now);
            AppendPublish(commands, m_next, text);
        }
        WriteAll(m_publisher, commands);
        SkipAnswers();
    }
    void BeginPace(std::uint64_t rate, std::uint64_t milliseconds) override
    {
        m_pace = std::thread([this, rate, milliseconds] { Pace(rate, milliseconds, [this] { Publish(1); }); });
    }
    void EndPace() override
    {
        if (m_pace.joinable())
        {
            m_pace.join();
        }
    }

protected:
    virtual void AppendPublish(std::string& commands, std::size_t instrument, const std::string& text) const = 0;
    std::uint16_t GetPort() const noexcept { return m_port; }
    void SendToEngine(const std::string& text) const { WriteAll(m_publisher, text); }
    /// What the engine says to its publisher.
    void SkipAnswers() const
    {
        char answers[65'536]; // NOLINT: nobody looks at it
        while (::recv(m_publisher, answers, sizeof answers, MSG_DONTWAIT) > 0)
        {
        }
    }

private:
    ChildProcess m_process;
    const std::uint16_t m_port;
    const int m_publisher;
    std::vector<std::string> m_texts;
    std::size_t m_next = 0;
    std::thread m_pace;
};

class NatsPeer final : public EnginePeer
{
public:
    NatsPeer(std::uint16_t port, std::size_t instruments)
        : EnginePeer({"nats-server", "-a", "127.0.0.1", "-p", std::to_string(port)}, port, instruments)
    {
        SendToEngine(kConnect);
    }
    const char* GetName() const override { return "nats-server"; }
    Framing GetFraming() const override { return Framing::Nats; }
    std::size_t Connect(LoadClients& clients) override { return clients.Connect(GetPort(), kConnect); }
    void Subscribe(LoadClients& clients, std::size_t client, std::size_t instrument) override
    {
        const std::string number = std::to_string(instrument);
        clients.Send(client, "SUB bench.I" + number + " " + number + "\r\n");
    }

private:
    static constexpr const char* kConnect = "CONNECT {\"verbose\":false,\"pedantic\":false}\r\n";

    void AppendPublish(std::string& commands, std::size_t instrument, const std::string& text) const override
    {
        commands +=
            "PUB bench.I" + std::to_string(instrument) + " " + std::to_string(text.size()) + "\r\n" + text + "\r\n";
    }
};

class RedisPeer final : public EnginePeer
{
public:
    RedisPeer(std::uint16_t port, std::size_t instruments)
        : EnginePeer({"redis-server", "--bind", "127.0.0.1", "--port", std::to_string(port), "--save", "",
                      "--appendonly", "no", "--client-output-buffer-limit", "pubsub 0 0 0"},
                     port, instruments)
    {
    }
    const char* GetName() const override { return "redis-server"; }
    Framing GetFraming() const override { return Framing::Redis; }
    std::size_t Connect(LoadClients& clients) override { return clients.Connect(GetPort(), ""); }
    void Subscribe(LoadClients& clients, std::size_t client, std::size_t instrument) override
    {
        clients.Send(client, "SUBSCRIBE bench.I" + std::to_string(instrument) + "\r\n");
    }

private:
    void AppendPublish(std::string& commands, std::size_t instrument, const std::string& text) const override
    {
        const std::string channel = "bench.I" + std::to_string(instrument);
        commands += "*3\r\n$7\r\nPUBLISH\r\n$" + std::to_string(channel.size()) + "\r\n" + channel + "\r\n$" +
                    std::to_string(text.size()) + "\r\n" + text + "\r\n";
    }
};

} // namespace

std::unique_ptr<IPeer> StartGateway(std::size_t instruments)
{
    return std::make_unique<GatewayPeer>(instruments);
}

std::unique_ptr<IPeer> StartNats(std::size_t instruments)
{
    return std::make_unique<NatsPeer>(FindPort(), instruments);
}

std::unique_ptr<IPeer> StartRedis(std::size_t instruments)
{
    return std::make_unique<RedisPeer>(FindPort(), instruments);
}

double GetProcessorTime_s(pid_t process)
{
    std::ifstream file("/proc/" + std::to_string(process) + "/stat");
    std::string text;
    std::getline(file, text);
    std::istringstream words(text.substr(text.rfind(')') + 2));
    std::string word;
    constexpr int kUserTime = 11; // words behind the name
    for (int i = 0; i < kUserTime; ++i)
    {
        words >> word;
    }
    double user = 0;
    double system = 0;
    words >> user >> system;
    return (user + system) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

double GetResident_bytes(pid_t process)
{
    std::ifstream file("/proc/" + std::to_string(process) + "/statm");
    double all = 0;
    double resident = 0;
    file >> all >> resident;
    return resident * static_cast<double>(::sysconf(_SC_PAGESIZE));
}

} // namespace ps_ns::gateway_bench
