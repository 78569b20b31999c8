#include "async/thread_pool.h"
#include "clocks.h"
#include "common/channel_task.h"
#include "common/queue_reader.h"
#include "comparison.h"
#include "composite_instrument/local_observer_factory.h"
#include "composite_price/default_composite_price_factory.h"
#include "composite_price/merged_order_book.h"
#include "config/config.h"
#include "price_unifier/source/composite_subscription_mgr.h"
#include "quiet_observers.h"
#include "sample_def.h"
#include "simple_subscription/simple_subscription_mgr.h"

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace compare
{
namespace
{

using namespace ps_ns;

constexpr int kTimes = 200;

/// Answers every subscription at once, and with an image of twenty levels a side. Counts what ends.
class PromptProvider final : public IPriceProvider
{
public:
    explicit PromptProvider(ProviderType::Value type)
        : m_type(type)
    {
        m_image->isImage = true;
        m_image->epoch = m_image->sequence = 1;
        for (std::int64_t level = 1; level <= 20; ++level)
        {
            m_image->changes.push_back({1000 - level, 100, 0, BookSideType::Bid});
            m_image->changes.push_back({1000 + level, 100, 0, BookSideType::Ask});
        }
    }

    InstrumentDirectory& Directory() noexcept { return m_directory; }
    ProviderType::Value GetType() const override { return m_type; }
    const InstrumentDirectory& GetDirectory() const override { return m_directory; }
    void Start() override {}
    void Stop() override {}
    int Subscribe(const ComponentRequest&, const std::shared_ptr<IComponentListener>& listener) override
    {
        listener->OnSubscribed(ps_messages_ns::SubscriptionResult::Success, {});
        listener->OnBook(m_image);
        return SubscribeStatus::Subscribed;
    }
    void ChangeScope(const std::shared_ptr<IComponentListener>&, const CompositeSubscriptionInfo&) override {}
    void Unsubscribe(const std::shared_ptr<IComponentListener>& listener) override { listener->OnUnsubscribed(true); }

private:
    const ProviderType::Value m_type;
    const std::shared_ptr<BookUpdate> m_image = std::make_shared<BookUpdate>();
    InstrumentDirectory m_directory;
};

/// Tells when a book with so many levels, and of so late an epoch, has come.
class WaitingObserver final : public IFlexiblePriceObserver
{
public:
    WaitingObserver()
        : IFlexiblePriceObserver("waiting")
    {
    }
    /// From now on books of `levels` count that come with a later epoch than the last that has come, if so wanted.
    void Expect(std::uint32_t levels, bool wantsNewEpoch)
    {
        m_levels = levels;
        m_after = wantsNewEpoch ? m_epoch.load() : 0;
        m_came.store(false);
    }
    void Wait() const
    {
        while (!m_came.load())
        {
            std::this_thread::yield();
        }
    }

    void OnSubscribe(unsigned long, const CompositeInstrumentDef&, const EventInfo&, Result, unsigned long,
                     const PriceFormat&, CompositeComponentType::Type, const CompositeSubscriptionState&) override
    {
    }
    void OnChangeScope(unsigned long, const CompositeInstrumentDef&, Result) override {}
    void OnOrderBook(unsigned long, const CompositeInstrumentDef&,
                     const std::shared_ptr<const MergedOrderBook>& book) override
    {
        m_epoch.store(book->epoch);
        if (book->bids.count == m_levels && book->epoch > m_after)
        {
            m_came.store(true);
        }
    }
    void OnTrades(unsigned long, const CompositeInstrumentDef&,
                  const std::shared_ptr<const std::vector<Trade>>&) override
    {
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
    std::atomic<std::uint32_t> m_levels{0};
    std::atomic<std::uint64_t> m_after{0};
    std::atomic<std::uint64_t> m_epoch{0};
    std::atomic<bool> m_came{false};
};

/// The threads of a server: the queue's reader and two executors' threads.
class Threads
{
public:
    Threads() { m_reader.Start(); }
    ~Threads()
    {
        queue.shutdown();
        m_reader.Stop();
        RunDry(queue);
        pool->Stop();
    }
    Threads(const Threads&) = delete;
    Threads& operator=(const Threads&) = delete;

    template <class Action>
    void Post(Action action)
    {
        queue.insert(new ChannelTask<Task>(std::move(action), "compare"));
    }

    DataQueue<DataMsgTask> queue{"compare", zel::metrics::Gauge()};
    const std::shared_ptr<ThreadPool> pool = std::make_shared<ThreadPool>(2);

private:
    QueueReader<> m_reader{queue};
};

/// Medians over some hundred life cycles of one instrument after another.
class LifeCycles
{
public:
    LifeCycles()
    {
        m_simple.AddProvider(m_zel);
        m_simple.AddProvider(m_mds);
        m_mds->Directory().AddMarket(1); // never complete: what it does not know may still come
        m_manager.Init(
            Config::LoadText("<PriceServer><General SkipUnchangedSnapshots=\"0\"/></PriceServer>", "compare"),
            &m_threads.queue, std::make_shared<DefaultCompositePriceFactory>());
    }
    ~LifeCycles() { m_manager.Shutdown(); }
    LifeCycles(const LifeCycles&) = delete;
    LifeCycles& operator=(const LifeCycles&) = delete;

    Figures Run()
    {
        for (int i = 0; i < kTimes; ++i)
        {
            RunOne();
        }
        Figures figures;
        for (auto& [name, times] : m_times)
        {
            std::sort(times.begin(), times.end());
            figures.emplace_back(name, times[times.size() / 2]);
        }
        return figures;
    }

private:
    static constexpr CompositeSubscriptionInfo kNarrow{5, 0, false, false};
    static constexpr CompositeSubscriptionInfo kWide{10, 0, false, false};

    void RunOne()
    {
        const CompositeInstrumentDef def = MakeSampleDef(++m_last);
        const std::string& symbol = def.GetSymbol();
        const std::string renamed = symbol + "-RENAMED";
        Measure(
            "first subscribe to image, us", 5, false, [&] { m_manager.Subscribe(def, kNarrow, m_factory, m_first, 1); },
            *m_first);
        Measure(
            "join to image, us", 5, false, [&] { m_manager.Subscribe(def, kNarrow, m_factory, m_second, 2); },
            *m_second);
        Measure(
            "wider scope to wider book, us", 10, false, [&] { m_manager.ChangeScope(def, kWide, m_first, 1, false); },
            *m_first);
        m_mds->Directory().Add({{1, -1}, symbol, "", "", {}});
        Measure(
            "check that decides for MDS to its image, us", 10, true,
            [&] { m_threads.Post([this] { m_manager.CheckProviderPendingSubscriptions(); }); }, *m_first);
        m_mds->Directory().Rename(1, symbol, renamed);
        Measure(
            "rename to image, us", 10, true, [&] { m_manager.ChangeSymbol(1, symbol, renamed); }, *m_first);
        m_manager.Unsubscribe(def, m_second, 2);
        const std::uint64_t begin = Now_ns();
        m_manager.Unsubscribe(def, m_first, 1);
        while (m_simple.GetRegistry().GetSize() != 0)
        {
            std::this_thread::yield();
        }
        Note("last unsubscribe to deleted, us", begin);
    }

    template <class Request>
    void Measure(const char* name, std::uint32_t levels, bool wantsNewEpoch, Request request, WaitingObserver& observer)
    {
        observer.Expect(levels, wantsNewEpoch);
        const std::uint64_t begin = Now_ns();
        request();
        observer.Wait();
        Note(name, begin);
    }
    void Note(const char* name, std::uint64_t begin_ns)
    {
        const double time_us = static_cast<double>(Now_ns() - begin_ns) / 1000;
        const auto found =
            std::find_if(m_times.begin(), m_times.end(), [&](const auto& entry) { return entry.first == name; });
        (found == m_times.end() ? m_times.insert(found, {name, {}}) : found)->second.push_back(time_us);
    }

    Threads m_threads;
    const std::shared_ptr<PromptProvider> m_zel = std::make_shared<PromptProvider>(ProviderType::Zel);
    const std::shared_ptr<PromptProvider> m_mds = std::make_shared<PromptProvider>(ProviderType::Mds);
    SimpleSubscriptionMgr m_simple{MarketTable({{1, "ONE", 5, 20, 0}}), m_threads.pool,
                                   std::make_shared<AsyncDispatcher>("compare")};
    CompositeSubscriptionMgr m_manager{&m_simple};
    LocalObserverFactory m_factory;
    const std::shared_ptr<WaitingObserver> m_first = std::make_shared<WaitingObserver>();
    const std::shared_ptr<WaitingObserver> m_second = std::make_shared<WaitingObserver>();
    std::uint64_t m_last = 0;
    std::vector<std::pair<std::string, std::vector<double>>> m_times;
};

/// What none of them can be quicker than: a post to the queue, and from there one to an executor.
Figures RunHops()
{
    Threads threads;
    const std::shared_ptr<Executor> executor = threads.pool->MakeExecutor();
    std::vector<double> times;
    for (int i = 0; i < kTimes; ++i)
    {
        std::atomic<bool> came{false};
        const std::uint64_t begin = Now_ns();
        threads.Post([&] { executor->Post([&] { came.store(true); }); });
        while (!came.load())
        {
            std::this_thread::yield();
        }
        times.push_back(static_cast<double>(Now_ns() - begin) / 1000);
    }
    std::sort(times.begin(), times.end());
    const double median = times[times.size() / 2];
    Figures figures;
    for (const char* const name :
         {"first subscribe to image, us", "join to image, us", "wider scope to wider book, us",
          "check that decides for MDS to its image, us", "rename to image, us", "last unsubscribe to deleted, us"})
    {
        figures.emplace_back(name, median);
    }
    return figures;
}

} // namespace

void CompareLifeCycles(Runner& runner)
{
    runner.Run({"life cycles",
                "one instrument, medians of 200",
                {{"CompositeSubscriptionMgr", [] { return LifeCycles().Run(); }},
                 {"floor: a post to the queue, one to an executor", [] { return RunHops(); }}}});
}

} // namespace compare
