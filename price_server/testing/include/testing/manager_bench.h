#pragma once

#include "composite_price/default_composite_price_factory.h"
#include "price_unifier/source/composite_subscription_mgr.h"
#include "simple_subscription/simple_subscription_mgr.h"
#include "testing/event_log.h"
#include "testing/hand_driven_executors.h"
#include "testing/hand_driven_queue.h"
#include "testing/hand_driven_time.h"
#include "testing/log_capture.h"
#include "testing/manager_test_access.h"
#include "testing/recording_observers.h"
#include "testing/scripted_provider.h"

#include <memory>
#include <string>

namespace ps_ns::testing
{

/// A manager on its real collaborators, with scripted providers, and with queue, executors and time in the test's hand.
/// Everything records into one sequence. Members come in the order in which a server starts; the destructor stops in
/// the server's order.
///
/// Markets: 1 "ONE" (default depth 5, maximum 20), 2 "TWO" (10, 100). Providers: ZEL and MDS, or MDS alone.
class ManagerBench
{
public:
    struct Options
    {
        bool withZel = true;
        bool withMds = true;
        bool init = true; ///< UnitTestInit with the configuration
        std::string configuration = R"(<PriceServer><General SkipUnchangedSnapshots="0"/></PriceServer>)";
        unsigned emptySuppressInterval_ms = 0; ///< of market 2
    };

    ManagerBench();
    explicit ManagerBench(const Options& options);
    ~ManagerBench();
    ManagerBench(const ManagerBench&) = delete;
    ManagerBench& operator=(const ManagerBench&) = delete;

    /// Runs the queue and the executors until both are empty.
    void Run();
    /// Ends the manager as the server does; the destructor does it otherwise.
    void DestroyManager();

    std::shared_ptr<RecordingObserver> MakeObserver(const std::string& name);
    std::shared_ptr<RecordingFlexibleObserver> MakeFlexibleObserver(const std::string& name);
    CompositeSubscriptionMgrTestAccess Access() { return CompositeSubscriptionMgrTestAccess(*manager); }
    /// Tells a provider's directory of an instrument that it serves.
    static void List(ScriptedProvider& provider, const CompositeInstrumentDef& def);
    /// The providers have read their directories of markets 1 and 2.
    void CompleteDirectories();

    EventLog events;
    HandDrivenTime time;
    HandDrivenQueue queue;
    std::shared_ptr<HandDrivenExecutors> executors;
    std::unique_ptr<SimpleSubscriptionMgr> simple;
    std::shared_ptr<ScriptedProvider> zel; ///< null without
    std::shared_ptr<ScriptedProvider> mds; ///< null without
    std::shared_ptr<Config> config;
    std::unique_ptr<CompositeSubscriptionMgr> manager;
    RecordingObserverFactory factory;

private:
    LogCapture m_capture;
};

/// An instrument of market 1 that wants its direct component only; `instrumentId` comes from the symbol.
CompositeInstrumentDef MakeDef(const std::string& symbol, short marketId = 1);
/// A synthetic of one leg.
CompositeInstrumentDef MakeSyntheticDef(const std::string& symbol, const std::string& legExchange = "ICE",
                                        short legMarketId = 1);

} // namespace ps_ns::testing
