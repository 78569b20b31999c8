#pragma once

#include "gateway/backend.h"
#include "gateway/gateway_options.h"

#include <cstdint>
#include <memory>
#include <string>

namespace ps_ns::gateway
{

/// The server's one listener: WebSocket sessions for prices, the page, and HTTP for operators. docs/protocol.md says
/// what it speaks.
///
/// Each WebSocket session is a flexible client of the manager. A client that is slow gets the latest books, or is let
/// go; it never holds up the executors or another client.
///
/// Threads: one of its own for all I/O; Start and Stop are the owner's.
/// Ownership: the backend is not owned, and outlives the gateway.
class Gateway
{
public:
    Gateway(GatewayOptions options, IBackend& backend);
    /// Stops.
    ~Gateway();
    Gateway(const Gateway&) = delete;
    Gateway& operator=(const Gateway&) = delete;

    /// Listens. Throws std::runtime_error, saying what and where, when the options make no sense (FindProblem), the
    /// address cannot be had, or the TLS files cannot be read. Once.
    void Start();
    /// Lets no new client in, tells those there are (1001), and waits a little for them. The backend must still take
    /// requests: the sessions unsubscribe. Idempotent.
    void Stop();

    /// The port that it listens on; 0 before Start.
    std::uint16_t GetPort() const noexcept;
    /// Where people find the page, like "http://127.0.0.1:8080/".
    std::string GetUrl() const;

private:
    class Impl;
    std::shared_ptr<Impl> m_impl;
};

} // namespace ps_ns::gateway
