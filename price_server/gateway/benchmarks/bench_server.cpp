#include "bench_server.h"

#include "async/thread_pool.h"
#include "common/channel_task.h"
#include "common/queue_reader.h"
#include "composite_price/default_composite_price_factory.h"
#include "composite_price/fixed_point.h"
#include "config/config.h"
#include "gateway/backend.h"
#include "gateway/gateway.h"
#include "load_clients.h"
#include "logging/logging.h"
#include "pace.h"
#include "price_unifier/source/composite_subscription_mgr.h"
#include "simple_subscription/simple_subscription_mgr.h"

#include <algorithm>
#include <iostream>
#include <mutex>
#include <sstream>
#include <string>
#include <unordered_map>
#include <vector>

namespace ps_ns::gateway_bench
{
namespace
{

constexpr short kMarket = 1;
constexpr int kLevels = 10;

/// Books of ten levels a side; an update changes one of them.
///
/// Threads: the queue's; Publish from one other.
class Publisher final : public IPriceProvider
{
public:
    explicit Publisher(std::size_t instruments)
        : m_instruments(instruments)
    {
        for (std::size_t i = 0; i < instruments; ++i)
        {
            m_directory.Add({{kMarket, -1}, GetSymbol(i), "bench", "", {}});
        }
        m_directory.AddMarket(kMarket);
        m_directory.MarkComplete(kMarket);
    }

    ProviderType::Value GetType() const override { return ProviderType::Mds; }
    const InstrumentDirectory& GetDirectory() const override { return m_directory; }
    void Start() override {}
    void Stop() override {}
    int Subscribe(const ComponentRequest& request, const std::shared_ptr<IComponentListener>& listener) override
    {
        const std::size_t number = std::stoul(request.symbol.substr(1));
        const std::lock_guard lock(m_mutex);
        m_instruments[number].listeners.push_back(listener);
        listener->OnSubscribed(ps_messages_ns::SubscriptionResult::Success, {});
        listener->OnBook(MakeImage(number));
        return SubscribeStatus::Subscribed;
    }
    void ChangeScope(const std::shared_ptr<IComponentListener>&, const CompositeSubscriptionInfo&) override {}
    void Unsubscribe(const std::shared_ptr<IComponentListener>& listener) override
    {
        const std::lock_guard lock(m_mutex);
        for (Instrument& instrument : m_instruments)
        {
            std::erase(instrument.listeners, listener);
        }
        listener->OnUnsubscribed(true);
    }

    void Publish()
    {
        const std::lock_guard lock(m_mutex);
        const std::size_t number = m_next;
        m_next = (m_next + 1) % m_instruments.size();
        Instrument& instrument = m_instruments[number];
        if (instrument.listeners.empty())
        {
            return;
        }
        const auto update = std::make_shared<BookUpdate>();
        Fill(*update, instrument);
        const auto level = static_cast<std::int64_t>(instrument.sequence % kLevels);
        update->changes = {MakeLevel(level, instrument.sequence % 2 == 0, 1 + instrument.sequence % 97)};
        for (const auto& listener : instrument.listeners)
        {
            listener->OnBook(update);
        }
    }

private:
    struct Instrument
    {
        std::uint64_t sequence = 0;
        std::vector<std::shared_ptr<IComponentListener>> listeners;
    };

    static std::string GetSymbol(std::size_t number) { return "I" + std::to_string(number); }
    static BookUpdate::Change MakeLevel(std::int64_t level, bool isBid, std::uint64_t quantity)
    {
        const std::int64_t step = (level + 1) * kPriceUnitsPerOne / 100;
        return {61'000 * kPriceUnitsPerOne + (isBid ? -step : step),
                static_cast<std::int64_t>(quantity) * kQuantityUnitsPerOne / 100, 0,
                isBid ? BookSideType::Bid : BookSideType::Ask};
    }
    static void Fill(BookUpdate& update, Instrument& instrument)
    {
        update.epoch = 1;
        update.sequence = ++instrument.sequence;
        update.exchangeTime_ns = GetTime_ns();
        update.receiveTime_ns = update.exchangeTime_ns;
    }
    std::shared_ptr<const BookUpdate> MakeImage(std::size_t number)
    {
        const auto image = std::make_shared<BookUpdate>();
        image->isImage = true;
        Fill(*image, m_instruments[number]);
        for (std::int64_t level = 0; level < kLevels; ++level)
        {
            image->changes.push_back(MakeLevel(level, true, 100));
            image->changes.push_back(MakeLevel(level, false, 100));
        }
        return image;
    }

