#include "composite_instrument/composite_subscription_state.h"

#include <gtest/gtest.h>

#include <type_traits>
#include <utility>

using namespace ps_ns;

namespace
{

CompositeSubscriptionState MakeLive()
{
    CompositeSubscriptionState state(std::array<bool, 3>{true, false, true});
    state.isStale = true;
    state.provider = 1;
    state.activeScopes[7] = {CompositeSubscriptionInfo{5, 0, true, false}, nullptr};
    state.waitingScopes[8] = {CompositeSubscriptionInfo{6, 100, false, true}, nullptr};
    state.epoch = 3;
    state.symbol = "BTCUSDT";
    state.isLive = true;
    return state;
}

void ExpectACopy(const CompositeSubscriptionState& copy)
{
    EXPECT_TRUE(copy.wantsDirect);
    EXPECT_FALSE(copy.wantsImplied);
    EXPECT_TRUE(copy.wantsAggregated);
    EXPECT_TRUE(copy.isStale);
    EXPECT_EQ(copy.provider, 1);
    ASSERT_EQ(copy.activeScopes.count(7), 1U);
    EXPECT_EQ(std::get<0>(copy.activeScopes.at(7)), (CompositeSubscriptionInfo{5, 0, true, false}));
    ASSERT_EQ(copy.waitingScopes.count(8), 1U);
    EXPECT_EQ(std::get<0>(copy.waitingScopes.at(8)), (CompositeSubscriptionInfo{6, 100, false, true}));
    EXPECT_EQ(copy.epoch, 3U);
    EXPECT_EQ(copy.symbol, "BTCUSDT");
    EXPECT_FALSE(copy.isLive);
}

} // namespace

TEST(CompositeSubscriptionState, TakesTheThreeWantedComponentsInOrder)
{
    const CompositeSubscriptionState implied(std::array<bool, 3>{false, true, false});
    EXPECT_FALSE(implied.wantsDirect);
    EXPECT_TRUE(implied.wantsImplied);
    EXPECT_FALSE(implied.wantsAggregated);
    EXPECT_FALSE(implied.isLive);
    EXPECT_EQ(implied.epoch, 0U);
    EXPECT_TRUE(implied.activeScopes.empty());
    EXPECT_TRUE(implied.waitingScopes.empty());
}

TEST(CompositeSubscriptionState, IsNeverLiveAsACopy)
{
    CompositeSubscriptionState live = MakeLive();
    live.isLive = true;
    const CompositeSubscriptionState copy(live);
    ExpectACopy(copy);
    EXPECT_TRUE(live.isLive);
}

TEST(CompositeSubscriptionState, IsNeverLiveAfterAnAssignment)
{
    CompositeSubscriptionState live = MakeLive();
    live.isLive = true;
    CompositeSubscriptionState target;
    target.isLive = true;
    target.activeScopes[99] = {};
    target = live;
    ExpectACopy(target);
    EXPECT_EQ(target.activeScopes.size(), 1U);
    EXPECT_TRUE(live.isLive);
}

TEST(CompositeSubscriptionState, IsNotLiveAfterAnAssignmentToItselfAndKeepsTheRest)
{
    CompositeSubscriptionState state = MakeLive();
    state.isLive = true;
    const CompositeSubscriptionState& same = state;
    state = same;
    ExpectACopy(state);
}

TEST(CompositeSubscriptionState, IsCopiedWhereItLooksMoved)
{
    CompositeSubscriptionState live = MakeLive();
    live.isLive = true;
    const CompositeSubscriptionState constructed(std::move(live));
    ExpectACopy(constructed);
    EXPECT_TRUE(live.isLive); // NOLINT(bugprone-use-after-move): there is no move
    EXPECT_EQ(live.activeScopes.size(), 1U);
    EXPECT_EQ(live.waitingScopes.size(), 1U);
    EXPECT_EQ(live.symbol, "BTCUSDT");

    CompositeSubscriptionState assigned;
    assigned.isLive = true;
    assigned = std::move(live);
    ExpectACopy(assigned);
    EXPECT_EQ(live.activeScopes.size(), 1U); // NOLINT(bugprone-use-after-move)
    EXPECT_TRUE(live.isLive);
    // A move that could not fail would be one that empties its source.
    static_assert(!std::is_nothrow_move_constructible_v<CompositeSubscriptionState>);
    static_assert(!std::is_nothrow_move_assignable_v<CompositeSubscriptionState>);
}
