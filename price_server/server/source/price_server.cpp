#include "server/price_server.h"

#include "common/channel_task.h"
#include "common/tick_clock.h"
#include "composite_price/default_composite_price_factory.h"
#include "mds/mds_provider.h"
#include "server/gateway_wiring.h"
#include "server/mds_wiring.h"
#include "server/pending_check.h"
#include "server/price_gate.h"
#include "server/process_metrics.h"
#include "server/queue_probe.h"
#include "server/rename_relay.h"
#include "server/server_metrics.h"
#include "server/shard_metrics.h"
#include "server/zel_wiring.h"

#include <algorithm>
#include <chrono>
#include <future>
#include <stdexcept>
#include <thread>
#include <utility>

namespace ps_ns
{
namespace
{

constexpr short kAnySubmarket = -1;

/// True when every market that the directory can know has been read.
bool IsWhole(const InstrumentDirectory& directory, const MarketTable& markets)
{
    const auto& all = markets.GetAll();
    return std::all_of(all.begin(), all.end(),
                       [&](const Market& market)
                       { return !directory.CanKnow(market.id) || directory.IsComplete(market.id); });
}

} // namespace

PriceServer::PriceServer(ServerConfig config, PriceServerOptions options)
    : m_config(std::move(config))
    , m_options(std::move(options))
    , m_markets(m_config.markets)
{
}

PriceServer::~PriceServer()
{
    Stop();
}

void PriceServer::Start()
{
    TickClock::Get(); // which takes a millisecond: not when the first prices come
    try
    {
        StartAll();
    }
    catch (...)
    {
        Stop();
        throw;
    }
}

void PriceServer::StartAll()
{
    if (!m_config.zel && !m_config.mds)
    {
        throw std::runtime_error("there is no provider: there would be no prices");
    }
    m_logging = std::make_unique<LoggingSetup>(m_config.logging, m_options.logSink);
    m_executors = std::make_shared<ThreadPool>(m_config.executorThreads);
    m_timers = std::make_shared<AsyncDispatcher>("SimpleSubscriptionMgr");
    m_simple = std::make_unique<SimpleSubscriptionMgr>(m_markets, m_executors, m_timers);
    MakeQueue();
    MakeProviders();
    StartManager();
    StartProviders();
    StartProbe();
    m_clients.Open();
    StartGateway();
    StartShards();
    m_isReady = true;
}

void PriceServer::MakeQueue()
{
    if (m_config.metrics.enabled)
    {
        m_gauges.Create(0,
                        {"data_queue_depth", "number of tasks waiting in a data queue", {{"queue", "price_server"}}});
    }
    m_queue = std::make_unique<Queue>("price_server", m_gauges[0]);
    m_reader = std::make_unique<QueueReader<>>(*m_queue);
}

void PriceServer::MakeProviders()
{
    m_priceGate = std::make_shared<PriceGate>();
    // The feeds, which rename, start after the relay has been made, and end before it is gone.
    if (m_config.mds)
    {
        m_mds = MakeMdsProvider(*m_config.mds, m_markets, m_options.alignsStarts, m_priceGate,
                                [this](const auto& renames, const auto& make) { m_renameRelay->Run(renames, make); });
        m_simple->AddProvider(m_mds);
    }
    if (m_config.zel)
    {
        m_zel = MakeZelProvider(
            *m_config.zel, m_markets, [this](const auto& renames, const auto& make) { RenameOfZel(renames, make); },
            [this](std::uint32_t shard) { return IsServedElsewhere(shard); });
        m_simple->AddProvider(m_zel);
    }
}

/// A symbol that the in-process provider has is served by that one: the other's rename of it concerns nobody.
void PriceServer::RenameOfZel(const std::vector<SymbolRename>& renames, const std::function<void()>& make)
{
    std::vector<SymbolRename> served;
    std::copy_if(renames.begin(), renames.end(), std::back_inserter(served),
                 [&](const SymbolRename& rename) {
                     return m_mds == nullptr ||
                            !m_mds->GetDirectory().Find(rename.marketId, kAnySubmarket, rename.oldSymbol);
                 });
    if (served.empty())
    {
        make();
        return;
    }
    m_renameRelay->Run(served, make);
}

void PriceServer::StartManager()
{
    m_manager = std::make_unique<CompositeSubscriptionMgr>(m_simple.get());
    m_manager->Init(m_config.config, m_queue.get(), std::make_shared<DefaultCompositePriceFactory>());
    m_reader->Start();
    m_readerRuns = true;
    m_manager->Start();
    m_pendingCheck = std::make_unique<PendingCheck>(*m_manager, *m_queue);
    m_pendingCheck->Start();
    m_renameRelay = std::make_unique<RenameRelay>(*m_manager, *m_queue, m_clients, [this] { m_executors->Drain(); });
}

void PriceServer::StartProviders()
{
    if (!m_options.holdsPrices)
    {
        m_priceGate->Open();
    }
    if (m_mds != nullptr)
    {
        m_mds->Start();
    }
    if (m_zel != nullptr)
    {
        m_zel->Start();
    }
}

void PriceServer::StartProbe()
{
    m_probe = std::make_unique<QueueProbe>(*m_queue, m_timers, m_options.onQueueAlive);
    m_probe->Start();
}

void PriceServer::StartGateway()
{
    if (!m_config.gateway)
    {
        return;
    }
    gateway::GatewayOptions options = MakeGatewayOptions(*m_config.gateway);
    options.takesAnyPort = m_options.takesAnyPort;
    if (m_config.metrics.enabled)
    {
        options.metrics = {MakeServerMetrics({*m_queue, *m_probe, *m_manager, m_mds.get(), m_zel.get(), m_markets,
                                              *m_logging, [this] { return IsReady(); }})};
        options.metrics.push_back(MakeProcessMetrics());
        options.metrics.push_back(MakeShardMetrics([this] { return GetShardView(); }));
    }
    gateway::IBackend& backend = *this;
    m_gateway = std::make_unique<gateway::Gateway>(std::move(options), backend);
    m_gateway->Start();
}

// The order is what makes the raw pointers between the parts safe: docs/life-cycles.md.
void PriceServer::Stop()
{
    Drain();
    if (m_shards != nullptr)
    {
        m_shards->Stop(); // others take over while the sessions end
    }
    if (m_gateway != nullptr)
    {
        m_gateway->Stop(); // its sessions give their subscriptions back
    }
    m_clients.Close();
    if (m_manager != nullptr)
    {
        m_manager->Shutdown();
    }
    if (m_mds != nullptr)
    {
        m_priceGate->Abandon(); // a feed that waits for its clients would not hear that it is to stop
        m_mds->Stop();
    }
    if (m_zel != nullptr)
    {
        m_zel->Stop();
    }
    if (m_queue != nullptr)
    {
        RunQueueDry();
        StopQueue();
    }
    StopExecutors();
    m_renameRelay.reset();
    m_gateway.reset(); // what it asked of the queue has run, or is gone
    m_shardsSeen = nullptr;
    m_shards.reset();
    m_probe.reset(); // neither a timer nor the queue calls it any more
    m_pendingCheck.reset();
    m_manager.reset();
    m_mds.reset();
    m_zel.reset();
    m_simple.reset();
    m_reader.reset();
    m_queue.reset();
    m_timers.reset();
    m_executors.reset();
    m_logging.reset();
}

void PriceServer::Drain()
{
    BeginDrain();
    if (m_isReady.exchange(false) && m_gateway != nullptr)
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(m_config.gateway->drain_ms));
    }
}

