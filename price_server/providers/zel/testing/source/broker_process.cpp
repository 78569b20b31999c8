#include "zel_testing/broker_process.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <netinet/in.h>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace ps_ns::testing_ns
{
namespace
{

using Clock = std::chrono::steady_clock;
constexpr auto kPatience = std::chrono::seconds(20);
constexpr auto kLook = std::chrono::milliseconds(2);

std::string MakeFolder()
{
    std::string name = (std::filesystem::temp_directory_path() / "ps_broker_XXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr)
    {
        throw std::runtime_error("there is no folder for the broker");
    }
    return name;
}

bool IsListening(std::uint16_t port)
{
    const int client = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool isListening = ::connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    ::close(client);
    return isListening;
}

/// Nothing but what is safe between fork and exec.
[[noreturn]] void BecomeBroker(std::vector<char*>& argv)
{
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int nowhere = ::open("/dev/null", O_RDWR);
    ::dup2(nowhere, STDIN_FILENO);
    ::dup2(nowhere, STDOUT_FILENO);
    if (std::getenv("BROKER_LOG") == nullptr)
    {
        ::dup2(nowhere, STDERR_FILENO);
    }
    ::execv(argv[0], argv.data());
    ::_exit(127);
}

} // namespace

BrokerProcess::BrokerProcess(std::vector<std::string> arguments)
    : m_arguments(std::move(arguments))
    , m_folder(MakeFolder())
{
    Start();
}

BrokerProcess::~BrokerProcess()
{
    Kill();
    std::error_code ignored;
    std::filesystem::remove_all(m_folder, ignored);
}

void BrokerProcess::Start()
{
    std::vector<std::string> words{
        NATS_SERVER_PROGRAM, "-a",    "127.0.0.1", "-p", m_port == 0 ? "-1" : std::to_string(m_port),
        "--ports_file_dir",  m_folder};
    words.insert(words.end(), m_arguments.begin(), m_arguments.end());
    std::vector<char*> argv;
    for (std::string& word : words)
    {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    m_pid = ::fork();
    if (m_pid == 0)
    {
        BecomeBroker(argv);
    }
    if (m_pid < 0)
    {
        throw std::runtime_error("the broker cannot be started");
    }
    WaitUntilItListens();
}

/// The file is there when it listens, and says: {"nats": ["nats://127.0.0.1:43210"], ...}
void BrokerProcess::WaitUntilItListens()
{
    const auto deadline = Clock::now() + kPatience;
    const std::string file = m_folder + "/nats-server_" + std::to_string(m_pid) + ".ports";
    while (Clock::now() < deadline)
    {
        if (m_port != 0 && IsListening(m_port))
        {
            return;
        }
        std::ostringstream text;
        text << std::ifstream(file).rdbuf();
        const std::string ports = text.str();
        std::smatch found;
        if (m_port == 0 && std::regex_search(ports, found, std::regex("nats://[^\"]*:([0-9]+)\"")))
        {
            m_port = static_cast<std::uint16_t>(std::stoul(found[1]));
        }
        if (::waitpid(m_pid, nullptr, WNOHANG) == m_pid)
        {
            m_pid = -1;
            break;
        }
        std::this_thread::sleep_for(kLook);
    }
    Kill();
    throw std::runtime_error("the broker does not listen");
}

void BrokerProcess::Kill()
{
    if (m_pid > 0)
    {
        ::kill(m_pid, SIGKILL);
        ::waitpid(m_pid, nullptr, 0);
        m_pid = -1;
    }
}

void BrokerProcess::Freeze() const
{
    ::kill(m_pid, SIGSTOP);
    ::waitpid(m_pid, nullptr, WUNTRACED);
}

void BrokerProcess::Thaw() const
{
    ::kill(m_pid, SIGCONT);
}

} // namespace ps_ns::testing_ns
