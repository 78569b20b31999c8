#include "rename_bench.h"

#include "async/thread_pool.h"
#include "common/channel_task.h"
#include "common/queue_reader.h"
#include "config/config.h"
#include "mds/replay_source.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

using namespace ps_ns;
using namespace ps_ns::testing;
using ps_messages_ns::SubscriptionResult;

namespace
{

constexpr auto kPatience = std::chrono::seconds(120);

template <class Condition>
[[nodiscard]] bool WaitFor(Condition condition)
{
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!condition() && std::chrono::steady_clock::now() < deadline)
    {
        std::this_thread::yield();
    }
    return condition();
}

/// The queue, the executors and the feed on threads of their own, the feed as fast as it can.
class ThreadedServer
{
public:
    ThreadedServer(const std::string& file, std::vector<TimedRename> renames)
    {
        const MarketTable markets({{1, "US", 10, 100, 0}});
        MdsOptions options;
        options.speed = 0;
        options.renames = std::move(renames);
        options.renameStep = [this](const auto& together, const auto& make) { relay->Run(together, make); };
        ReplayOptions replay;
        replay.files = {file};
        provider = std::make_shared<MdsProvider>(std::make_unique<GatedReplay>(replay, markets, mayPlay), options);
        simple = std::make_unique<SimpleSubscriptionMgr>(markets, pool, std::make_shared<AsyncDispatcher>("simple"));
        simple->AddProvider(provider);
        manager = std::make_unique<CompositeSubscriptionMgr>(simple.get());
        manager->UnitTestInit(Config::LoadText("<PriceServer/>", "test"), &queue,
                              std::make_shared<DefaultCompositePriceFactory>());
        relay = std::make_unique<RenameRelay>(*manager, queue, clients, [this] { pool->Drain(); });
        clients.Open();
        reader.Start();
        provider->Start();
        EXPECT_TRUE(WaitFor([this] { return provider->GetDirectory().IsComplete(1); }));
    }
    ~ThreadedServer()
    {
        Stop();
        manager.reset();
        simple.reset();
    }

    void Stop()
    {
        clients.Close();
        manager->Shutdown();
        mayPlay.store(true);
        provider->Stop();
        if (!std::exchange(m_isStopped, true))
        {
            queue.shutdown();
            reader.Stop();
            RunDry(queue);
        }
        pool->Stop();
    }

    std::atomic<bool> mayPlay{false};
    ClientGate clients;
    std::shared_ptr<ThreadPool> pool = std::make_shared<ThreadPool>(2);
    DataQueue<DataMsgTask> queue{"test", {}};
    QueueReader<> reader{queue};
    std::shared_ptr<MdsProvider> provider;
    std::unique_ptr<SimpleSubscriptionMgr> simple;
    std::unique_ptr<CompositeSubscriptionMgr> manager;
    std::unique_ptr<RenameRelay> relay;

private:
    /// Holds the first message back until the clients are there.
    class GatedReplay final : public IMarketSource
    {
    public:
        GatedReplay(const ReplayOptions& options, const MarketTable& markets, const std::atomic<bool>& mayPlay)
            : m_replay(options, markets)
            , m_mayPlay(mayPlay)
        {
        }
        void Check() override { m_replay.Check(); }
        std::vector<short> GetMarketIds() const override { return m_replay.GetMarketIds(); }
        void Open(const std::atomic<bool>& stop) override { m_replay.Open(stop); }
        const std::vector<SourceInstrument>& GetInstruments() const override { return m_replay.GetInstruments(); }
        std::optional<NextMessage> Peek() override { return m_replay.Peek(); }
        bool Next(MarketMessage& message) override
        {
            while (!m_mayPlay.load())
            {
                std::this_thread::yield();
            }
            return m_replay.Next(message);
        }

    private:
        ReplaySource m_replay;
        const std::atomic<bool>& m_mayPlay;
    };

    bool m_isStopped = false;
};

/// A client's books and trades; to be read when the pool has run dry.
struct Received
{
    std::atomic<int> answers{0};
    std::atomic<int> refusals{0};
    std::vector<std::shared_ptr<const MergedOrderBook>> books;
    std::vector<std::uint64_t> trades;

    void Note(SubscriptionResult::Value result)
    {
        (result == SubscriptionResult::Success ? answers : refusals).fetch_add(1);
    }
    void Add(const std::vector<Trade>& more)
    {
        for (const Trade& trade : more)
        {
            trades.push_back(trade.venueId);
        }
    }
};

