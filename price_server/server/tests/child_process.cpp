#include "child_process.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace ps_ns
{
namespace
{

constexpr auto kPatience = std::chrono::seconds(60);

void Close(int& descriptor)
{
    if (descriptor >= 0)
    {
        ::close(descriptor);
    }
    descriptor = -1;
}

/// False: the end, and it is closed.
bool ReadFrom(int& descriptor, std::string& text)
{
    std::array<char, 65536> buffer{};
    const ssize_t count = ::read(descriptor, buffer.data(), buffer.size());
    if (count > 0)
    {
        text.append(buffer.data(), static_cast<std::size_t>(count));
        return true;
    }
    if (count < 0 && errno == EINTR)
    {
        return true;
    }
    Close(descriptor); // a terminal whose other side is gone reads as an error
    return false;
}

} // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& arguments, Output output)
{
    std::vector<std::string> all{PRICE_SERVER_PROGRAM};
    all.insert(all.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& argument : all)
    {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    output == Output::Pipe ? StartOnPipes(argv) : StartOnTerminal(argv);
}

ChildProcess::~ChildProcess()
{
    Close(m_outputEnd);
    Close(m_errorEnd);
    if (m_pid > 0)
    {
        ::kill(m_pid, SIGKILL);
        ::waitpid(m_pid, nullptr, 0);
    }
}

void ChildProcess::StartOnPipes(std::vector<char*>& argv)
{
    std::array<int, 2> output{};
    std::array<int, 2> errors{};
    if (::pipe2(output.data(), O_CLOEXEC) != 0 || ::pipe2(errors.data(), O_CLOEXEC) != 0)
    {
        throw std::runtime_error("no pipe");
    }
    m_pid = ::fork();
    if (m_pid == 0)
    {
        ::dup2(output[1], STDOUT_FILENO);
        ::dup2(errors[1], STDERR_FILENO);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    ::close(output[1]);
    ::close(errors[1]);
    m_outputEnd = output[0];
    m_errorEnd = errors[0];
}

void ChildProcess::StartOnTerminal(std::vector<char*>& argv)
{
    winsize size{};
    size.ws_col = 100;
    size.ws_row = 30;
    m_pid = ::forkpty(&m_outputEnd, nullptr, nullptr, &size);
    if (m_pid == 0)
    {
        ::setenv("TERM", "xterm", 1);
        ::unsetenv("NO_COLOR");
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
}

bool ChildProcess::ReadSome(std::chrono::milliseconds timeout)
{
    if (m_outputEnd < 0 && m_errorEnd < 0)
    {
        return false;
    }
    std::array<pollfd, 2> ready{{{m_outputEnd, POLLIN, 0}, {m_errorEnd, POLLIN, 0}}}; // -1 is passed over
    ::poll(ready.data(), ready.size(), static_cast<int>(timeout.count()));
    if (ready[0].revents != 0)
    {
        ReadFrom(m_outputEnd, m_output);
    }
    if (ready[1].revents != 0)
    {
        ReadFrom(m_errorEnd, m_errors);
    }
    return true;
}

bool ChildProcess::WaitForOutput(const std::string& text)
{
    const auto deadline = Clock::now() + kPatience;
    std::size_t looked = 0;
    while (m_output.find(text, looked) == std::string::npos)
    {
        looked = m_output.size() < text.size() ? 0 : m_output.size() - text.size();
        if (Clock::now() > deadline || !ReadSome(std::chrono::milliseconds(100)))
        {
            return false;
        }
    }
    return true;
}

void ChildProcess::ReadFor(std::chrono::milliseconds time)
{
    const auto end = Clock::now() + time;
    while (Clock::now() < end && ReadSome(std::chrono::milliseconds(10)))
    {
    }
}

void ChildProcess::Signal(int number) const
{
    ::kill(m_pid, number);
}

void ChildProcess::CloseOutput()
{
    Close(m_outputEnd);
}

int ChildProcess::WaitForExit()
{
    const auto deadline = Clock::now() + kPatience;
    while (ReadSome(std::chrono::milliseconds(100)))
    {
        if (Clock::now() > deadline)
        {
            ::kill(m_pid, SIGKILL);
            ::waitpid(m_pid, nullptr, 0);
            m_pid = -1;
            return -1;
        }
    }
    return Wait();
}

int ChildProcess::WaitForExitUnread()
{
    while (m_errorEnd >= 0)
    {
        ReadFrom(m_errorEnd, m_errors);
    }
    return Wait();
}

int ChildProcess::Wait()
{
    int status = 0;
    ::waitpid(m_pid, &status, 0);
    m_pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

} // namespace ps_ns
