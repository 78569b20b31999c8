/// Updates from a publisher by way of a real broker to merged books, beside the bare client library of the broker that
/// carries messages of the same size and does nothing with them. Both in turns, in one run:
///
///     broker_benchmark [rounds]
///
/// Throughput: so many updates of one level as fast as the broker takes them, until the last merged book has reached
/// its client. Latency: a thousand updates a second, from right before the publish until the client has the merged
/// book.

#include "async/thread_pool.h"
#include "common/channel_task.h"
#include "common/queue_reader.h"
#include "composite_price/default_composite_price_factory.h"
#include "composite_price/merged_order_book.h"
#include "config/config.h"
#include "logging/logging.h"
#include "price_unifier/source/composite_subscription_mgr.h"
#include "simple_subscription/simple_subscription_mgr.h"
#include "zel/nats_transport.h"
#include "zel/zel_provider.h"
#include "zel/zel_publisher.h"
#include "zel_testing/broker_process.h"

#include <nats/nats.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using namespace ps_ns;

namespace
{

using Clock = std::chrono::steady_clock;

constexpr std::uint64_t kBurst = 200'000;
constexpr std::uint64_t kPaced = 5'000;
constexpr auto kPause = std::chrono::milliseconds(1);
constexpr std::size_t kInstruments = 100;
constexpr std::uint64_t kBetweenFlushes = 1'000;
constexpr std::size_t kMessageSize = 24 + 32 + 20; // an update of one level

std::uint64_t Now_ns()
{
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count());
}

struct Figures
{
    double perSecond = 0;
    double median_us = 0;
    double p99_us = 0;
};

/// What arrives: counted, and its age noted while that is wanted. One thread.
class Arrivals
{
public:
    void Note(std::uint64_t sent_ns)
    {
        if (m_notesAges.load(std::memory_order_relaxed))
        {
            m_ages.push_back(static_cast<double>(Now_ns() - sent_ns) / 1e3);
        }
        m_count.fetch_add(1, std::memory_order_release);
    }
    void WaitFor(std::uint64_t count) const
    {
        const auto deadline = Clock::now() + std::chrono::seconds(120);
        while (m_count.load(std::memory_order_acquire) < count)
        {
            if (Clock::now() > deadline)
            {
                throw std::runtime_error("messages are missing: " + std::to_string(m_count.load()) + " of " +
                                         std::to_string(count));
            }
            std::this_thread::sleep_for(std::chrono::microseconds(50));
        }
    }
    std::uint64_t GetCount() const { return m_count.load(); }
    void BeginAges() { m_notesAges.store(true); }
    std::vector<double> TakeAges()
    {
        m_notesAges.store(false);
        return std::move(m_ages);
    }

private:
    std::atomic<std::uint64_t> m_count{0};
    std::atomic<bool> m_notesAges{false};
    std::vector<double> m_ages; ///< the arriving thread's, until all have arrived
};

/// `publish(i)` sends message i; `flush` waits for the broker.
template <class Publish, class Flush>
Figures Measure(Arrivals& arrivals, const Publish& publish, const Flush& flush)
{
    Figures figures;
    std::uint64_t expected = arrivals.GetCount();
    const auto begin = Clock::now();
    for (std::uint64_t i = 0; i < kBurst; ++i)
    {
        publish(i);
        if (i % kBetweenFlushes == 0)
        {
            flush();
        }
    }
    flush();
    arrivals.WaitFor(expected += kBurst);
    figures.perSecond = static_cast<double>(kBurst) / std::chrono::duration<double>(Clock::now() - begin).count();

    arrivals.BeginAges();
    auto due = Clock::now();
    for (std::uint64_t i = 0; i < kPaced; ++i)
    {
        std::this_thread::sleep_until(due += kPause);
        publish(i);
    }
    arrivals.WaitFor(expected + kPaced);
    std::vector<double> ages = arrivals.TakeAges();
    std::sort(ages.begin(), ages.end());
    figures.median_us = ages[ages.size() / 2];
    figures.p99_us = ages[ages.size() * 99 / 100];
    return figures;
}

void Require(natsStatus status)
{
    if (status != NATS_OK)
    {
        throw std::runtime_error(natsStatus_GetText(status));
    }
}

