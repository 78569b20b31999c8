#pragma once

#include "testing/manager_bench.h"

#include "base/queue_thread.h"
#include "price_unifier/source/composite_instrument_subscription.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace ps_ns::testing
{

using Events = std::vector<std::string>;
inline constexpr auto kBid = BookSideType::Bid;

/// Direct clients of market 1 whose symbol is changed. The ZEL provider answers an unsubscribe when the test says so.
class SymbolChange : public ::testing::Test
{
protected:
    SymbolChange() { bench.zel->unsubscribeAnswer = ScriptedProvider::UnsubscribeAnswer::Later; }

    CompositeInstrumentDef Subscribe(const std::string& symbol, std::uint32_t attribute = 0, short marketId = 1)
    {
        CompositeInstrumentDef def = MakeDef(symbol, marketId);
        def.attrC = attribute;
        bench.manager->Subscribe(def, {5, 0, false, false}, observer, 1);
        bench.Run();
        bench.zel->Answer(symbol);
        bench.Run();
        bench.events.Clear();
        return def;
    }
    void Change(const std::string& from, const std::string& to, short marketId = 1)
    {
        bench.manager->ChangeSymbol(marketId, from, to);
        bench.Run();
    }
    Events Take()
    {
        bench.Run();
        return bench.events.Take();
    }
    CompositeInstrumentSubscription* Live(const CompositeInstrumentDef& def)
    {
        return bench.Access().Subscriptions().at(CompositeInstrumentID(def));
    }
    static std::string Tail(const std::string& from, const std::string& to)
    {
        return "oldSymbol=\"" + from + "\" newSymbol=\"" + to + "\" marketId=1";
    }
    static std::string Waiting(int count, const std::string& from, const std::string& to)
    {
        return LogLine(10, "CompositeSubscriptionMgr::ChangeSymbol: waitingResponses=" + std::to_string(count) + " " +
                               Tail(from, to));
    }
    static std::string Resubscribing(const std::string& from, const std::string& to)
    {
        return LogLine(10, "CompositeSubscriptionMgr::ChangeSymbol: all Unsubscribe responses received. "
                           "Resubscribing. " +
                               Tail(from, to));
    }
    static std::string Stuck(const std::string& from, const std::string& to)
    {
        return LogLine(30, "CompositeSubscriptionMgr::ChangeSymbol: at least one Unsubscribe failed! Cannot "
                           "resubscribe. " +
                               Tail(from, to));
    }
    static std::string Subscribed(const std::string& symbol)
    {
        return "zel.Subscribe " + symbol + " component=0 depth=5 interval=0 trades=0 customFields=0";
    }

    ManagerBench bench;
    const std::shared_ptr<RecordingObserver> observer = bench.MakeObserver("A");
};

} // namespace ps_ns::testing