class DirectClient final : public ICompositePriceObserver
{
public:
    explicit DirectClient(std::shared_ptr<Received> received)
        : ICompositePriceObserver("direct")
        , m_received(std::move(received))
    {
    }
    void OnSubscribe(const CompositeInstrumentDef&, const EventInfo&, Result result, unsigned long, const PriceFormat&,
                     CompositeComponentType::Type, const CompositeSubscriptionState&) override
    {
        m_received->Note(result);
    }
    void OnAddScope(const CompositeInstrumentDef&, unsigned long, Result) override {}
    void OnChangeScope(const CompositeInstrumentDef&, unsigned long, Result) override {}
    void OnRemoveScope(const CompositeInstrumentDef&, unsigned long, Result) override {}
    void OnOrderBook(const CompositeInstrumentDef&, const std::shared_ptr<const MergedOrderBook>& book) override
    {
        m_received->books.push_back(book);
    }
    void OnTrades(const CompositeInstrumentDef&, const std::shared_ptr<const std::vector<Trade>>& trades) override
    {
        m_received->Add(*trades);
    }
    void OnCustomFields(const CompositeInstrumentDef&, const std::shared_ptr<const CustomFields>&) override {}
    void OnUnsubscribe(const CompositeInstrumentDef&, Result, CompositeComponentType::Type,
                       const CompositeSubscriptionState&) override
    {
    }

private:
    const std::shared_ptr<Received> m_received;
};

class FlexibleClient final : public IFlexiblePriceObserver
{
public:
    explicit FlexibleClient(std::shared_ptr<Received> received)
        : IFlexiblePriceObserver("flexible")
        , m_received(std::move(received))
    {
    }
    void OnSubscribe(unsigned long, const CompositeInstrumentDef&, const EventInfo&, Result result, unsigned long,
                     const PriceFormat&, CompositeComponentType::Type, const CompositeSubscriptionState&) override
    {
        m_received->Note(result);
    }
    void OnChangeScope(unsigned long, const CompositeInstrumentDef&, Result) override {}
    void OnOrderBook(unsigned long, const CompositeInstrumentDef&,
                     const std::shared_ptr<const MergedOrderBook>& book) override
    {
        m_received->books.push_back(book);
    }
    void OnTrades(unsigned long, const CompositeInstrumentDef&,
                  const std::shared_ptr<const std::vector<Trade>>& trades) override
    {
        m_received->Add(*trades);
    }
    void OnCustomFields(unsigned long, const CompositeInstrumentDef&,
                        const std::shared_ptr<const CustomFields>&) override
    {
    }
    void OnUnsubscribe(unsigned long, const CompositeInstrumentDef&, Result, CompositeComponentType::Type,
                       const CompositeSubscriptionState&) override
    {
    }

private:
    const std::shared_ptr<Received> m_received;
};

const CompositeSubscriptionInfo kScope{5, 0, true, false};

std::shared_ptr<Received> SubscribeDirect(ThreadedServer& server, const CompositeInstrumentDef& def,
                                          unsigned long* handle = nullptr)
{
    auto received = std::make_shared<Received>();
    server.clients.Pass(
        [&]
        {
            const auto result = server.manager->Subscribe(def, kScope, std::make_shared<DirectClient>(received), 1);
            EXPECT_EQ(result.second, SubscriptionResult::Accepted);
            if (handle != nullptr)
            {
                *handle = result.first;
            }
        });
    return received;
}

void ExpectAllOf(const std::string& symbol, const RecordingWriter& recording, const Received& received)
{
    EXPECT_TRUE(AreAllOf(symbol, received.books)) << symbol;
    EXPECT_EQ(GetNumbers(received.books), recording.GetNumbers(symbol)) << symbol;
    EXPECT_EQ(received.trades, recording.GetNumbers(symbol)) << symbol;
    EXPECT_EQ(received.refusals.load(), 0) << symbol;
}

/// Clients that come for a name and go again. Whatever a name stands for when they come: it is one instrument.
class Visitors
{
public:
    Visitors(ThreadedServer& server, const std::vector<std::string>& names)
        : m_thread([this, &server, names] { Visit(server, names); })
    {
    }
    ~Visitors() { Finish(); }
    void Finish()
    {
        m_ends.store(true);
        if (m_thread.joinable())
        {
            m_thread.join();
        }
    }
    /// Of all that came: whose books were of more than one instrument.
    std::size_t CountMixed(const std::vector<std::string>& symbols) const
    {
        return static_cast<std::size_t>(std::count_if(
            m_received.begin(), m_received.end(),
            [&](const auto& received)
            {
                return std::none_of(symbols.begin(), symbols.end(),
                                    [&](const std::string& symbol) { return AreAllOf(symbol, received->books); });
            }));
    }
    std::size_t CountServed() const
    {
        return static_cast<std::size_t>(std::count_if(m_received.begin(), m_received.end(),
                                                      [](const auto& received) { return !received->books.empty(); }));
    }

private:
    void Visit(ThreadedServer& server, const std::vector<std::string>& names)
    {
        std::uint64_t identity = 1000;
        while (!m_ends.load())
        {
            for (const std::string& name : names)
            {
                unsigned long handle = 0;
                m_received.push_back(SubscribeDirect(server, MakeUsDef(++identity, name), &handle));
                const int patience = static_cast<int>(identity % 50);
                for (int look = 0; look < patience; ++look)
                {
                    std::this_thread::yield();
                }
                server.clients.Pass([&] { server.manager->Unsubscribe(handle); });
            }
        }
    }

