#include "broker/flow_history.h"
#include "broker/late_mds.h"
#include "broker/soak.h"

#include "async/thread_pool.h"
#include "common/channel_task.h"
#include "common/queue_reader.h"
#include "composite_price/default_composite_price_factory.h"
#include "config/config.h"
#include "price_unifier/source/composite_subscription_mgr.h"
#include "server/pending_check.h"
#include "simple_subscription/simple_subscription_mgr.h"
#include "zel/zel_provider.h"

#include <atomic>
#include <cstdio>
#include <future>
#include <mutex>
#include <thread>

namespace ps_ns::broker_soak
{
namespace
{

using Clock = std::chrono::steady_clock;
constexpr auto kPatience = std::chrono::seconds(30);
constexpr std::size_t kBatch = 25;     // switches between two comparisons
constexpr std::uint64_t kBetween = 40; // messages between two switches

/// A manager over ZEL, by way of the broker, and an in-process provider that lists its instruments late.
class SwitchingServer
{
public:
    explicit SwitchingServer(const SoakOptions& options)
        : m_history(options.instruments)
        , m_late(std::make_shared<LateMds>(std::vector<SourceInstrument>(options.instruments)))
        , m_flow({m_broker.GetUrl(), options.instruments, options.rate, options.seed,
                  [this](const MarketMessage& message)
                  {
                      m_history.Take(message);
                      m_late->Take(message);
                  }})
        , m_pool(std::make_shared<ThreadPool>(2))
        , m_timers(std::make_shared<AsyncDispatcher>("switches"))
        , m_simple(std::make_unique<SimpleSubscriptionMgr>(MarketTable({{kMarketId, kMarket}}), m_pool, m_timers))
        , m_queue("switches", zel::metrics::Gauge())
        , m_reader(m_queue)
    {
        NatsOptions nats;
        nats.url = m_broker.GetUrl();
        ZelOptions zel;
        zel.markets = {{kMarketId, kMarket}};
        m_zel = std::make_shared<ZelProvider>(std::make_unique<NatsTransport>(nats), std::move(zel));
        m_simple->AddProvider(m_late);
        m_simple->AddProvider(m_zel);
        m_manager = std::make_unique<CompositeSubscriptionMgr>(m_simple.get());
        m_manager->Init(Config::LoadText("<PriceServer/>", "test"), &m_queue,
                        std::make_shared<DefaultCompositePriceFactory>());
        m_reader.Start();
        m_manager->Start();
        m_pendingCheck = std::make_unique<PendingCheck>(*m_manager, m_queue);
        m_pendingCheck->Start();
        m_zel->Start();
    }
    ~SwitchingServer()
    {
        m_manager->Shutdown();
        m_zel->Stop();
        m_late->Stop();
        RunOnQueue([] {});
        RunOnQueue([] {});
        m_queue.shutdown();
        m_reader.Stop();
        m_timers->Shutdown();
        m_pool->Stop();
        m_pendingCheck.reset();
        m_manager.reset();
        m_simple.reset();
    }

    /// Behind everything that was requested.
    void RunOnQueue(std::function<void()> task)
    {
        std::promise<void> hasRun;
        m_queue.insert(new ChannelTask<Task>(
            [&]
            {
                task();
                hasRun.set_value();
            },
            "test"));
        hasRun.get_future().wait();
    }