/// Returns when what was queued, and what that has posted, has run.
void PriceServer::RunQueueDry()
{
    while (m_readerRuns)
    {
        const auto isDry = std::make_shared<std::promise<bool>>();
        m_queue->insert(
            new ChannelTask<Task>([this, isDry] { isDry->set_value(m_queue->size() == 0); }, "RunQueueDry"));
        if (isDry->get_future().get())
        {
            return; // nothing was behind it
        }
    }
}

void PriceServer::StopQueue()
{
    m_queue->shutdown();
    m_reader->Stop(); // runs what came in between, and joins
    m_readerRuns = false;
    RunDry(*m_queue); // there is no other reader now; a reader that never ran has left everything
}

void PriceServer::StopExecutors()
{
    if (m_timers != nullptr)
    {
        m_timers->Shutdown();
    }
    if (m_executors != nullptr)
    {
        m_executors->Stop();
    }
}

bool PriceServer::IsDirectoryComplete() const
{
    if (m_mds != nullptr)
    {
        return IsWhole(m_mds->GetDirectory(), m_markets); // prices are there, whatever becomes of the broker
    }
    const auto& markets = m_markets.GetAll();
    return std::any_of(markets.begin(), markets.end(),
                       [&](const Market& market) { return m_zel->GetDirectory().IsComplete(market.id); });
}

