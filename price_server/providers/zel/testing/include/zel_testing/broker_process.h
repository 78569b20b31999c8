#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <sys/types.h>

namespace ps_ns::testing_ns
{

/// A nats-server of the test's own on loopback, on a port that is free; it keeps the port when it is started again.
///
/// Threads: one. Failure: throws std::runtime_error when the broker does not listen in time.
class BrokerProcess
{
public:
    /// Starts it. `arguments` come behind the usual ones ("-c", a file).
    explicit BrokerProcess(std::vector<std::string> arguments = {});
    /// Kills it.
    ~BrokerProcess();
    BrokerProcess(const BrokerProcess&) = delete;
    BrokerProcess& operator=(const BrokerProcess&) = delete;

    std::uint16_t GetPort() const noexcept { return m_port; }
    std::string GetUrl() const { return "nats://127.0.0.1:" + std::to_string(m_port); }
    pid_t GetPid() const noexcept { return m_pid; }

    /// Ends it at once (SIGKILL), and waits until it has gone. Nothing when it does not run.
    void Kill();
    /// Returns when it listens.
    void Start();
    /// Stops its time (SIGSTOP), and returns when it stands.
    void Freeze() const;
    /// Lets it go on.
    void Thaw() const;

private:
    void WaitUntilItListens();

    const std::vector<std::string> m_arguments;
    std::string m_folder; ///< where it writes its port
    std::uint16_t m_port = 0;
    pid_t m_pid = -1;
};

} // namespace ps_ns::testing_ns