    /// Before the directory of either provider is there: all of them are undecided.
    void SubscribeAll()
    {
        for (std::size_t i = 0; i < m_flow.GetInstruments().size(); ++i)
        {
            m_clients.push_back(std::make_shared<BookClient>());
            m_clients.back()->onBook = [this, i](const MergedOrderBook& book) { Check(i, book); };
            m_manager->Subscribe(MakeFlowDefinition(i), MakeWholeScope(), m_factory, m_clients.back(), 1);
        }
        RunOnQueue([] {});
    }
    /// The timer of the server finds it, some time later.
    void Switch(std::size_t instrument) { m_late->List(instrument); }
    bool WaitForSwitches(std::size_t count)
    {
        const auto deadline = Clock::now() + kPatience;
        while (m_manager->GetSubscriptionCounts().second != count && Clock::now() < deadline)
        {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        return m_manager->GetSubscriptionCounts().second == count;
    }
    /// From now on every book that is delivered must be one that the flow has had, whole and fresh. Stale ones may come
    /// when the feed was lost, as on a machine that lets the publisher wait too long; a switch makes none.
    void CheckEveryBook()
    {
        m_lossesBefore = m_zel->GetCounts().losses + m_zel->GetCounts().gaps;
        m_isChecking.store(true);
    }
    void ReportBooks(Verdict& verdict)
    {
        const std::lock_guard lock(m_mutex);
        const std::uint64_t losses = m_zel->GetCounts().losses + m_zel->GetCounts().gaps - m_lossesBefore;
        std::printf(
            "%llu books were compared with the flow's at their time, %zu of them were wrong; %llu were stale, and "
            "the feed was lost %llu times; the machine's load is %.1f\n",
            static_cast<unsigned long long>(m_checked.load()), m_bad.size(),
            static_cast<unsigned long long>(m_stale.load()), static_cast<unsigned long long>(losses), GetLoad());
        if (m_stale.load() != 0 && losses == 0)
        {
            verdict.Fail("books were stale though the feed was there");
        }
        for (const std::string& text : m_bad)
        {
            verdict.Fail(text);
        }
        if (m_checked.load() == 0)
        {
            verdict.Fail("no book has been compared");
        }
    }
    bool WaitUntilBooksAreEqual(std::string& difference)
    {
        const auto deadline = Clock::now() + kPatience;
        m_flow.Pause();
        bool areEqual = false;
        while (!(areEqual = AreEqual(m_flow, m_clients, difference)) && Clock::now() < deadline)
        {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        m_flow.Resume();
        return areEqual;
    }
    /// Subscriptions with ZEL and with MDS, and undecided symbols.
    void CheckGauges(std::size_t zel, std::size_t mds, std::size_t pending, Verdict& verdict)
    {
        const auto [zelSeen, mdsSeen] = m_manager->GetSubscriptionCounts();
        double pendingSeen = 0;
        RunOnQueue([&] { pendingSeen = m_manager->SubscriptionPendingGaugeInstance().Get(); });
        if (zelSeen != zel || mdsSeen != mds || pendingSeen != static_cast<double>(pending))
        {
            verdict.Fail("gauges: zel " + std::to_string(zelSeen) + " mds " + std::to_string(mdsSeen) + " pending " +
                         std::to_string(pendingSeen) + ", expected " + std::to_string(zel) + ", " +
                         std::to_string(mds) + ", " + std::to_string(pending));
        }
    }
    /// What the gauges say has happened: MDS delivers those that have been switched, and no others.
    void CheckSubscriptions(std::size_t mds, Verdict& verdict) const
    {
        if (const std::size_t seen = m_late->GetSubscriptionCount(); seen != mds)
        {
            verdict.Fail("MDS has " + std::to_string(seen) + " subscriptions, expected " + std::to_string(mds));
        }
    }
    void CheckClients(Verdict& verdict) const
    {
        for (std::size_t i = 0; i < m_clients.size(); ++i)
        {
            if (m_clients[i]->GetFaults() != 0 || m_clients[i]->GetFailures() != 0)
            {
                verdict.Fail(GetSymbol(i) + ": " + std::to_string(m_clients[i]->GetFaults()) + " books out of order, " +
                             std::to_string(m_clients[i]->GetFailures()) + " failures");
            }
        }
    }
    /// Returns when the timer has decided them.
    void DecideTheRest()
    {
        m_late->MarkComplete();
        const auto deadline = Clock::now() + kPatience;
        double pending = 1;
        while (pending != 0 && Clock::now() < deadline)
        {
            RunOnQueue([&] { pending = m_manager->SubscriptionPendingGaugeInstance().Get(); });
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }
    void LetFlow(std::uint64_t messages) const { m_flow.WaitForMessages(messages); }
    std::uint64_t GetMessageCount() const { return m_flow.GetMessageCount(); }

private:
    void Check(std::size_t instrument, const MergedOrderBook& book)
    {
        if (!m_isChecking.load())
        {
            return;
        }
        m_checked.fetch_add(1);
        m_stale.fetch_add(book.staleComponents.empty() ? 0 : 1);
        if (const auto fault = m_history.FindFault(instrument, book))
        {
            const std::lock_guard lock(m_mutex);
            m_bad.push_back(GetSymbol(instrument) + ": " + *fault);
        }
    }

    testing_ns::BrokerProcess m_broker;
    FlowHistory m_history;
    std::atomic<bool> m_isChecking{false};
    std::atomic<std::uint64_t> m_checked{0};
    std::atomic<std::uint64_t> m_stale{0};
    std::uint64_t m_lossesBefore = 0;
    std::mutex m_mutex;
    std::vector<std::string> m_bad; ///< under m_mutex
    const std::shared_ptr<LateMds> m_late;
    Flow m_flow;
    const std::shared_ptr<ThreadPool> m_pool;
    const std::shared_ptr<AsyncDispatcher> m_timers;
    std::unique_ptr<SimpleSubscriptionMgr> m_simple;
    std::shared_ptr<ZelProvider> m_zel;
    DataQueue<DataMsgTask> m_queue;
    QueueReader<> m_reader;
    LocalObserverFactory m_factory;
    std::unique_ptr<CompositeSubscriptionMgr> m_manager;
    std::unique_ptr<PendingCheck> m_pendingCheck;
    std::vector<std::shared_ptr<BookClient>> m_clients;
};

} // namespace

/// Symbols that ZEL serves while they are undecided go to the in-process provider one by one, under flow.
bool RunSwitches(const SoakOptions& options)
{
    Verdict verdict;
    SwitchingServer server(options);
    server.SubscribeAll();
    server.CheckGauges(options.instruments, 0, options.instruments, verdict);
    std::string difference;
    if (!server.WaitUntilBooksAreEqual(difference))
    {
        verdict.Fail("before " + difference);
    }
    server.CheckEveryBook();
    const std::size_t switches = std::min<std::size_t>(options.switches, options.instruments);
    for (std::size_t i = 0; i < switches; ++i)
    {
        server.LetFlow(kBetween);
        server.Switch(i);
        if ((i + 1) % kBatch == 0 || i + 1 == switches)
        {
            if (!server.WaitForSwitches(i + 1))
            {
                verdict.Fail("the timer has not made " + std::to_string(i + 1) + " switches");
            }
            server.CheckGauges(options.instruments - i - 1, i + 1, options.instruments - i - 1, verdict);
            server.CheckSubscriptions(i + 1, verdict);
            if (!server.WaitUntilBooksAreEqual(difference))
            {
                verdict.Fail("after " + std::to_string(i + 1) + " switches " + difference);
            }
        }
    }
    server.DecideTheRest();
    server.CheckGauges(options.instruments - switches, switches, 0, verdict);
    server.CheckSubscriptions(switches, verdict);
    server.CheckClients(verdict);
    server.ReportBooks(verdict);
    std::printf("%zu switches of %zu instruments, %llu messages published\n", switches, options.instruments,
                static_cast<unsigned long long>(server.GetMessageCount()));
    return verdict.IsGood();
}

} // namespace ps_ns::broker_soak