Figures MeasureBare(const std::string& url)
{
    natsConnection* publishing = nullptr;
    natsConnection* listening = nullptr;
    natsSubscription* subscription = nullptr;
    Require(natsConnection_ConnectTo(&publishing, url.c_str()));
    Require(natsConnection_ConnectTo(&listening, url.c_str()));
    Arrivals arrivals;
    const natsMsgHandler onMessage = [](natsConnection*, natsSubscription*, natsMsg* message, void* closure)
    {
        std::uint64_t sent_ns = 0;
        std::memcpy(&sent_ns, natsMsg_GetData(message), sizeof sent_ns);
        static_cast<Arrivals*>(closure)->Note(sent_ns);
        natsMsg_Destroy(message);
    };
    Require(natsConnection_Subscribe(&subscription, listening, "bare.>", onMessage, &arrivals));
    Require(natsSubscription_SetPendingLimits(subscription, 1'000'000, 256 << 20));
    Require(natsConnection_Flush(listening));
    std::vector<std::string> subjects;
    for (std::size_t i = 0; i < kInstruments; ++i)
    {
        subjects.push_back("bare.M.I" + std::to_string(i));
    }
    std::string payload(kMessageSize, 'x');
    const Figures figures = Measure(
        arrivals,
        [&](std::uint64_t i)
        {
            const std::uint64_t now_ns = Now_ns();
            std::memcpy(payload.data(), &now_ns, sizeof now_ns);
            natsConnection_Publish(publishing, subjects[i % kInstruments].c_str(), payload.data(),
                                   static_cast<int>(payload.size()));
        },
        [&] { natsConnection_Flush(publishing); });
    natsSubscription_Unsubscribe(subscription);
    std::this_thread::sleep_for(std::chrono::milliseconds(600)); // the library's threads let go of it
    natsSubscription_Destroy(subscription);
    natsConnection_Destroy(listening);
    natsConnection_Destroy(publishing);
    return figures;
}

class Client final : public ICompositePriceObserver
{
public:
    explicit Client(Arrivals& arrivals)
        : ICompositePriceObserver("benchmark")
        , m_arrivals(arrivals)
    {
    }
    void OnOrderBook(const CompositeInstrumentDef&, const std::shared_ptr<const MergedOrderBook>& book) override
    {
        m_arrivals.Note(book->receiveTime_ns);
    }
    void OnSubscribe(const CompositeInstrumentDef&, const EventInfo&, Result, unsigned long, const PriceFormat&,
                     CompositeComponentType::Type, const CompositeSubscriptionState&) override
    {
    }
    void OnAddScope(const CompositeInstrumentDef&, unsigned long, Result) override {}
    void OnChangeScope(const CompositeInstrumentDef&, unsigned long, Result) override {}
    void OnRemoveScope(const CompositeInstrumentDef&, unsigned long, Result) override {}
    void OnTrades(const CompositeInstrumentDef&, const std::shared_ptr<const std::vector<Trade>>&) override {}
    void OnCustomFields(const CompositeInstrumentDef&, const std::shared_ptr<const CustomFields>&) override {}
    void OnUnsubscribe(const CompositeInstrumentDef&, Result, CompositeComponentType::Type,
                       const CompositeSubscriptionState&) override
    {
    }

private:
    Arrivals& m_arrivals;
};

NatsOptions At(const std::string& url)
{
    NatsOptions options;
    options.url = url;
    return options;
}

