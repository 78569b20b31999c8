#include "counted_allocations.h"
#include "testing/manager_bench.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <type_traits>

using namespace ps_ns;
using namespace ps_ns::testing;

// A definition in these tests has a currency of a length that no other string has, so that each copy of the definition
// is one allocation of just that size.

namespace
{

class DefinitionCopies : public ::testing::Test
{
protected:
    DefinitionCopies()
    {
        def.currency = std::string(kMarkedLength, 'c');
        def.components = {true, true, false};
    }

    /// How often the definition is copied by a request, and then by its action and what follows from it.
    struct Counted
    {
        std::uint64_t byTheCaller;
        std::uint64_t later;
    };
    template <class Request>
    Counted Count(Request request)
    {
        const std::uint64_t before = GetMarkedAllocations();
        request();
        const std::uint64_t posted = GetMarkedAllocations();
        bench.Run();
        return {posted - before, GetMarkedAllocations() - posted};
    }
    /// A direct client A with id 1, subscribed.
    unsigned long SubscribeDirect()
    {
        const unsigned long handle = bench.manager->Subscribe(def, scope, observer, 1).first;
        bench.Run();
        return handle;
    }

    ManagerBench bench;
    CompositeInstrumentDef def = MakeDef("X");
    const CompositeSubscriptionInfo scope{5, 0, false, false};
    const std::shared_ptr<ICompositePriceObserver> observer = bench.MakeObserver("A");
    const std::shared_ptr<IFlexiblePriceObserver> flexible = bench.MakeFlexibleObserver("F");
};

} // namespace

static_assert(std::is_nothrow_move_constructible_v<CompositeInstrumentDef>);

TEST_F(DefinitionCopies, AreCountedByTheirCurrency)
{
    const std::uint64_t before = GetMarkedAllocations();
    const CompositeInstrumentDef copy = def;
    EXPECT_EQ(GetMarkedAllocations(), before + 1);
    EXPECT_EQ(copy.currency, def.currency);
}

TEST_F(DefinitionCopies, OfADirectSubscribeAreTheHandlesAndTheActionsWhichTheSubscriptionTakesOver)
{
    const Counted counted = Count([&] { bench.manager->Subscribe(def, scope, observer, 1); });
    EXPECT_EQ(counted.byTheCaller, 2U); // the handle's and the action's
    EXPECT_EQ(counted.later, 0U);
}

TEST_F(DefinitionCopies, OfARefusedDuplicateAreNone)
{
    SubscribeDirect();
    const Counted counted = Count([&] { bench.manager->Subscribe(def, scope, observer, 2); });
    EXPECT_EQ(counted.byTheCaller + counted.later, 0U);
}

TEST_F(DefinitionCopies, OfAFlexibleSubscribeAreTheActionsWhichTheSubscriptionTakesOver)
{
    const Counted counted = Count([&] { bench.manager->Subscribe(def, scope, bench.factory, flexible, 1); });
    EXPECT_EQ(counted.byTheCaller, 1U);
    EXPECT_EQ(counted.later, 0U);
}

TEST_F(DefinitionCopies, OfARequestForAScopeAreTheActionsOwn)
{
    const unsigned long handle = SubscribeDirect();
    for (const auto& request :
         std::initializer_list<std::function<void()>>{
             [&] {
                 bench.manager->AddScope(handle, {7, 0, false, false}, 2);
             },
             [&] {
                 bench.manager->ChangeScope(handle, {9, 0, false, false}, 2, true);
             },
             [&] { bench.manager->RemoveScope(handle, 2); },
         })
    {
        const Counted counted = Count(request);
        EXPECT_EQ(counted.byTheCaller, 1U);
        EXPECT_EQ(counted.later, 0U);
    }
}

TEST_F(DefinitionCopies, OfAnUnsubscribeByHandleAreTheTeardowns)
{
    const unsigned long handle = SubscribeDirect();
    const Counted counted = Count([&] { bench.manager->Unsubscribe(handle); });
    EXPECT_EQ(counted.byTheCaller, 0U); // the action takes over what the handle had
    EXPECT_LE(counted.later, 1U);       // the teardown's action
}

TEST_F(DefinitionCopies, OfANotificationAreOne)
{
    bench.manager->Subscribe(def, scope, bench.factory, flexible, 1);
    bench.Run();
    // The id is taken: the action's copy, and the one that rides to the executor.
    const Counted counted = Count([&] { bench.manager->Subscribe(def, scope, bench.factory, flexible, 1); });
    EXPECT_EQ(counted.byTheCaller, 1U);
    EXPECT_EQ(counted.later, 1U);
}

TEST_F(DefinitionCopies, AreNotMadeByARefusedDuplicateNorIsAnythingElseAllocated)
{
    SubscribeDirect();
    bench.events.Clear();
    const int level = zel::logging::g_minLogLevel.exchange(100);
    const std::uint64_t before = GetAllocations();
    const auto [handle, result] = bench.manager->Subscribe(def, scope, observer, 2);
    const std::uint64_t after = GetAllocations();
    zel::logging::g_minLogLevel = level;
    EXPECT_EQ(handle, 0U);
    EXPECT_EQ(result, ps_messages_ns::SubscriptionResult::Refused);
    EXPECT_EQ(after, before);
    EXPECT_EQ(bench.queue.GetWaiting(), 0U);
}
