#include "async/thread_pool.h"
#include "clocks.h"
#include "common/queue_reader.h"
#include "composite_price/default_composite_price_factory.h"
#include "config/config.h"
#include "live_manager.h"
#include "price_unifier/source/composite_subscription_mgr.h"
#include "quiet_observers.h"
#include "sample_def.h"
#include "simple_subscription/simple_subscription_mgr.h"

#include <CLI/CLI.hpp>

#include <chrono>
#include <cstdio>
#include <memory>
#include <thread>

using namespace ps_ns;

/// What a server's threads cost while nothing happens: the queue's reader, the executors' pool and the timers, with so
/// many live subscriptions and no data. Exits with 1 when it is 1 % of a core or more.
int main(int argc, char** argv)
{
    CLI::App app("Measures the processor time of idle subscriptions.");
    std::uint64_t live = 10'000;
    unsigned seconds = 10;
    app.add_option("--live", live, "Live subscriptions");
    app.add_option("--seconds", seconds, "How long to watch");
    CLI11_PARSE(app, argc, argv);
    zel::logging::g_minLogLevel = 100;

    DataQueue<DataMsgTask> queue("idle_check", zel::metrics::Gauge());
    const auto pool = std::make_shared<ThreadPool>(2);
    const auto timers = std::make_shared<AsyncDispatcher>("idle_check");
    auto simple = std::make_unique<SimpleSubscriptionMgr>(MarketTable({{1, "ONE", 5, 20, 0}}), pool, timers);
    simple->AddProvider(std::make_shared<compare::QuietProvider>());
    auto manager = std::make_unique<CompositeSubscriptionMgr>(simple.get());
    manager->Init(Config::LoadText("<PriceServer/>", "idle_check"), &queue,
                  std::make_shared<DefaultCompositePriceFactory>());
    QueueReader<> reader(queue);
    reader.Start();
    const auto observer = std::make_shared<compare::QuietObserver>();
    for (std::uint64_t id = 0; id < live; ++id)
    {
        manager->Subscribe(compare::MakeSampleDef(id), {5, 0, false, false}, observer, 1);
    }
    while (queue.size() != 0)
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    std::this_thread::sleep_for(std::chrono::seconds(1));

    const std::uint64_t begin_ns = compare::ReadClock_ns(CLOCK_PROCESS_CPUTIME_ID);
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    const std::uint64_t used_ns = compare::ReadClock_ns(CLOCK_PROCESS_CPUTIME_ID) - begin_ns;
    const double percent = static_cast<double>(used_ns) / (static_cast<double>(seconds) * 1e9) * 100;
    std::printf("%llu live subscriptions, no data: %.2f %% of a core over %u s\n",
                static_cast<unsigned long long>(live), percent, seconds);

    manager->Shutdown();
    queue.shutdown();
    reader.Stop();
    pool->Stop();
    manager.reset();
    simple.reset();
    return percent < 1 ? 0 : 1;
}
