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

/// A manager with `live` direct subscriptions, without a log.
class LiveBench
{
public:
    explicit LiveBench(std::uint64_t live)
    {
        zel::logging::g_minLogLevel = 100;
        observer = std::make_shared<RecordingObserver>("A", events, nullptr);
        for (; next < live; ++next)
        {
            bench.manager->Subscribe(MakeLargeDef(next), {5, 0, false, false}, observer, 1);
        }
        bench.Run();
        bench.events.Clear();
    }

    EventLog events;
    ManagerBench bench;
    std::shared_ptr<ICompositePriceObserver> observer;
    std::uint64_t next = 0;
};

/// From the caller to the subscribed component: request, action, subscription, provider.
void DirectSubscribe(benchmark::State& state)
{
    LiveBench live(static_cast<std::uint64_t>(state.range(0)));
    for (auto _ : state)
    {
        state.PauseTiming();
        const CompositeInstrumentDef def = MakeLargeDef(live.next++);
        live.bench.events.Clear();
        state.ResumeTiming();
        live.bench.manager->Subscribe(def, {5, 0, false, false}, live.observer, 1);
        live.bench.queue.RunAll();
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(DirectSubscribe)->Arg(1000)->Arg(100'000)->Iterations(20'000);

/// A duplicate is refused on the caller's thread.
void RefusedDuplicate(benchmark::State& state)
{
    LiveBench live(static_cast<std::uint64_t>(state.range(0)));
    const CompositeInstrumentDef def = MakeLargeDef(0);
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(live.bench.manager->Subscribe(def, {5, 0, false, false}, live.observer, 1));
    }
}
BENCHMARK(RefusedDuplicate)->Arg(1000);

void ChangeScope(benchmark::State& state)
{
    LiveBench live(static_cast<std::uint64_t>(state.range(0)));
    unsigned long handle = 1;
    bool isDeep = false;
    for (auto _ : state)
    {
        isDeep = handle == 1 ? !isDeep : isDeep;
        live.bench.manager->ChangeScope(handle, {isDeep ? 9 : 5, 0, false, false}, 1, false);
        live.bench.queue.RunAll();
        live.bench.executors->RunAll();
        handle = handle % static_cast<unsigned long>(state.range(0)) + 1;
        live.bench.events.Clear();
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(ChangeScope)->Arg(1000);

} // namespace

BENCHMARK_MAIN();
