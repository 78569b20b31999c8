#pragma once

#include "async/thread_pool.h"
#include "common/queue_reader.h"
#include "gateway/gateway.h"
#include "metrics/metrics.h"
#include "price_unifier/source/composite_subscription_mgr.h"
#include "server/client_gate.h"
#include "server/logging_setup.h"
#include "server/server_config.h"
#include "simple_subscription/simple_subscription_mgr.h"

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace ps_ns
{

class MdsProvider;
class PendingCheck;
class PriceGate;
class QueueProbe;
class RenameRelay;
class ShardService;
class ZelProvider;
struct ShardView;
struct SymbolRename;

/// What the one who runs a server decides beside its configuration.
struct PriceServerOptions
{
    std::shared_ptr<zel::logging::ISink> logSink; ///< instead of what the settings say; may be null
    bool alignsStarts = false;                    ///< files recorded at different times play as if begun together
    /// When the gateway's port is taken, any other will do.
    bool takesAnyPort = false;
    bool holdsPrices = false; ///< no message is played before ReleasePrices
    /// Called on the data-queue thread several times a second, for as long as that thread gets its work done.
    std::function<void()> onQueueAlive;
};

/// The server: owns every part of it, starts them, and stops them in the one order that is safe.
///
/// Threads: Start and Stop are the owner's and overlap nothing; TryRequest may be called from any thread at any time,
/// also before Start and after Stop.
///
/// Failure: Start throws std::runtime_error when the server cannot run as configured, and leaves nothing running.
class PriceServer final : private gateway::IBackend
{
public:
    explicit PriceServer(ServerConfig config, PriceServerOptions options = {});
    /// Stops.
    ~PriceServer() override;
    PriceServer(const PriceServer&) = delete;
    PriceServer& operator=(const PriceServer&) = delete;

    /// Once.
    void Start();

    /// From now on the server says that it is not ready, and serves on: those who send it clients have time to notice.
    /// From any thread, also before Start.
    void BeginDrain() noexcept { m_isDraining = true; }

    /// Drains for as long as the settings of the gateway say, then stops. Idempotent. Observers hear nothing more once
    /// it has returned.
    void Stop();

    /// Calls `request` with the manager; false: the server does not run, and nothing was called. Requests are not
    /// nested.
    template <class Request>
    bool TryRequest(Request&& request)
    {
        return m_clients.Pass([&] { std::forward<Request>(request)(*m_manager); });
    }

    const MarketTable& GetMarkets() const noexcept override { return m_markets; }

    // The rest is for the owner, between Start and Stop.

    /// The in-process provider knows all its instruments; without it: those of one market have come by way of the
    /// broker. A market that nobody publishes holds up nobody.
    bool IsDirectoryComplete() const;
    /// Their instruments so far.
    std::vector<DirectoryEntry> GetDirectoryEntries() const override;
    /// Where the page is; empty: there is no gateway.
    std::string GetUrl() const;
    void ReleasePrices();
    /// No more prices will come: the recording is over, or the feed has failed. Never with a broker.
    bool HasEnded() const;
    /// The in-process feed has ended because it has failed, or its data was damaged.
    bool HasFailed() const;
    /// Returns when everything that the providers have delivered so far has reached the observers.
    void DrainExecutors();
    /// Price messages that the network provider has taken of instruments that somebody has subscribed; 0 without one.
    std::uint64_t GetBrokerMessageCount() const;

private:
    using Queue = DataQueue<DataMsgTask>;

    bool TryRequest(const std::function<void(CompositeSubscriptionMgr&)>& request) override;
    bool RunOnQueue(std::function<void(CompositeSubscriptionMgr&, SimpleSubscriptionMgr&)> task) override;
    bool IsReady() const override;
    gateway::DirectoryVersion GetDirectoryVersion() const override;
    std::vector<gateway::ProviderView> GetProviders() const override;
    std::optional<gateway::ShardsView> GetShards() const override;
    std::optional<gateway::ShardPlace> FindShard(const DirectoryEntry& entry) const override;

    void StartAll();
    void MakeQueue();
    void MakeProviders();
    void RenameOfZel(const std::vector<SymbolRename>& renames, const std::function<void()>& make);
    void StartManager();
    void StartProviders();
    void StartProbe();
    void StartGateway();
    void StartShards();
    bool IsServedElsewhere(std::uint32_t shard) const;
    std::optional<ShardView> GetShardView() const;
    void Drain();
    void RunQueueDry();
    void StopQueue();
    void StopExecutors();

    // All are the owner's; a stopped server has null pointers.
    const ServerConfig m_config;
    const PriceServerOptions m_options;
    const MarketTable m_markets;
    ClientGate m_clients;
    bool m_readerRuns = false;
    zel::metrics::Store<zel::metrics::Gauge, 1> m_gauges;
    std::unique_ptr<LoggingSetup> m_logging;
    std::shared_ptr<ThreadPool> m_executors;
    std::shared_ptr<AsyncDispatcher> m_timers;
    std::shared_ptr<PriceGate> m_priceGate;
    std::shared_ptr<MdsProvider> m_mds; ///< null when there is none, and once stopped; as the next one
    std::shared_ptr<ZelProvider> m_zel;
    std::unique_ptr<Queue> m_queue;
    std::unique_ptr<SimpleSubscriptionMgr> m_simple;
    std::unique_ptr<CompositeSubscriptionMgr> m_manager;
    std::unique_ptr<PendingCheck> m_pendingCheck;
    std::unique_ptr<RenameRelay> m_renameRelay; ///< also the feed thread's, while it runs
    std::unique_ptr<QueueReader<>> m_reader;
    std::unique_ptr<QueueProbe> m_probe;
    std::unique_ptr<gateway::Gateway> m_gateway;
    std::unique_ptr<ShardService> m_shards;                 ///< null: all instruments are served; as the next one
    std::atomic<const ShardService*> m_shardsSeen{nullptr}; ///< the same, for all threads
    std::atomic<bool> m_isReady{false};                     ///< the gateway asks
    std::atomic<bool> m_isDraining{false};
};

} // namespace ps_ns
