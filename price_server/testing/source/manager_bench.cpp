#include "testing/manager_bench.h"

#include "config/config.h"

#include <functional>

namespace ps_ns::testing
{

ManagerBench::ManagerBench()
    : ManagerBench(Options{})
{
}

ManagerBench::ManagerBench(const Options& options)
    : executors(std::make_shared<HandDrivenExecutors>())
    , simple(std::make_unique<SimpleSubscriptionMgr>(
          MarketTable({{1, "ONE", 5, 20, 0}, {2, "TWO", 10, 100, options.emptySuppressInterval_ms}}), executors,
          std::make_shared<AsyncDispatcher>("SimpleSubscriptionMgr")))
    , config(Config::LoadText(options.configuration, "test"))
    , manager(std::make_unique<CompositeSubscriptionMgr>(simple.get()))
    , factory(events, &queue.Get())
    , m_capture(events)
{
    if (options.withZel)
    {
        zel = std::make_shared<ScriptedProvider>(ProviderType::Zel, events);
        simple->AddProvider(zel);
    }
    if (options.withMds)
    {
        mds = std::make_shared<ScriptedProvider>(ProviderType::Mds, events);
        simple->AddProvider(mds);
    }
    if (options.init)
    {
        manager->UnitTestInit(config, &queue.Get(), std::make_shared<DefaultCompositePriceFactory>());
        events.Clear();
    }
}

ManagerBench::~ManagerBench()
{
    DestroyManager();
}

void ManagerBench::Run()
{
    while (queue.RunAll() + executors->RunAll() != 0)
    {
    }
}

void ManagerBench::DestroyManager()
{
    if (manager == nullptr)
    {
        return;
    }
    for (const auto& provider : {zel, mds})
    {
        if (provider != nullptr)
        {
            provider->Stop();
        }
    }
    queue.RunAll();
    queue.Get().shutdown();
    queue.RunAll();
    executors->Stop();
    manager.reset();
    simple.reset();
}

std::shared_ptr<RecordingObserver> ManagerBench::MakeObserver(const std::string& name)
{
    return std::make_shared<RecordingObserver>(name, events, &queue.Get());
}

std::shared_ptr<RecordingFlexibleObserver> ManagerBench::MakeFlexibleObserver(const std::string& name)
{
    return std::make_shared<RecordingFlexibleObserver>(name, events, &queue.Get());
}

void ManagerBench::List(ScriptedProvider& provider, const CompositeInstrumentDef& def)
{
    provider.Directory().Add({{def.marketId, def.submarketId}, def.GetSymbol(), def.instrument.exchange, {}, {}});
}

void ManagerBench::CompleteDirectories()
{
    for (const auto& provider : {zel, mds})
    {
        if (provider != nullptr)
        {
            provider->Directory().MarkComplete(1);
            provider->Directory().MarkComplete(2);
        }
    }
}

CompositeInstrumentDef MakeDef(const std::string& symbol, short marketId)
{
    CompositeInstrumentDef def;
    def.instrumentId = std::hash<std::string>()(symbol);
    def.marketId = marketId;
    def.submarketId = -1;
    def.instrument = {symbol, "EX"};
    return def;
}

CompositeInstrumentDef MakeSyntheticDef(const std::string& symbol, const std::string& legExchange, short legMarketId)
{
    CompositeInstrumentDef def = MakeDef(symbol);
    auto instrument = std::make_shared<LegInstrument>();
    instrument->instrumentId = 77;
    instrument->marketId = legMarketId;
    instrument->def = {symbol + "-LEG", legExchange};
    auto leg = std::make_shared<SyntheticLeg>();
    leg->instrument = std::move(instrument);
    def.legs.push_back(std::move(leg));
    return def;
}

} // namespace ps_ns::testing
