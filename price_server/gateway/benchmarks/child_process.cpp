#include "child_process.h"

#include "load_clients.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <stdexcept>

namespace ps_ns::gateway_bench
{
namespace
{

[[noreturn]] void Become(std::vector<char*>& words, const std::array<int, 2>& in, const std::array<int, 2>& out,
                         bool hasPipes)
{
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int nothing = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    ::dup2(hasPipes ? in[0] : nothing, STDIN_FILENO);
    ::dup2(hasPipes ? out[1] : nothing, STDOUT_FILENO);
    if (!hasPipes)
    {
        ::dup2(nothing, STDERR_FILENO);
    }
    ::execvp(words[0], words.data());
    ::_exit(127);
}

} // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& arguments, bool hasPipes)
{
    std::array<int, 2> in{};
    std::array<int, 2> out{};
    if (::pipe2(in.data(), O_CLOEXEC) != 0 || ::pipe2(out.data(), O_CLOEXEC) != 0)
    {
        throw std::runtime_error("no pipes");
    }
    std::vector<std::string> copy = arguments;
    std::vector<char*> words;
    for (std::string& word : copy)
    {
        words.push_back(word.data());
    }
    words.push_back(nullptr);
    m_id = ::fork();
    if (m_id == 0)
    {
        Become(words, in, out, hasPipes);
    }
    ::close(in[0]);
    ::close(out[1]);
    m_input = in[1];
    m_output = out[0];
    if (m_id < 0)
    {
        throw std::runtime_error("cannot start " + arguments.front());
    }
}

ChildProcess::~ChildProcess()
{
    ::close(m_input);
    ::close(m_output);
    ::kill(m_id, SIGKILL);
    ::waitpid(m_id, nullptr, 0);
}

void ChildProcess::WriteLine(const std::string& line)
{
    WriteAll(m_input, line + "\n");
}

std::string ChildProcess::ReadLine()
{
    std::string line;
    char byte = 0;
    while (::read(m_output, &byte, 1) == 1)
    {
        if (byte == '\n')
        {
            return line;
        }
        line += byte;
    }
    throw std::runtime_error("a server has ended");
}

} // namespace ps_ns::gateway_bench
