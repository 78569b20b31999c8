#include "testing/manager_bench.h"

#include "async/executor.h"
#include "price_unifier/source/synthetic_price_subscription.h"

#include <gtest/gtest.h>

using namespace ps_ns;
using namespace ps_ns::testing;

namespace
{

using Events = std::vector<std::string>;

Submarket SubmarketOf(const std::string& exchange)
{
    return GetSyntheticExecutorSubmarket(MakeSyntheticDef("S", exchange, 2));
}

CompositeInstrumentDef WithFirstLegOfKind(std::uint32_t kind)
{
    CompositeInstrumentDef def = MakeDef("S");
    auto nested = std::make_shared<SyntheticInstrumentInfo>();
    nested->marketId = 6;
    nested->name = "ICE";
    auto leg = std::make_shared<SyntheticLeg>();
    leg->kind = kind;
    leg->synthetic = nested;
    def.legs.push_back(leg);
    return def;
}

} // namespace

TEST(SyntheticExecutorSubmarket, IsUnknownWithoutLegs)
{
    EXPECT_EQ(GetSyntheticExecutorSubmarket(MakeDef("X")), (Submarket{-1, -1}));
}

TEST(SyntheticExecutorSubmarket, IsOneOnIceAndTwoOnItsOptions)
{
    EXPECT_EQ(SubmarketOf("ICE"), (Submarket{2, 1}));
    EXPECT_EQ(SubmarketOf("ICE_L"), (Submarket{2, 1}));
    EXPECT_EQ(SubmarketOf("ICEO"), (Submarket{2, 2}));
    EXPECT_EQ(SubmarketOf("ICE_LO"), (Submarket{2, 2}));
}

TEST(SyntheticExecutorSubmarket, IsTheDigitBehindAnUnderscoreAtTheEndOfTheName)
{
    EXPECT_EQ(SubmarketOf("XYZ_3"), (Submarket{2, 3}));
    EXPECT_EQ(SubmarketOf("A_7"), (Submarket{2, 7}));
    EXPECT_EQ(SubmarketOf("ICE_0"), (Submarket{2, 0}));
}

TEST(SyntheticExecutorSubmarket, IsUnknownForOtherNamesWhichKeepTheirMarket)
{
    for (const char* const name : {"XYZ_A", "AB", "_7", "7", "", "XYZ7", "ICE_12", "ice"})
    {
        EXPECT_EQ(SubmarketOf(name), (Submarket{2, -1})) << name;
    }
}

TEST(SyntheticExecutorSubmarket, IsUnknownForALegThatIsItselfSynthetic)
{
    EXPECT_EQ(GetSyntheticExecutorSubmarket(WithFirstLegOfKind(1)), (Submarket{6, -1}));
}

TEST(SyntheticExecutorSubmarket, HasMarketZeroForALegOfAnUnknownKind)
{
    EXPECT_EQ(GetSyntheticExecutorSubmarket(WithFirstLegOfKind(2)), (Submarket{0, -1}));
}

TEST(SyntheticExecutor, IsTheSubmarketsOwn)
{
    ManagerBench bench;
    const auto executor = bench.manager->GetSyntheticExecutor(MakeSyntheticDef("S", "ICE", 2));
    ASSERT_NE(executor, nullptr);
    EXPECT_EQ(executor, bench.simple->GetExecutor({2, 1}, "EX", "S"));
    EXPECT_NE(executor, bench.manager->GetSyntheticExecutor(MakeSyntheticDef("S", "ICEO", 2)));
    EXPECT_EQ(bench.events.Take(), Events{});
}

TEST(SyntheticExecutor, IsEmptyAndLoggedWhenThereIsNone)
{
    ManagerBench bench;
    const CompositeInstrumentDef def = MakeSyntheticDef("S", "ICE_L", 99);
    EXPECT_EQ(bench.manager->GetSyntheticExecutor(def), nullptr);
    EXPECT_EQ(bench.events.Take(),
              Events{LogLine(30, 0,
                             "CompositeSubscriptionMgr: UnifierSynthetic. no executor for leg0 submarket="
                             "market_id=99 submarket_id=1 " +
                                 def.ToString())});
}

TEST(SyntheticSupport, NeedsAFinalProviderOtherThanMdsAndLegs)
{
    ManagerBench bench;
    const CompositeInstrumentDef synthetic = MakeSyntheticDef("S");
    EXPECT_TRUE(bench.manager->IsSyntheticSupported(synthetic)); // ZEL, final
    EXPECT_FALSE(bench.manager->IsSyntheticSupported(MakeDef("S")));
    bench.zel->Directory().AddMarket(1);
    EXPECT_FALSE(bench.manager->IsSyntheticSupported(synthetic)); // not final
    bench.List(*bench.mds, synthetic);
    EXPECT_FALSE(bench.manager->IsSyntheticSupported(synthetic)); // MDS
}

TEST(FlexibleSynthetic, SubscribeWritesOneLineAndCallsNobody)
{
    ManagerBench bench;
    const CompositeInstrumentDef def = MakeSyntheticDef("S");
    bench.manager->FlexibleSyntheticSubscribe(def, {}, bench.factory, bench.MakeFlexibleObserver("F"), 7);
    EXPECT_EQ(bench.events.Take(), Events{LogLine(30, 0,
                                                  "CompositeSubscriptionMgr: UnifierSynthetic. request for " +
                                                      def.ToString() + " not supported on windows")});
    bench.Run();
    EXPECT_EQ(bench.events.Take(), Events{});
}

TEST(FlexibleSynthetic, OtherEntryPointsDoNothingAndFindNothing)
{
    ManagerBench bench;
    const CompositeInstrumentDef def = MakeSyntheticDef("S");
    const auto observer = bench.MakeFlexibleObserver("F");
    bench.manager->FlexibleSyntheticChangeScope(def, {}, observer, 7, true);
    bench.manager->FlexibleSyntheticUnsubscribe(def, observer, 7);
    const auto subscription = std::make_shared<SyntheticPriceSubscription>(def);
    bench.manager->SyntheticUnsubscribeImpl(subscription, 1);
    bench.manager->FlexibleSyntheticUnsubscribeImpl(subscription);
    EXPECT_EQ(bench.manager->GetSyntheticPriceSubscription(1, def), nullptr);
    EXPECT_EQ(bench.manager->GetFlexibleSyntheticPriceSubscription(def), nullptr);
    EXPECT_EQ(GetLocalObserverShimFromSynthetic(*subscription), nullptr);
    EXPECT_EQ(bench.queue.GetWaiting(), 0U);
    EXPECT_EQ(bench.events.Take(), Events{});
    EXPECT_EQ(subscription.use_count(), 1);
}
