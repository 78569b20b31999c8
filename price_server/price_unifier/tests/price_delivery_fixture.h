#pragma once

#include "testing/manager_bench.h"

#include "price_unifier/source/composite_instrument_subscription.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace ps_ns::testing
{

using Events = std::vector<std::string>;
inline constexpr auto kBid = BookSideType::Bid;
inline constexpr auto kAsk = BookSideType::Ask;

/// One direct client of one instrument with direct and implied components, both answered.
class PriceDeliveryTest : public ::testing::Test
{
protected:
    void Start(const ManagerBench::Options& options = {}, const CompositeSubscriptionInfo& info = {5, 0, true, true},
               short marketId = 1)
    {
        bench.reset(); // benches do not nest
        bench = std::make_unique<ManagerBench>(options);
        def = MakeDef("X", marketId);
        def.components = {true, true, false};
        observer = bench->MakeObserver("A");
        handle = bench->manager->Subscribe(def, info, observer, 1).first;
        bench->Run();
        bench->zel->Answer("X");
        bench->zel->Answer("IM_X");
        bench->Run();
        bench->events.Clear();
    }
    Events Delivered()
    {
        bench->Run();
        return bench->events.Take();
    }
    CompositeInstrumentSubscription& Live() { return *bench->Access().Subscriptions().at(CompositeInstrumentID(def)); }

    std::unique_ptr<ManagerBench> bench;
    CompositeInstrumentDef def;
    std::shared_ptr<RecordingObserver> observer;
    unsigned long handle = 0;
};

} // namespace ps_ns::testing
