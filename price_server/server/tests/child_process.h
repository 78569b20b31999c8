#pragma once

#include <chrono>
#include <string>
#include <vector>

#include <sys/types.h>

namespace ps_ns
{

/// The program under test as a child process, its standard output and standard error read as they come.
///
/// Threads: one.
class ChildProcess
{
public:
    using Clock = std::chrono::steady_clock;

    enum class Output
    {
        Pipe,
        Terminal ///< standard output and standard error are one terminal of 100 x 30
    };

    explicit ChildProcess(const std::vector<std::string>& arguments, Output output = Output::Pipe);
    /// Kills it when it still runs.
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    /// Reads until standard output has `text`; false: it ended before, or a minute has gone.
    bool WaitForOutput(const std::string& text);
    /// Reads standard output for as long.
    void ReadFor(std::chrono::milliseconds time);
    void Signal(int number) const;
    /// Nobody reads its standard output any more.
    void CloseOutput();
    /// Reads to the end and waits. Returns the exit code; 1000 and the number of the signal that killed it; -1 when it
    /// had to be killed after a minute.
    int WaitForExit();
    /// The same, with nobody reading its standard output.
    int WaitForExitUnread();

    const std::string& GetOutput() const noexcept { return m_output; }
    /// Complete after WaitForExit.
    const std::string& GetErrors() const noexcept { return m_errors; }

private:
    void StartOnPipes(std::vector<char*>& argv);
    void StartOnTerminal(std::vector<char*>& argv);
    /// False: both have ended.
    bool ReadSome(std::chrono::milliseconds timeout);
    int Wait();

    pid_t m_pid = -1;
    int m_outputEnd = -1;
    int m_errorEnd = -1;
    std::string m_output;
    std::string m_errors;
};

} // namespace ps_ns