    InstrumentDirectory m_directory;
    std::mutex m_mutex;
    std::vector<Instrument> m_instruments; ///< under m_mutex
    std::size_t m_next = 0;                ///< under m_mutex
};

/// The parts of a server between one provider and the gateway.
class Server final : public gateway::IBackend
{
public:
    explicit Server(std::size_t instruments)
        : m_pool(std::make_shared<ThreadPool>(1))
        , m_simple(MarketTable({{kMarket, "BENCH"}}), m_pool, std::make_shared<AsyncDispatcher>("bench"))
        , m_publisher(std::make_shared<Publisher>(instruments))
        , m_queue("bench", {})
        , m_reader(m_queue)
    {
        m_simple.AddProvider(m_publisher);
        m_manager = std::make_unique<CompositeSubscriptionMgr>(&m_simple);
        m_manager->Init(Config::LoadText("<PriceServer><General SkipUnchangedSnapshots=\"0\"/></PriceServer>", "bench"),
                        &m_queue, std::make_shared<DefaultCompositePriceFactory>());
        m_reader.Start();
        gateway::GatewayOptions options;
        options.port = 0;
        options.limits.requests_per_second = 100'000;
        m_gateway = std::make_unique<gateway::Gateway>(options, *this);
        m_gateway->Start();
    }
    ~Server() override
    {
        m_gateway->Stop();
        m_manager->Shutdown();
        m_queue.shutdown();
        m_reader.Stop();
        RunDry(m_queue);
        m_pool->Stop();
        m_gateway.reset();
        m_manager.reset();
    }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    bool TryRequest(const std::function<void(CompositeSubscriptionMgr&)>& request) override
    {
        request(*m_manager);
        return true;
    }
    bool RunOnQueue(std::function<void(CompositeSubscriptionMgr&, SimpleSubscriptionMgr&)> task) override
    {
        m_queue.insert(
            new ChannelTask<Task>([this, task = std::move(task)] { task(*m_manager, m_simple); }, "gateway"));
        return true;
    }
    const MarketTable& GetMarkets() const override { return m_simple.GetMarkets(); }
    std::vector<DirectoryEntry> GetDirectoryEntries() const override
    {
        return m_publisher->GetDirectory().GetEntries();
    }
    gateway::DirectoryVersion GetDirectoryVersion() const override
    {
        return {m_publisher->GetDirectory().GetVersion(), 0};
    }
    std::vector<gateway::ProviderView> GetProviders() const override { return {}; }
    bool IsReady() const override { return true; }

    Publisher& GetPublisher() noexcept { return *m_publisher; }
    std::uint16_t GetPort() const noexcept { return m_gateway->GetPort(); }

private:
    std::shared_ptr<ThreadPool> m_pool;
    SimpleSubscriptionMgr m_simple;
    std::shared_ptr<Publisher> m_publisher;
    DataQueue<DataMsgTask> m_queue;
    QueueReader<> m_reader;
    std::unique_ptr<CompositeSubscriptionMgr> m_manager;
    std::unique_ptr<gateway::Gateway> m_gateway;
};

} // namespace

int Serve(std::size_t instruments)
{
    zel::logging::g_minLogLevel.store(30);
    Server server(instruments);
    Publisher& publisher = server.GetPublisher();
    std::cout << server.GetPort() << std::endl; // NOLINT: the reader waits
    for (std::string line; std::getline(std::cin, line);)
    {
        std::istringstream words(line);
        std::string command;
        std::uint64_t count = 0;
        std::uint64_t milliseconds = 0;
        words >> command >> count >> milliseconds;
        if (command == "publish")
        {
            for (; count != 0; --count)
            {
                publisher.Publish();
            }
        }
        else if (command == "pace")
        {
            Pace(count, milliseconds, [&] { publisher.Publish(); });
        }
        else
        {
            std::cerr << "gateway_load: no such command: " << line << '\n';
            return 2;
        }
        std::cout << "done" << std::endl; // NOLINT: the reader waits
    }
    return 0;
}

} // namespace ps_ns::gateway_bench
