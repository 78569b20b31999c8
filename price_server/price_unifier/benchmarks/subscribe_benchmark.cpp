#include "config/config.h"
#include "testing/manager_bench.h"

#include <benchmark/benchmark.h>

#include <cstdint>

using namespace ps_ns;
using namespace ps_ns::testing;

namespace
{

CompositeInstrumentDef MakeLargeDef(std::uint64_t id)
{
    CompositeInstrumentDef def = MakeDef("INSTRUMENT-WITH-A-NAME-" + std::to_string(id));
    def.instrumentId = id;
    def.currency = "US dollars, spelled out";
    def.properties = {{1, "one"}, {2, "two"}, {3, "a property that does not fit into a short string"}};
    return def;
}

/// Takes every subscription and never answers: what is measured is the manager and the composite subscription.
class QuietProvider final : public IPriceProvider
{
public:
    ProviderType::Value GetType() const override { return ProviderType::Zel; }
    const InstrumentDirectory& GetDirectory() const override { return m_directory; }
    void Start() override {}
    void Stop() override {}
    int Subscribe(const ComponentRequest&, const std::shared_ptr<IComponentListener>& listener) override
    {
        m_listeners.push_back(listener);
        return SubscribeStatus::Subscribed;
    }
    void ChangeScope(const std::shared_ptr<IComponentListener>&, const CompositeSubscriptionInfo&) override {}
    void Unsubscribe(const std::shared_ptr<IComponentListener>& listener) override { listener->OnUnsubscribed(true); }

private:
    InstrumentDirectory m_directory;
    std::vector<std::shared_ptr<IComponentListener>> m_listeners;
};

/// A manager with `live` direct subscriptions, without a log.
class LiveBench
{
public:
    explicit LiveBench(std::uint64_t live)
        : m_level(zel::logging::g_minLogLevel.exchange(100))
        , simple(MarketTable({{1, "ONE", 5, 20, 0}}), executors, std::make_shared<AsyncDispatcher>("benchmark"))
        , manager(std::make_unique<CompositeSubscriptionMgr>(&simple))
        , observer(std::make_shared<RecordingObserver>("A", m_events, nullptr))
    {
        simple.AddProvider(std::make_shared<QuietProvider>());
        manager->UnitTestInit(Config::LoadText("<PriceServer/>", "benchmark"), &queue.Get(),
                              std::make_shared<DefaultCompositePriceFactory>());
        for (; next < live; ++next)
        {
            manager->Subscribe(MakeLargeDef(next), {5, 0, false, false}, observer, 1);
        }
        Run();
    }
    ~LiveBench()
    {
        Run();
        executors->Stop();
        manager.reset();
        zel::logging::g_minLogLevel = m_level;
    }

    void Run()
    {
        queue.RunAll();
        executors->RunAll();
    }

private:
    const int m_level;
    EventLog m_events;
    HandDrivenTime m_time;

public:
    HandDrivenQueue queue;
    std::shared_ptr<HandDrivenExecutors> executors = std::make_shared<HandDrivenExecutors>();
    SimpleSubscriptionMgr simple;
    std::unique_ptr<CompositeSubscriptionMgr> manager;
    std::shared_ptr<ICompositePriceObserver> observer;
    std::uint64_t next = 0;
};

/// From the caller to the subscribed components, in batches: request, action, subscription, provider.
void DirectSubscribe(benchmark::State& state)
{
    constexpr std::int64_t kBatch = 1000;
    LiveBench live(static_cast<std::uint64_t>(state.range(0)));
    std::vector<CompositeInstrumentDef> defs(kBatch);
    for (auto _ : state)
    {
        state.PauseTiming();
        for (CompositeInstrumentDef& def : defs)
        {
            def = MakeLargeDef(live.next++);
        }
        state.ResumeTiming();
        for (const CompositeInstrumentDef& def : defs)
        {
            live.manager->Subscribe(def, {5, 0, false, false}, live.observer, 1);
            live.queue.RunAll();
        }
        state.PauseTiming();
        live.Run();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}
BENCHMARK(DirectSubscribe)->Arg(1000)->Arg(100'000)->Iterations(20);

/// A duplicate is refused on the caller's thread.
void RefusedDuplicate(benchmark::State& state)
{
    LiveBench live(static_cast<std::uint64_t>(state.range(0)));
    const CompositeInstrumentDef def = MakeLargeDef(0);
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(live.manager->Subscribe(def, {5, 0, false, false}, live.observer, 1));
    }
}
BENCHMARK(RefusedDuplicate)->Arg(1000);

/// A direct client's scope grows and shrinks in turn; the executor's part is included.
void ChangeScope(benchmark::State& state)
{
    LiveBench live(static_cast<std::uint64_t>(state.range(0)));
    std::uint64_t changes = 0;
    for (auto _ : state)
    {
        const auto handle = static_cast<unsigned long>(changes % static_cast<std::uint64_t>(state.range(0)) + 1);
        const bool isDeep = (changes / static_cast<std::uint64_t>(state.range(0))) % 2 == 0;
        live.manager->ChangeScope(handle, {isDeep ? 9 : 5, 0, false, false}, 1, false);
        live.Run();
        ++changes;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(ChangeScope)->Arg(1000);

} // namespace

BENCHMARK_MAIN();
