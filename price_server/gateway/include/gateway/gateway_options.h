#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace prometheus
{
class Collectable;
}

namespace ps_ns::gateway
{

/// What a token opens. An empty list of markets: all of them.
struct Rights
{
    std::vector<std::string> markets; ///< by name; empty: every market
    bool operations = true;           ///< the read-only pages of operations

    bool Opens(const std::string& market) const noexcept;
};

struct Token
{
    std::string name; ///< for logs and the list of sessions; never secret
    std::string value;
    Rights rights;
};

struct TlsFiles
{
    std::string certificateChain; ///< PEM
    std::string privateKey;       ///< PEM
};

/// Bounds on what one client, and all together, may take.
struct Limits
{
    std::size_t message_bytes = 65'536;        ///< of one message to the server
    std::size_t header_bytes = 16'384;         ///< of one HTTP request, its address included
    std::size_t sessions = 4096;               ///< WebSocket sessions at a time
    std::size_t connections = 8192;            ///< connections at a time, those that are no sessions included
    std::size_t subscriptions = 200;           ///< of one session
    unsigned requests_per_second = 100;        ///< of one session or HTTP connection; twice as many at once
    unsigned httpRequests_per_second = 1000;   ///< to /api/ and /metrics, of all; twice as many at once
    std::size_t conflate_bytes = 256 * 1024;   ///< unsent; above it books conflate
    std::size_t close_bytes = 1024 * 1024;     ///< unsent; above it the session ends
    std::chrono::milliseconds handshake{5000}; ///< for TLS, for a request's header, for a token
    std::chrono::milliseconds stall{10'000};   ///< without progress of a write; then the session ends
    std::chrono::milliseconds idle{60'000};    ///< without a sign of life; then the session ends

    /// Without a sign of life; then the session is asked for one.
    std::chrono::milliseconds GetPingAfter() const noexcept { return idle / 4; }
};

/// How the gateway listens, and whom it lets in. A plain value.
struct GatewayOptions
{
    std::string address = "127.0.0.1";
    std::uint16_t port = 8080; ///< 0: any that is free
    bool takesAnyPort = false; ///< when the port is taken, any that is free
    std::string webRoot;       ///< the folder of the built page; empty: none
    std::vector<Token> tokens; ///< empty: nobody has to show one; allowed on loopback only
    /// Origins of pages that may open a session, like "https://desk.example". The gateway's own is always allowed;
    /// clients that are no browsers send none.
    std::vector<std::string> origins;
    TlsFiles tls; ///< empty names: no TLS
    Limits limits;
    std::string version;
    std::string build;
    /// What the metrics page shows beside the gauges and the gateway's own counts; asked on the I/O thread, for as long
    /// as the gateway runs.
    std::vector<std::shared_ptr<prometheus::Collectable>> metrics;
};

/// Why the options make no sense, like a listener beyond loopback without a token; empty when they do.
std::string FindProblem(const GatewayOptions& options);

} // namespace ps_ns::gateway
