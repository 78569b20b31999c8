#pragma once

#include "simple_subscription/instrument_directory.h"
#include "simple_subscription/market_table.h"

#include <cstddef>
#include <cstdint>
#include <functional>
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
    /// True between the moment when all providers know their instruments and the beginning of the stop.
    virtual bool IsReady() const = 0;
};

} // namespace ps_ns::gateway
