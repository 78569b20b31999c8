#include "server/service_notifier.h"

#include "child_process.h"
#include "program_test_kit.h"
#include "server/exit_code.h"

#include <gtest/gtest.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace ps_ns
{
namespace
{

using std::chrono::milliseconds;

/// Sets a variable of the environment, and takes it out again.
class Variable
{
public:
    Variable(std::string name, const std::string& value)
        : m_name(std::move(name))
    {
        ::setenv(m_name.c_str(), value.c_str(), 1);
    }
    ~Variable() { ::unsetenv(m_name.c_str()); }
    Variable(const Variable&) = delete;
    Variable& operator=(const Variable&) = delete;

private:
    const std::string m_name;
};

/// A service manager's end of the socket. A name that begins with '@' is abstract.
class Listener
{
public:
    explicit Listener(const std::string& name)
        : m_socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, name.data(), name.size());
        if (name.front() == '@')
        {
            address.sun_path[0] = '\0';
        }
        const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
        if (::bind(m_socket, reinterpret_cast<const sockaddr*>(&address), size) != 0)
        {
            ADD_FAILURE() << "cannot bind " << name << ": " << std::strerror(errno);
        }
    }
    ~Listener() { ::close(m_socket); }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    /// The next datagram; nothing when none comes in time.
    std::optional<std::string> Receive(milliseconds patience)
    {
        pollfd ready{m_socket, POLLIN, 0};
        if (::poll(&ready, 1, static_cast<int>(patience.count())) != 1)
        {
            return std::nullopt;
        }
        std::array<char, 1000> buffer{};
        const auto size = ::recv(m_socket, buffer.data(), buffer.size(), 0);
        return std::string(buffer.data(), static_cast<std::size_t>(size));
    }
    std::optional<std::string> ReceiveNow() { return Receive(milliseconds(0)); }

private:
    const int m_socket;
};

TEST(ServiceNotifier, TellsASocketOfAPathThatItIsReadyAndThatItStops)
{
    const TemporaryFolder folder;
    const std::string path = folder.GetPath() + "/notify";
    Listener listener(path);
    const Variable variable("NOTIFY_SOCKET", path);
    ServiceNotifier notifier;
    notifier.Ready("17 instruments");
    EXPECT_EQ(listener.ReceiveNow(), "READY=1\nSTATUS=17 instruments");
    notifier.Stopping();
    EXPECT_EQ(listener.ReceiveNow(), "STOPPING=1\nSTATUS=stopping");
}

TEST(ServiceNotifier, TellsASocketOfTheAbstractSpace)
{
    const std::string name = "@price_server_test_" + std::to_string(::getpid());
    Listener listener(name);
    const Variable variable("NOTIFY_SOCKET", name);
    ServiceNotifier notifier;
    notifier.Ready("");
    EXPECT_EQ(listener.ReceiveNow(), "READY=1\nSTATUS=");
}

TEST(ServiceNotifier, IsSilentWithoutASocketAndWithOneThatIsNone)
{
    ServiceNotifier alone;
    alone.Ready("nobody listens");
    alone.Ping(ServiceNotifier::Clock::now());
    for (const std::string& name :
         {std::string("relative"), std::string("/"), std::string("/no/such/socket"), "/" + std::string(200, 'a')})
    {
        const Variable variable("NOTIFY_SOCKET", name);
        ServiceNotifier notifier;
        notifier.Ready("nobody listens");
        notifier.Stopping();
    }
}

TEST(ServiceNotifier, PingsAWatchdogThreeTimesInItsIntervalAtMost)
{
    const std::string name = "@price_server_test_" + std::to_string(::getpid());
    Listener listener(name);
    const Variable variable("NOTIFY_SOCKET", name);
    const Variable interval("WATCHDOG_USEC", "9000000");
    const Variable process("WATCHDOG_PID", std::to_string(::getpid()));
    ServiceNotifier notifier;
    EXPECT_EQ(notifier.GetWatchdog(), std::chrono::seconds(9));
    const ServiceNotifier::Clock::time_point begin(std::chrono::hours(1));
    int pings = 0;
    for (milliseconds time{0}; time < std::chrono::seconds(9); time += milliseconds(250))
    {
        notifier.Ping(begin + time);
        while (const auto message = listener.ReceiveNow())
        {
            EXPECT_EQ(*message, "WATCHDOG=1");
            ++pings;
        }
    }
    EXPECT_EQ(pings, 3);
}

TEST(ServiceNotifier, HasNoWatchdogWhenItIsMeantForAnotherProcessOrIsNoNumber)
{
    const Variable variable("NOTIFY_SOCKET", "@price_server_test_nobody");
    {
        const Variable interval("WATCHDOG_USEC", "9000000");
        const Variable process("WATCHDOG_PID", "1");
        EXPECT_EQ(ServiceNotifier().GetWatchdog().count(), 0);
    }
    const Variable interval("WATCHDOG_USEC", "9s");
    EXPECT_EQ(ServiceNotifier().GetWatchdog().count(), 0);
}

TEST(ServiceNotifier, IsDrivenByTheProgramFromItsStartToItsEnd)
{
    const std::string name = "@price_server_test_program_" + std::to_string(::getpid());
    Listener listener(name);
    const Variable variable("NOTIFY_SOCKET", name);
    const Variable interval("WATCHDOG_USEC", "600000"); // a ping with each action of the probe
    ChildProcess program({"--no-gateway"});
    constexpr milliseconds kPatience{60'000};
    const auto receiveOther = [&](const std::string& passedOver)
    {
        auto message = listener.Receive(kPatience);
        while (message == passedOver)
        {
            message = listener.Receive(kPatience);
        }
        return message.value_or("nothing");
    };
    // Pings come as soon as the queue's reader runs.
    EXPECT_EQ(receiveOther("WATCHDOG=1").substr(0, 15), "READY=1\nSTATUS=");
    EXPECT_EQ(listener.Receive(kPatience), "WATCHDOG=1");
    EXPECT_EQ(listener.Receive(kPatience), "WATCHDOG=1");
    program.Signal(SIGTERM);
    EXPECT_EQ(receiveOther("WATCHDOG=1"), "STOPPING=1\nSTATUS=stopping");
    EXPECT_EQ(program.WaitForExit(), ExitOk) << program.GetErrors();
}

} // namespace
} // namespace ps_ns
