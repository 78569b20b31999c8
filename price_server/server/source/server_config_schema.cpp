#include "server_config_schema.h"

#include <limits>
#include <string>
#include <utility>

namespace ps_ns
{
namespace
{

constexpr std::uint64_t kMaxUnsigned = std::numeric_limits<unsigned>::max();
constexpr std::size_t kMaxNameLength = 64;
constexpr std::size_t kMaxUrlLength = 1024;

AttributeRule Optional(std::string name, ValueRule value)
{
    return {std::move(name), std::move(value), false};
}
AttributeRule Required(std::string name, ValueRule value)
{
    return {std::move(name), std::move(value), true};
}
AttributeRule RequiredName(std::string name)
{
    return Required(std::move(name), ValueRule::Text(1, kMaxNameLength));
}
AttributeRule OptionalName(std::string name)
{
    return Optional(std::move(name), ValueRule::Text(1, kMaxNameLength));
}

ElementRule MarketsRule()
{
    constexpr std::uint64_t kMaxDepth = 100'000;
    constexpr std::uint64_t kHour_ms = 3'600'000;
    const ElementRule market{.name = "Market",
                             .attributes = {Required("id", ValueRule::Unsigned(0, std::numeric_limits<short>::max())),
                                            RequiredName("name"),
                                            Optional("defaultDepth", ValueRule::Unsigned(1, kMaxDepth)),
                                            Optional("maxDepth", ValueRule::Unsigned(1, kMaxDepth)),
                                            Optional("emptySuppressInterval_ms", ValueRule::Unsigned(0, kHour_ms))},
                             .required = true,
                             .maxCount = 1000};
    return {.name = "Markets", .children = {market}, .required = true};
}

ElementRule ImpliedRuleRule()
{
    constexpr std::size_t kMaxRules = 1000;
    return {.name = "Implied",
            .children = {{.name = "Cross",
                          .attributes = {RequiredName("market"), RequiredName("symbol"), RequiredName("numerator"),
                                         RequiredName("denominator")},
                          .maxCount = kMaxRules},
                         {.name = "OutrightFromSpread",
                          .attributes = {RequiredName("market"), RequiredName("symbol"), RequiredName("spread"),
                                         OptionalName("far"), OptionalName("near")},
                          .maxCount = kMaxRules},
                         {.name = "SpreadFromOutrights",
                          .attributes = {RequiredName("market"), RequiredName("symbol"), RequiredName("far"),
                                         RequiredName("near")},
                          .maxCount = kMaxRules}}};
}

ElementRule RenamesRule()
{
    const ElementRule file{.name = "File",
                           .attributes = {Required("path", ValueRule::FilePath()), OptionalName("market")},
                           .maxCount = kMaxRenamesFiles};
    const ElementRule rename{.name = "Rename",
                             .attributes = {OptionalName("market"), RequiredName("oldSymbol"),
                                            RequiredName("newSymbol"), Optional("lastDay", ValueRule::Text(1, 64)),
                                            Optional("time", ValueRule::Text(1, 64))},
                             .maxCount = 1000};
    return {.name = "Renames", .children = {file, rename}};
}

ElementRule ProvidersRule()
{
    const ElementRule file{.name = "File",
                           .attributes = {Required("path", ValueRule::FilePath())},
                           .required = true,
                           .maxCount = kMaxReplayFiles};
    const ElementRule replay{
        .name = "Replay",
        .attributes = {Optional("speed", ValueRule::Decimal(0, 1'000'000)), Optional("loop", ValueRule::Boolean())},
        .children = {file}};
    const ElementRule simulation{
        .name = "Simulation",
        .attributes = {Optional("seed", ValueRule::Unsigned(0, std::numeric_limits<std::uint64_t>::max())),
                       Optional("updatesPerSecond", ValueRule::Unsigned(1, 1'000'000))}};
    const ElementRule mds{.name = "Mds", .children = {replay, simulation, ImpliedRuleRule(), RenamesRule()}};
    constexpr std::uint64_t kMostConnect_ms = 5000; // a stop waits for it
    constexpr std::uint64_t kMinute_ms = 60'000;
    constexpr std::uint64_t kMostShards = 1000;
    const ElementRule zel{.name = "Zel",
                          .attributes = {Optional("url", ValueRule::Text(1, kMaxUrlLength)), OptionalName("user"),
                                         Optional("passwordFile", ValueRule::FilePath()),
                                         Optional("connectTimeout_ms", ValueRule::Unsigned(10, kMostConnect_ms)),
                                         Optional("shards", ValueRule::Unsigned(1, kMostShards)),
                                         OptionalName("server"), Optional("address", ValueRule::Text(1, kMaxUrlLength)),
                                         Optional("lease_ms", ValueRule::Unsigned(200, kMinute_ms)),
                                         Optional("brokers", ValueRule::OneOf({"1", "3", "5"}))}};
    return {.name = "Providers", .children = {mds, zel}, .required = true};
}

ElementRule GatewayRule()
{
    constexpr std::size_t kMaxTokens = 1000;
    constexpr std::uint64_t kMillion = 1'000'000;
    constexpr std::uint64_t kMostDrain_ms = 600'000;
    const ElementRule token{.name = "Token",
                            .attributes = {RequiredName("name"), Required("file", ValueRule::FilePath()),
                                           Optional("markets", ValueRule::Text(1, 4095)),
                                           Optional("operations", ValueRule::Boolean())},
                            .maxCount = kMaxTokens};
    const ElementRule origin{
        .name = "Origin", .attributes = {Required("url", ValueRule::Text(1, kMaxUrlLength))}, .maxCount = kMaxTokens};
    const ElementRule tls{
        .name = "Tls",
        .attributes = {Required("certificate", ValueRule::FilePath()), Required("key", ValueRule::FilePath())}};
    const ElementRule limits{.name = "Limits",
                             .attributes = {Optional("sessions", ValueRule::Unsigned(1, kMillion)),
                                            Optional("subscriptions", ValueRule::Unsigned(1, kMillion)),
                                            Optional("requestsPerSecond", ValueRule::Unsigned(1, kMillion)),
                                            Optional("httpRequestsPerSecond", ValueRule::Unsigned(1, kMillion))}};
    return {.name = "Gateway",
            .attributes = {Optional("address", ValueRule::Text(1, 255)),
                           Optional("port", ValueRule::Unsigned(0, 65535)), Optional("webRoot", ValueRule::FilePath()),
                           Optional("drain_ms", ValueRule::Unsigned(0, kMostDrain_ms))},
            .children = {token, origin, tls, limits}};
}

} // namespace

const ConfigSchema& GetServerConfigSchema()
{
    static const ConfigSchema kSchema(ElementRule{
        .name = "PriceServer",
        .children = {
            {.name = "General",
             .attributes = {Optional("SkipUnchangedSnapshots", ValueRule::Boolean()),
                            Optional("InstrumentMonitoringInterval_sec", ValueRule::Unsigned(0, kMaxUnsigned))}},
            {.name = "Logging",
             .attributes = {Optional("level", ValueRule::Unsigned(0, 100)),
                            Optional("format", ValueRule::OneOf({"text", "json"})),
                            Optional("file", ValueRule::Text(0, 4095)),
                            Optional("queue", ValueRule::Unsigned(1, 1'048'576))}},
            {.name = "Metrics", .attributes = {Optional("enabled", ValueRule::Boolean())}},
            {.name = "Threads", .attributes = {Optional("executors", ValueRule::Unsigned(1, 64))}},
            MarketsRule(),
            ProvidersRule(),
            GatewayRule()}});
    return kSchema;
}

} // namespace ps_ns
