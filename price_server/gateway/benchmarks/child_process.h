#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace ps_ns::gateway_bench
{

/// A program that runs until this object ends; it is killed then, and with this process.
///
/// Threads: one. Failure: std::runtime_error when it cannot be started.
class ChildProcess
{
public:
    /// `arguments` begin with the program, which is looked for in the path. What it writes to its standard output can
    /// be read here, if `hasPipes`; otherwise it is dropped.
    ChildProcess(const std::vector<std::string>& arguments, bool hasPipes);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t GetId() const noexcept { return m_id; }
    void WriteLine(const std::string& line);
    std::string ReadLine();

private:
    pid_t m_id = -1;
    int m_input = -1;
    int m_output = -1;
};

} // namespace ps_ns::gateway_bench
