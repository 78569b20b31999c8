#include "cycles/replay_server.h"

#include "common/channel_task.h"
#include "composite_price/default_composite_price_factory.h"
#include "config/config.h"
#include "cycles/watched_observers.h"
#include "mds/recording_scan.h"
#include "mds/replay_source.h"
#include "testing/manager_test_access.h"

#include <unistd.h>

#include <barrier>
#include <fstream>
#include <future>
#include <stdexcept>
#include <thread>

namespace ps_ns::cycles
{
namespace
{

constexpr std::size_t kPoolThreads = 2;
constexpr std::size_t kUpdatesInFlight = 128;

std::vector<std::string> GetFiles()
{
    std::vector<std::string> files;
    for (const char* const name : {"bitflyer", "bitmex", "krakenfutures", "poloniex"})
    {
        files.push_back(std::string(PRICE_SERVER_DATA) + "/many_instruments/" + name + ".csv.zst");
    }
    return files;
}

/// Hands a source's messages on and notes how far it is.
class NotingSource final : public IMarketSource
{
public:
    NotingSource(std::unique_ptr<IMarketSource> source, std::shared_ptr<ReplayProgress> progress)
        : m_source(std::move(source))
        , m_progress(std::move(progress))
    {
    }
    void Check() override { m_source->Check(); }
    std::vector<short> GetMarketIds() const override { return m_source->GetMarketIds(); }
    void Open(const std::atomic<bool>& stop) override { m_source->Open(stop); }
    const std::vector<SourceInstrument>& GetInstruments() const override { return m_source->GetInstruments(); }
    std::optional<NextMessage> Peek() override { return m_source->Peek(); }
    bool Next(MarketMessage& message) override
    {
        const bool hasMessage = m_source->Next(message);
        m_progress->messages.fetch_add(hasMessage ? 1 : 0, std::memory_order_relaxed);
        m_progress->epoch.store(message.epoch, std::memory_order_relaxed);
        return hasMessage;
    }

private:
    const std::unique_ptr<IMarketSource> m_source;
    const std::shared_ptr<ReplayProgress> m_progress;
};

template <class Future>
void Await(Future&& future, const char* what)
{
    if (future.wait_for(kDeadline) != std::future_status::ready)
    {
        throw std::runtime_error(std::string("waited in vain for ") + what);
    }
}

} // namespace

double GetResidentMegabytes()
{
    std::ifstream file("/proc/self/statm");
    std::uint64_t all = 0;
    std::uint64_t resident = 0;
    file >> all >> resident;
    constexpr double kBytesPerMegabyte = 1024.0 * 1024.0;
    return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / kBytesPerMegabyte;
}

/// Makes the own observers of flexible clients' subscriptions, and notes with whom each of those begins.
class ReplayServer::Factory final : public LocalObserverFactory
{
public:
    explicit Factory(ReplayServer& server)
        : m_server(server)
    {
    }
    std::shared_ptr<ICompositePriceObserver> CreateLocalObserver(const CompositeInstrumentDef& def) override
    {
        m_server.GetWatch().ExpectQueueThread("CreateLocalObserver");
        const auto decision = m_server.GetSimple().GetProviderType(ProviderFunction::Prices, def.marketId,
                                                                   def.submarketId, def.GetSymbol());
        ++(decision.first == ProviderType::Mds ? m_server.mdsOpened : m_server.zelOpened);
        const auto observer = std::make_shared<WatchedObserver>("own " + def.GetSymbol(), m_server.GetWatch(), m_bell);
        observer->delivery.Ask(static_cast<std::int32_t>(Market::kUsualMaxDepth), true);
        return observer;
    }

private:
    ReplayServer& m_server;
    Bell m_bell; ///< nobody waits for it
};

/// Nothing may be logged as an error, but for changes of symbols that come while one is under way, and direct
/// subscribes of what has a handle.
class ReplayServer::ErrorWatch final : public zel::logging::ISink
{
public:
    void Write(const zel::logging::Record& record) noexcept override
    {
        if (record.text.find("rejecting change") != std::string_view::npos)
        {
            m_rejectedChanges.fetch_add(1);
            return;
        }
        if (record.text.find("rejected as a duplicate") != std::string_view::npos)
        {
            m_refusals.fetch_add(1);
            return;
        }
        try
        {
            if (CallbackWatch* const watch = m_watch.load())
            {
                watch->Fault("logged: " + std::string(record.text));
            }
        }
        catch (...)
        {
            std::terminate(); // out of memory
        }
    }

