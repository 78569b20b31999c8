#pragma once

#include "config/config.h"
#include "config/config_error.h"
#include "logging/sinks.h"
#include "simple_subscription/market_table.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ps_ns
{

/// Section Logging.
struct LoggingSettings
{
    int level = 10; ///< records below it are not written
    zel::logging::Format format = zel::logging::Format::Text;
    std::string file;         ///< empty: standard error
    std::size_t queue = 8192; ///< records that may wait to be written
};

/// Section Metrics.
struct MetricsSettings
{
    bool enabled = true;
};

/// Section Providers/Mds/Replay.
struct ReplaySettings
{
    double speed = 1;  ///< times the pace of the recording; 0: as fast as possible
    bool loop = false; ///< begin again at the end
    std::vector<std::string> files;
};

/// Section Providers/Mds/Simulation.
struct SimulationSettings
{
    std::uint64_t seed = 1;
    unsigned updatesPerSecond = 200; ///< of all instruments together
};

/// A rule of Providers/Mds/Implied: the book of `symbol` worked out from the books of two others of its market. Only
/// the members that the kind names are set.
struct ImpliedRuleSettings
{
    enum class Kind
    {
        Cross,              ///< symbol = numerator / denominator
        OutrightFromSpread, ///< symbol = near + spread, or far - spread; one of near and far is empty
        SpreadFromOutrights ///< symbol = far - near
    };
    Kind kind = Kind::Cross;
    short marketId = 0;
    std::string symbol;
    std::string numerator;
    std::string denominator;
    std::string spread;
    std::string far;
    std::string near;
};

/// A rename of section Providers/Mds/Renames: of a file of it, or a single one.
struct RenameSettings
{
    std::optional<short> marketId; ///< nothing: every market that has the old symbol then
    std::string oldSymbol;
    std::string newSymbol;
    std::uint64_t time_ns = 0; ///< since 1970 UTC: the first moment of the new symbol
};

/// Section Providers/Mds: the in-process provider. Exactly one of replay and simulation is there.
struct MdsSettings
{
    std::optional<ReplaySettings> replay;
    std::optional<SimulationSettings> simulation;
    std::vector<ImpliedRuleSettings> implied;
    std::vector<RenameSettings> renames;
};

/// Section Providers/Zel: the network provider.
struct ZelSettings
{
    std::string url = "nats://127.0.0.1:4222"; ///< of the message broker; several with commas between them
    std::string user;                          ///< empty: none, or the address says it
    std::string passwordFile;                  ///< its first line is the password
    unsigned connectTimeout_ms = 500;          ///< for one attempt at one broker

    unsigned shards = 0;     ///< that the broker's mapping divides the instruments into; 0: this server serves all
    std::string server;      ///< what the others call this one; empty: host and process
    std::string address;     ///< where its gateway is to be found; empty: the gateway's own
    unsigned lease_ms = 800; ///< a shard's
    unsigned brokers = 1;    ///< that keep the leases
};

/// A token of section Gateway: who shows it may come in.
struct TokenSettings
{
    std::string name;
    std::string file;                 ///< its first line is the token
    std::vector<std::string> markets; ///< names; empty: all
    bool operations = true;           ///< opens the pages of operations
};

/// Section Gateway.
struct GatewaySettings
{
    std::string address = "127.0.0.1";
    std::uint16_t port = 8080; ///< 0: any that is free
    std::string webRoot;       ///< the folder of the built page; empty: the one beside the program
    std::vector<TokenSettings> tokens;
    std::vector<std::string> origins; ///< of pages that may open a session, beside the gateway's own
    std::string tlsCertificate;       ///< PEM file; empty: no TLS
    std::string tlsKey;               ///< PEM file
    unsigned drain_ms = 0;            ///< how long a stop lets clients be after it has stopped being ready
    unsigned maxSessions = 4096;
    unsigned maxSubscriptions = 200;          ///< of one session
    unsigned maxRequestsPerSecond = 100;      ///< of one session or HTTP connection
    unsigned maxHttpRequestsPerSecond = 1000; ///< to /api/ and /metrics, of all
};

/// Everything that the server is told by its configuration file, with the defaults in place. A plain value.
///
/// The attributes of section General are not here: the composite subscription manager reads them itself, from `config`.
/// They have been checked with the rest.
struct ServerConfig
{
    std::shared_ptr<Config> config; ///< what the rest was read from; never null once loaded
    LoggingSettings logging;
    MetricsSettings metrics;
    std::vector<Market> markets; ///< at least one; fit for MarketTable
    std::optional<MdsSettings> mds;
    std::optional<ZelSettings> zel; ///< at least one of mds and zel is there
    std::optional<GatewaySettings> gateway;
    unsigned executorThreads = 2;
};

/// Paths in the file that are not absolute are taken from the folder of the file. Throws ConfigError that lists
/// everything that CheckServerConfig finds.
ServerConfig LoadServerConfig(const std::string& path);

/// What the server runs on without a file: two markets, simulated.
ServerConfig MakeBuiltInServerConfig();

/// The text that MakeBuiltInServerConfig loads; saved as a file it is a configuration to start from.
std::string_view GetBuiltInServerConfigText();

/// Everything that is wrong with the file, by line; empty when the server would start with it. Reads the file and looks
/// whether those that it names are there, and does nothing else.
std::vector<ConfigProblem> CheckServerConfig(const std::string& path);

/// What --check-config prints: a line for each problem, and one that counts them.
std::string DescribeServerConfigCheck(const std::string& path, const std::vector<ConfigProblem>& problems);

} // namespace ps_ns
