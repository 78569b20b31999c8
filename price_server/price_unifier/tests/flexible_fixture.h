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

/// Flexible clients of one instrument that wants all three components.
class FlexibleSubscribe : public ::testing::Test
{
protected:
    void Subscribe(const std::shared_ptr<RecordingFlexibleObserver>& observer, unsigned long id,
                   const CompositeSubscriptionInfo& info = {5, 0, false, false})
    {
        bench.manager->Subscribe(def, info, bench.factory, observer, id);
        bench.queue.RunAll();
    }
    /// Brings the subscription to life with a first client F, id 1, and forgets what that recorded.
    void Open(const CompositeSubscriptionInfo& info = {5, 0, false, false})
    {
        Subscribe(first, 1, info);
        bench.Run();
        bench.events.Clear();
    }
    Events Take()
    {
        bench.Run();
        return bench.events.Take();
    }
    std::string Request(const std::string& operation, unsigned long id) const
    {
        return "CompositeSubscriptionMgr: " + operation + " request for instrument " + def.ToString() +
               " subscriptionID=" + std::to_string(id);
    }
    bool IsLive() { return bench.Access().Subscriptions().count(CompositeInstrumentID(def)) != 0; }
    CompositeInstrumentSubscription& Live() { return *bench.Access().Subscriptions().at(CompositeInstrumentID(def)); }

    ManagerBench bench;
    const CompositeInstrumentDef def = []
    {
        CompositeInstrumentDef all = MakeDef("X");
        all.components = {true, true, true};
        return all;
    }();
    const std::shared_ptr<RecordingFlexibleObserver> first = bench.MakeFlexibleObserver("F");
    const std::shared_ptr<RecordingFlexibleObserver> second = bench.MakeFlexibleObserver("G");
};

} // namespace ps_ns::testing
