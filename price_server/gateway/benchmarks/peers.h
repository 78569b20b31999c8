#pragma once

#include "load_clients.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <sys/types.h>

namespace ps_ns::gateway_bench
{

/// A server under load, in a process of its own: this project's gateway, or another engine that fans out the same
/// messages. It ends with its object.
///
/// Threads: one.
class IPeer
{
public:
    virtual ~IPeer() = default;

    virtual const char* GetName() const = 0;
    virtual Framing GetFraming() const = 0;
    /// The server's process: for its processor time and memory.
    virtual pid_t GetProcess() const = 0;
    /// Adds a client; the answers to its subscribes are still to come.
    virtual std::size_t Connect(LoadClients& clients) = 0;
    /// Subscribes a client to an instrument.
    virtual void Subscribe(LoadClients& clients, std::size_t client, std::size_t instrument) = 0;
    /// Hands over so many updates, of one instrument after another.
    virtual void Publish(std::uint64_t count) = 0;
    /// The same, so many a second for so long; returns at once.
    virtual void BeginPace(std::uint64_t rate, std::uint64_t milliseconds) = 0;
    virtual void EndPace() = 0;
};

/// Throws std::runtime_error when the program is not there or does not start. `instruments` is how many there are.
std::unique_ptr<IPeer> StartGateway(std::size_t instruments);
std::unique_ptr<IPeer> StartNats(std::size_t instruments);
std::unique_ptr<IPeer> StartRedis(std::size_t instruments);

/// Seconds of processor time that a process has used.
double GetProcessorTime_s(pid_t process);
/// What a process has in memory, in bytes.
double GetResident_bytes(pid_t process);

} // namespace ps_ns::gateway_bench