    std::atomic<CallbackWatch*> m_watch{nullptr};
    std::atomic<std::uint64_t> m_rejectedChanges{0};
    std::atomic<std::uint64_t> m_refusals{0};
};

ReplayServer::ReplayServer(bool skipUnchangedSnapshots)
    : m_oldLogLevel(zel::logging::g_minLogLevel.exchange(30))
    , m_errors(std::make_shared<ErrorWatch>())
    , m_pool(std::make_shared<ThreadPool>(kPoolThreads))
    , m_queue("cycles", {})
    , m_reader(m_queue)
{
    m_oldSink = zel::logging::Logger::SetSink(m_errors);
    const std::atomic<bool> stop{false};
    const MarketTable markets = MakeMarketTable(ScanRecordings(GetFiles(), LogProblems(), stop));
    m_simple = std::make_unique<SimpleSubscriptionMgr>(markets, m_pool, std::make_shared<AsyncDispatcher>("simple"));
    MdsOptions options;
    options.speed = 0;
    options.updatesInFlight = kUpdatesInFlight;
    ReplayOptions replay{GetFiles(), true, true};
    m_mds = std::make_shared<MdsProvider>(
        std::make_unique<NotingSource>(std::make_unique<ReplaySource>(replay, markets), m_progress), options);
    std::vector<short> marketIds;
    for (const Market& market : markets.GetAll())
    {
        marketIds.push_back(market.id);
    }
    m_late = std::make_shared<LateProvider>(marketIds);
    m_simple->AddProvider(m_mds);
    m_simple->AddProvider(m_late);
    m_watch = std::make_unique<CallbackWatch>(&m_queue, FindPoolThreads(), marketIds);
    m_errors->m_watch.store(m_watch.get());
    m_factory = std::make_unique<Factory>(*this);
    m_manager = std::make_unique<CompositeSubscriptionMgr>(m_simple.get());
    const std::string skip = skipUnchangedSnapshots ? "1" : "0";
    m_manager->Init(
        Config::LoadText("<PriceServer><General SkipUnchangedSnapshots=\"" + skip + "\"/></PriceServer>", "cycles"),
        &m_queue, std::make_shared<DefaultCompositePriceFactory>());
}

ReplayServer::~ReplayServer()
{
    Stop();
    zel::logging::Logger::SetSink(m_oldSink);
    zel::logging::g_minLogLevel.store(m_oldLogLevel);
}

/// Tasks that meet each other are on different threads: as many as there are.
std::vector<std::thread::id> ReplayServer::FindPoolThreads()
{
    std::vector<std::thread::id> ids(kPoolThreads);
    std::barrier meet(static_cast<std::ptrdiff_t>(kPoolThreads));
    for (std::thread::id& id : ids)
    {
        m_pool->MakeExecutor()->Post(
            [&]
            {
                id = std::this_thread::get_id();
                meet.arrive_and_wait();
            });
    }
    m_pool->Drain();
    return ids;
}

void ReplayServer::Start()
{
    m_reader.Start();
    m_mds->Start();
    const auto begin = std::chrono::steady_clock::now();
    while (!m_mds->GetDirectory().IsComplete(GetMarketId("POLONIEX")))
    {
        if (std::chrono::steady_clock::now() - begin > kDeadline)
        {
            throw std::runtime_error("the directory is not read");
        }
        std::this_thread::yield();
    }
}

void ReplayServer::Stop()
{
    if (m_manager == nullptr)
    {
        return;
    }
    m_manager->Shutdown();
    m_mds->Stop();
    m_late->Stop();
    m_queue.shutdown();
    m_reader.Stop();
    RunDry(m_queue);
    m_pool->Stop();
    m_manager.reset();
    m_simple.reset();
}

LocalObserverFactory& ReplayServer::GetFactory() noexcept
{
    return *m_factory;
}

std::uint64_t ReplayServer::GetRejectedChanges() const
{
    return m_errors->m_rejectedChanges.load();
}

std::uint64_t ReplayServer::GetRefusals() const
{
    return m_errors->m_refusals.load();
}

void ReplayServer::PostToQueue(std::function<void()> task)
{
    m_queue.insert(new ChannelTask<Task>(std::move(task), "cycles"));
}

void ReplayServer::RunOnQueue(std::function<void()> task)
{
    const auto done = std::make_shared<std::promise<void>>();
    PostToQueue(
        [done, task = std::move(task)]
        {
            task();
            done->set_value();
        });
    Await(done->get_future(), "the queue");
}

void ReplayServer::Fence()
{
    RunOnQueue([] {});
    std::vector<std::future<void>> strands;
    for (const Market& market : m_simple->GetMarkets().GetAll())
    {
        const auto done = std::make_shared<std::promise<void>>();
        strands.push_back(done->get_future());
        m_simple->GetSubscriptionExecutor({market.id, -1})->Post([done] { done->set_value(); });
    }
    for (std::future<void>& strand : strands)
    {
        Await(strand, "an executor");
    }
}

void ReplayServer::Settle()
{
    bool isSettled = false;
    while (!isSettled)
    {
        const std::size_t answers = m_late->AnswerWaiting();
        RunOnQueue([&] { isSettled = m_queue.size() == 0 && answers == 0; });
    }
    Fence();
}

void ReplayServer::CheckPending()
{
    for (const auto& [key, subscriptions] : CompositeSubscriptionMgrTestAccess(*m_manager).PendingProvider())
    {
        const auto [provider, isFinal] =
            m_simple->GetProviderType(ProviderFunction::Prices, key.marketId, key.submarketId, key.symbol);
        if (isFinal && provider == ProviderType::Mds)
        {
            switched += subscriptions.size();
        }
    }
    m_manager->CheckProviderPendingSubscriptions();
}

void ReplayServer::NoteCycles(std::uint64_t count, std::uint64_t allCycles)
{
    constexpr std::uint64_t kSamples = 5;
    const std::uint64_t after = m_cycles.fetch_add(count) + count;
    if (after * kSamples / allCycles != (after - count) * kSamples / allCycles)
    {
        const Sample sample = TakeSample(after);
        const std::lock_guard lock(m_sampleMutex);
        m_samples.push_back(sample);
    }
}

Sample ReplayServer::TakeSample(std::uint64_t cycles)
{
    return {cycles,         GetResidentMegabytes(), m_simple->GetRegistry().GetSize(), m_watch->observers.load(),
            m_queue.size(), m_mds->GetInFlight(),   m_late->GetListenerCount()};
}

} // namespace ps_ns::cycles