    std::atomic<bool> m_ends{false};
    std::vector<std::shared_ptr<Received>> m_received; ///< the thread's, until it has been joined
    std::thread m_thread;
};

} // namespace

TEST(RenamesOnThreads, LoseNothingAndMixNothingAtFullSpeedWhileClientsComeAndGo)
{
    const int level = zel::logging::g_minLogLevel.exchange(31);
    // Four hours around the midnight at which GOOG passes on; and two others change places again and again.
    constexpr std::uint64_t kSecond_ns = 1'000'000'000;
    constexpr std::uint64_t kRounds = 2000;
    const std::uint64_t begin_ns = EndOfDay("2014-04-02") - kRounds / 2 * kSecond_ns;
    RecordingWriter recording;
    std::vector<TimedRename> renames = ReadRealRenames();
    for (std::uint64_t round = 0; round < kRounds; ++round)
    {
        const std::uint64_t time_ns = begin_ns + round * kSecond_ns;
        recording.Add(time_ns, {"GOOCV", "GOOG", "FB", "NWSA"});
        if (round % 25 == 24)
        {
            renames.push_back({time_ns, {1, "FB", "NWSA"}});
            renames.push_back({time_ns, {-1, "NWSA", "FB"}});
        }
    }
    const RenameFolder folder;
    ThreadedServer server(folder.Write("us.csv", recording.GetText()), renames);

    const auto directC = SubscribeDirect(server, MakeUsDef(1, "GOOCV"));
    const auto directA = SubscribeDirect(server, MakeUsDef(2, "GOOG"));
    const auto directFb = SubscribeDirect(server, MakeUsDef(3, "FB"));
    const auto flexibleC = std::make_shared<Received>();
    const auto flexibleFox = std::make_shared<Received>();
    LocalObserverFactory factory;
    server.clients.Pass(
        [&]
        {
            server.manager->Subscribe(MakeUsDef(1, "GOOCV"), kScope, factory,
                                      std::make_shared<FlexibleClient>(flexibleC), 7);
            server.manager->Subscribe(MakeUsDef(4, "NWSA"), kScope, factory,
                                      std::make_shared<FlexibleClient>(flexibleFox), 8);
        });
    const auto all = {directC, directA, directFb, flexibleC, flexibleFox};
    EXPECT_TRUE(WaitFor(
        [&] { return std::all_of(all.begin(), all.end(), [](const auto& one) { return one->answers.load() == 1; }); }));

    Visitors visitors(server, {"FB", "GOOG", "NWSA"});
    server.mayPlay.store(true);
    EXPECT_TRUE(WaitFor([&] { return server.provider->HasEnded(); }));
    visitors.Finish();
    server.pool->Drain();
    server.Stop();

    ExpectAllOf("GOOCV", recording, *directC);
    ExpectAllOf("GOOCV", recording, *flexibleC);
    ExpectAllOf("GOOG", recording, *directA);
    ExpectAllOf("FB", recording, *directFb);
    ExpectAllOf("NWSA", recording, *flexibleFox);
    EXPECT_EQ(directC->books.size(), kRounds + 1);
    EXPECT_EQ(directFb->books.size(), kRounds + kRounds / 25);
    EXPECT_EQ(visitors.CountMixed({"GOOCV", "GOOG", "FB", "NWSA"}), 0U);
    EXPECT_GT(visitors.CountServed(), 0U);
    EXPECT_EQ(CompositeSubscriptionMgrTestAccess(*server.manager).Subscriptions().size(), 4U);
    zel::logging::g_minLogLevel.store(level);
}

TEST(RenamesOnThreads, StopWhileARenameIsBeingMade)
{
    const int level = zel::logging::g_minLogLevel.exchange(31);
    constexpr std::uint64_t kRounds = 300;
    RecordingWriter recording;
    std::vector<TimedRename> renames;
    for (std::uint64_t round = 1; round <= kRounds; ++round)
    {
        recording.Add(round * 1000, {"FB", "NWSA"});
        renames.push_back({round * 1000, {1, "FB", "NWSA"}});
        renames.push_back({round * 1000, {1, "NWSA", "FB"}});
    }
    const RenameFolder folder;
    const std::string file = folder.Write("us.csv", recording.GetText());
    for (int run = 0; run < 30; ++run)
    {
        ThreadedServer server(file, renames);
        const auto client = SubscribeDirect(server, MakeUsDef(3, "FB"));
        EXPECT_TRUE(WaitFor([&] { return client->answers.load() == 1; }));
        server.mayPlay.store(true);
        for (int look = 0; look < run * 10; ++look)
        {
            std::this_thread::yield();
        }
        server.Stop();
        EXPECT_TRUE(AreAllOf("FB", client->books)) << "run " << run;
    }
    zel::logging::g_minLogLevel.store(level);
}