void Fill(MarketMessage& message, std::uint64_t i, bool isImage)
{
    message.Clear();
    message.instrument = static_cast<InstrumentIndex>(i % kInstruments);
    message.epoch = 1;
    message.isImage = isImage;
    message.receiveTime_ns = Now_ns();
    const auto rank = static_cast<std::int64_t>(i / kInstruments % 10);
    message.changes.push_back({(1000 - rank) * 1'000'000'000, static_cast<std::int64_t>(1 + i), 0, BookSideType::Bid});
}

Figures MeasureChain(const std::string& url)
{
    const auto pool = std::make_shared<ThreadPool>(1);
    const auto timers = std::make_shared<AsyncDispatcher>("benchmark");
    SimpleSubscriptionMgr simple(MarketTable({{1, "M"}}), pool, timers);
    ZelOptions options;
    options.markets = {{1, "M"}};
    const auto provider = std::make_shared<ZelProvider>(std::make_unique<NatsTransport>(At(url)), options);
    simple.AddProvider(provider);
    DataQueue<DataMsgTask> queue("benchmark", zel::metrics::Gauge());
    QueueReader<> reader(queue);
    auto manager = std::make_unique<CompositeSubscriptionMgr>(&simple);
    manager->Init(Config::LoadText("<PriceServer/>", "benchmark"), &queue,
                  std::make_shared<DefaultCompositePriceFactory>());
    reader.Start();
    manager->Start();
    provider->Start();

    NatsTransport transport(At(url));
    ZelPublisher publisher(transport);
    std::vector<SourceInstrument> instruments(kInstruments);
    for (std::size_t i = 0; i < kInstruments; ++i)
    {
        instruments[i].marketId = 1;
        instruments[i].market = "M";
        instruments[i].symbol = "I" + std::to_string(i);
    }
    publisher.Start(instruments);
    MarketMessage message;
    for (std::uint64_t i = 0; i < kInstruments; ++i)
    {
        Fill(message, i, true);
        publisher.Publish(message);
    }
    Arrivals arrivals;
    const auto client = std::make_shared<Client>(arrivals);
    for (std::size_t i = 0; i < kInstruments; ++i)
    {
        CompositeInstrumentDef def;
        def.marketId = 1;
        def.instrument = {instruments[i].symbol, "M"};
        def.instrumentId = i + 1;
        def.components = {true, false, false};
        manager->Subscribe(def, {10, 0, false, false}, client, 1);
    }
    while (provider->GetCounts().live < kInstruments)
    {
        publisher.WaitForWork(Clock::now() + kPause);
        publisher.Tick();
    }
    arrivals.WaitFor(kInstruments);
    const Figures figures = Measure(
        arrivals,
        [&](std::uint64_t i)
        {
            Fill(message, i, false);
            publisher.Publish(message);
            if (i % 100 == 0)
            {
                publisher.Tick();
            }
        },
        [&] { transport.Flush(std::chrono::seconds(5)); });
    if (provider->GetCounts().gaps != 0)
    {
        throw std::runtime_error("messages were lost");
    }
    transport.Stop();
    manager->Shutdown();
    provider->Stop();
    queue.shutdown();
    reader.Stop();
    timers->Shutdown();
    pool->Stop();
    manager.reset();
    return figures;
}

double Median(std::vector<Figures> all, double Figures::*member)
{
    std::sort(all.begin(), all.end(), [member](const Figures& a, const Figures& b) { return a.*member < b.*member; });
    return all[all.size() / 2].*member;
}

void Print(const char* what, const std::vector<Figures>& all)
{
    std::printf("%-12s %10.0f updates/s   latency median %8.1f us   p99 %8.1f us\n", what,
                Median(all, &Figures::perSecond), Median(all, &Figures::median_us), Median(all, &Figures::p99_us));
}

} // namespace

int main(int argc, char** argv)
{
    zel::logging::g_minLogLevel.store(100);
    const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;
    try
    {
        testing_ns::BrokerProcess broker;
        std::vector<Figures> bare;
        std::vector<Figures> chain;
        for (int round = 0; round < rounds; ++round)
        {
            bare.push_back(MeasureBare(broker.GetUrl()));
            chain.push_back(MeasureChain(broker.GetUrl()));
        }
        Print("bare client", bare);
        Print("to the book", chain);
        std::printf("ratios: %.2f of the updates, %.2f times the median, %.2f times the p99\n",
                    Median(chain, &Figures::perSecond) / Median(bare, &Figures::perSecond),
                    Median(chain, &Figures::median_us) / Median(bare, &Figures::median_us),
                    Median(chain, &Figures::p99_us) / Median(bare, &Figures::p99_us));
        return 0;
    }
    catch (const std::exception& error)
    {
        std::fprintf(stderr, "broker_benchmark: %s\n", error.what());
        return 1;
    }
}
