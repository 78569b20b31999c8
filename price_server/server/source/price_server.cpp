#include "server/price_server.h"

#include "common/channel_task.h"
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

#include <algorithm>
#include <chrono>
#include <future>
#include <stdexcept>
#include <thread>
#include <utility>

namespace ps_ns
{

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
    if (m_config.zel || !m_config.mds)
    {
        throw std::runtime_error("<Providers> asks for <Zel>, which this version of the server does not have");
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
    // The feed, which renames, starts after the relay has been made, and ends before it is gone.
    m_mds = MakeMdsProvider(*m_config.mds, m_markets, m_options.alignsStarts, m_priceGate,
                            [this](const auto& renames, const auto& make) { m_renameRelay->Run(renames, make); });
    m_simple->AddProvider(m_mds);
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
    m_mds->Start();
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
        options.metrics = {MakeServerMetrics(
            {*m_queue, *m_probe, *m_manager, *m_mds, m_markets, *m_logging, [this] { return IsReady(); }})};
        options.metrics.push_back(MakeProcessMetrics());
    }
    gateway::IBackend& backend = *this;
    m_gateway = std::make_unique<gateway::Gateway>(std::move(options), backend);
    m_gateway->Start();
}

// The order is what makes the raw pointers between the parts safe: docs/life-cycles.md.
void PriceServer::Stop()
{
    Drain();
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
    if (m_queue != nullptr)
    {
        RunQueueDry();
        StopQueue();
    }
    StopExecutors();
    m_renameRelay.reset();
    m_gateway.reset(); // what it asked of the queue has run, or is gone
    m_probe.reset();   // neither a timer nor the queue calls it any more
    m_pendingCheck.reset();
    m_manager.reset();
    m_mds.reset();
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
        const auto hasRun = std::make_shared<std::promise<void>>();
        m_queue->insert(new ChannelTask<Task>([hasRun] { hasRun->set_value(); }, "RunQueueDry"));
        hasRun->get_future().wait();
        if (m_queue->size() == 0)
        {
            return;
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
    const auto& markets = m_markets.GetAll();
    const InstrumentDirectory& directory = m_mds->GetDirectory();
    return std::all_of(markets.begin(), markets.end(),
                       [&](const Market& market)
                       { return !directory.CanKnow(market.id) || directory.IsComplete(market.id); });
}

std::vector<DirectoryEntry> PriceServer::GetDirectoryEntries() const
{
    return m_mds->GetDirectory().GetEntries();
}

std::uint64_t PriceServer::GetDirectoryVersion() const
{
    return m_mds->GetDirectory().GetVersion();
}

std::vector<gateway::ProviderView> PriceServer::GetProviders() const
{
    const char* const state = m_mds->HasFailed()      ? "failed"
                              : m_mds->HasEnded()     ? "ended"
                              : IsDirectoryComplete() ? "serving"
                                                      : "reading";
    return {{"mds", state, m_mds->GetDirectory().GetSize()}};
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
    return m_mds->HasEnded();
}

bool PriceServer::HasFailed() const
{
    return m_mds->HasFailed();
}

void PriceServer::DrainExecutors()
{
    m_executors->Drain();
}

} // namespace ps_ns
