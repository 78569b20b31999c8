#pragma once

#include "simple_subscription/instrument_directory.h"
#include "simple_subscription/market_table.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace ps_ns
{
class CompositeSubscriptionMgr;
class SimpleSubscriptionMgr;
} // namespace ps_ns

namespace ps_ns::gateway
{

/// How a source of prices is.
struct ProviderView
{
    std::string name;  ///< "mds", "zel"
    std::string state; ///< "reading" its directory, "serving", "lost" its feed, "ended", "failed"
    std::size_t instruments = 0;
};

/// A server among those that share the instruments.
struct ServerPlace
{
    std::string server;  ///< its name
    std::string address; ///< of its gateway; empty: it has told none
    std::vector<std::uint32_t> shards;
};

/// How the instruments are divided among servers.
struct ShardsView
{
    std::uint32_t count = 0;          ///< shards in all
    std::vector<ServerPlace> servers; ///< that are heard, this one first
};

/// Where an instrument is served.
struct ShardPlace
{
    std::uint32_t shard = 0;
    bool isHere = false;
    std::optional<ServerPlace> server; ///< nothing: nobody, just now
};

/// Which instruments there were, and what they were called.
struct DirectoryVersion
{
    std::uint64_t entries = 0; ///< another one with each addition, change and rename
    std::uint64_t changes = 0; ///< another one when what was there has changed, or is called something else

    friend bool operator==(const DirectoryVersion&, const DirectoryVersion&) = default;
};

/// The server that a gateway stands in, as the gateway sees it.
///
/// Threads: any.
class IBackend
{
public:
    virtual ~IBackend() = default;

    /// Calls `request` with the manager; false: the server does not take requests just now, and nothing was called.
    virtual bool TryRequest(const std::function<void(CompositeSubscriptionMgr&)>& request) = 0;

    /// Runs `task` on the data-queue thread, where the composite subscriptions may be read; false: it will not run. A
    /// task that was taken may still be dropped when the server stops.
    virtual bool RunOnQueue(std::function<void(CompositeSubscriptionMgr&, SimpleSubscriptionMgr&)> task) = 0;

    virtual const MarketTable& GetMarkets() const = 0;
    /// The instruments that the providers know so far.
    virtual std::vector<DirectoryEntry> GetDirectoryEntries() const = 0;
    /// Read before those.
    virtual DirectoryVersion GetDirectoryVersion() const = 0;
    virtual std::vector<ProviderView> GetProviders() const = 0;
    /// Nothing: this server serves all its instruments; as the next one.
    virtual std::optional<ShardsView> GetShards() const { return std::nullopt; }
    virtual std::optional<ShardPlace> FindShard(const DirectoryEntry&) const { return std::nullopt; }
    /// True between the moment when all providers know their instruments and the beginning of the stop.
    virtual bool IsReady() const = 0;
};

} // namespace ps_ns::gateway