std::vector<DirectoryEntry> PriceServer::GetDirectoryEntries() const
{
    std::vector<DirectoryEntry> entries;
    if (m_mds != nullptr)
    {
        entries = m_mds->GetDirectory().GetEntries();
    }
    if (m_zel != nullptr)
    {
        for (DirectoryEntry& entry : m_zel->GetDirectory().GetEntries())
        {
            if (m_mds == nullptr || !m_mds->GetDirectory().Find(entry.submarket.marketId, kAnySubmarket, entry.symbol))
            {
                entries.push_back(std::move(entry));
            }
        }
    }
    return entries;
}

gateway::DirectoryVersion PriceServer::GetDirectoryVersion() const
{
    gateway::DirectoryVersion version;
    const auto add = [&](const InstrumentDirectory& directory)
    {
        version.entries += directory.GetVersion();
        version.changes += directory.GetChangeCount();
    };
    if (m_mds != nullptr)
    {
        add(m_mds->GetDirectory());
    }
    if (m_zel != nullptr)
    {
        add(m_zel->GetDirectory());
    }
    return version;
}

std::vector<gateway::ProviderView> PriceServer::GetProviders() const
{
    std::vector<gateway::ProviderView> views;
    if (m_mds != nullptr)
    {
        const char* const state = m_mds->HasFailed()                          ? "failed"
                                  : m_mds->HasEnded()                         ? "ended"
                                  : IsWhole(m_mds->GetDirectory(), m_markets) ? "serving"
                                                                              : "reading";
        views.push_back({"mds", state, m_mds->GetDirectory().GetSize()});
    }
    if (m_zel != nullptr)
    {
        const ZelState state = m_zel->GetState();
        views.push_back({"zel",
                         state == ZelState::Starting  ? "reading"
                         : state == ZelState::Running ? "serving"
                                                      : "lost",
                         m_zel->GetDirectory().GetSize()});
    }
    return views;
}

std::string PriceServer::GetUrl() const
{
    return m_gateway == nullptr ? "" : m_gateway->GetUrl();
}

bool PriceServer::TryRequest(const std::function<void(CompositeSubscriptionMgr&)>& request)
{
    return m_clients.Pass([&] { request(*m_manager); });
}

bool PriceServer::RunOnQueue(std::function<void(CompositeSubscriptionMgr&, SimpleSubscriptionMgr&)> task)
{
    return m_clients.Pass(
        [&]
        {
            m_queue->insert(
                new ChannelTask<Task>([this, task = std::move(task)] { task(*m_manager, *m_simple); }, "gateway"));
        });
}

bool PriceServer::IsReady() const
{
    return m_isReady && !m_isDraining && IsDirectoryComplete();
}

void PriceServer::ReleasePrices()
{
    m_priceGate->Open();
}

bool PriceServer::HasEnded() const
{
    return m_mds != nullptr && m_zel == nullptr && m_mds->HasEnded();
}

bool PriceServer::HasFailed() const
{
    return m_mds != nullptr && m_mds->HasFailed();
}

std::uint64_t PriceServer::GetBrokerMessageCount() const
{
    return m_zel == nullptr ? 0 : m_zel->GetCounts().messages;
}

void PriceServer::DrainExecutors()
{
    m_executors->Drain();
}

} // namespace ps_ns
