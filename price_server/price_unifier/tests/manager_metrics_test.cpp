#include "testing/manager_bench.h"

#include "price_unifier/source/composite_instrument_subscription.h"

#include <gtest/gtest.h>
#include <prometheus/collectable.h>
#include <prometheus/text_serializer.h>

#include <limits>

using namespace ps_ns;
using namespace ps_ns::testing;

namespace
{

using Events = std::vector<std::string>;

std::string Export()
{
    return prometheus::TextSerializer().Serialize(zel::metrics::GetCollectable()->Collect());
}

} // namespace

TEST(ManagerMetrics, ExportFiveGaugesWithTheirHelpTexts)
{
    const ManagerBench bench;
    const std::string page = Export();
    for (const char* const text :
         {"# HELP unifier_subscriptions_pending_provider number of subscriptions pending provider selection logic\n",
          "# HELP unifier_subscriptions_zel number of subscriptions using the ZEL provider\n",
          "# HELP unifier_subscriptions_mds number of subscriptions using the in-process MDS provider\n",
          "# HELP unifier_subscriptions_synthetic number of subscriptions using the unifier synthetics feature\n",
          "# HELP unifier_subscriptions_synthetic_flexible number of subscriptions using the unifier synthetics "
          "feature "
          "on the flexible api\n"})
    {
        EXPECT_NE(page.find(text), std::string::npos) << text << page;
    }
}

TEST(ManagerMetrics, BearTheirNamesInTheOrderOfTheirIndexes)
{
    ManagerBench bench;
    for (unsigned index = 0; index < 5; ++index)
    {
        bench.Access().Gauges()[index].Set(10.0 + index);
    }
    const std::string page = Export();
    for (const char* const line : {"\nunifier_subscriptions_pending_provider 10\n", "\nunifier_subscriptions_zel 11\n",
                                   "\nunifier_subscriptions_mds 12\n", "\nunifier_subscriptions_synthetic 13\n",
                                   "\nunifier_subscriptions_synthetic_flexible 14\n"})
    {
        EXPECT_NE(page.find(line), std::string::npos) << line << page;
    }
}

TEST(ManagerMetrics, LeaveTheExportWithTheManager)
{
    {
        const ManagerBench bench;
        EXPECT_NE(Export().find("unifier_subscriptions_zel 0"), std::string::npos);
    }
    EXPECT_EQ(Export().find("unifier_subscriptions_"), std::string::npos);
}

TEST(ManagerMetrics, OfTwoManagersInOneProcessDoNotDisturbEachOther)
{
    ManagerBench outer;
    outer.manager->Subscribe(MakeDef("X"), {}, outer.MakeObserver("A"), 1);
    outer.Run();
    {
        CompositeSubscriptionMgr inner(outer.simple.get());
        inner.UnitTestInit(outer.config, &outer.queue.Get(), std::make_shared<DefaultCompositePriceFactory>());
        EXPECT_EQ(inner.GetSubscriptionCounts(), (std::pair<std::uint64_t, std::uint64_t>(0, 0)));
        EXPECT_EQ(outer.manager->GetSubscriptionCounts(), (std::pair<std::uint64_t, std::uint64_t>(1, 0)));
        inner.SubscriptionGaugeInstance(ProviderType::Mds).Set(4);
    }
    EXPECT_EQ(outer.manager->GetSubscriptionCounts(), (std::pair<std::uint64_t, std::uint64_t>(1, 0)));
    EXPECT_NE(Export().find("unifier_subscriptions_zel 1"), std::string::npos);
}

TEST(ManagerMetrics, ChooseTheMdsGaugeForMdsAndTheZelGaugeForEverythingElse)
{
    ManagerBench bench;
    const auto* const mds = &bench.manager->SubscriptionGaugeInstance(ProviderType::Mds);
    const auto* const zel = &bench.manager->SubscriptionGaugeInstance(ProviderType::Zel);
    EXPECT_NE(mds, zel);
    EXPECT_EQ(&bench.manager->SubscriptionGaugeInstance(static_cast<ProviderType::Value>(7)), zel);
    EXPECT_EQ(&bench.manager->SubscriptionGaugeInstance(static_cast<ProviderType::Value>(-1)), zel);
    EXPECT_EQ(zel, &bench.Access().Gauges()[1]);
    EXPECT_EQ(mds, &bench.Access().Gauges()[2]);
    EXPECT_EQ(&bench.manager->SubscriptionPendingGaugeInstance(), &bench.Access().Gauges()[0]);
}

TEST(ManagerMetrics, ChooseTheGaugeOfTheProviderThatASubscriptionReports)
{
    ManagerBench bench;
    const CompositeInstrumentDef def = MakeDef("X");
    bench.List(*bench.mds, def);
    bench.manager->Subscribe(def, {}, bench.MakeObserver("A"), 1);
    bench.Run();
    const auto* const subscription = bench.Access().Subscriptions().at(CompositeInstrumentID(def));
    EXPECT_EQ(&bench.manager->SubscriptionGaugeInstance(subscription), &bench.Access().Gauges()[2]);
}

TEST(ManagerMetrics, RoundCountsToTheNearestWholeNumberHalvesUp)
{
    ManagerBench bench;
    auto& zel = bench.manager->SubscriptionGaugeInstance(ProviderType::Zel);
    auto& mds = bench.manager->SubscriptionGaugeInstance(ProviderType::Mds);
    using Counts = std::pair<std::uint64_t, std::uint64_t>;
    zel.Set(2.5);
    mds.Set(2.4);
    EXPECT_EQ(bench.manager->GetSubscriptionCounts(), Counts(3, 2));
    zel.Set(0);
    mds.Set(-3);
    EXPECT_EQ(bench.manager->GetSubscriptionCounts(), Counts(0, 0));
    zel.Set(9223372036854775808.0); // 2^63
    mds.Set(13835058055282163712.0);
    EXPECT_EQ(bench.manager->GetSubscriptionCounts(), Counts(9223372036854775808U, 13835058055282163712U));
    zel.Set(std::numeric_limits<double>::quiet_NaN());
    mds.Set(1e300);
    EXPECT_EQ(bench.manager->GetSubscriptionCounts(), Counts(0, std::numeric_limits<std::uint64_t>::max()));
}

TEST(CallbackTimes, BeginWithTheLargestMinimumAndNothingElse)
{
    ManagerBench bench;
    const CallbackTimeStats stats = bench.manager->GetAndResetSnapshotCallbackTime();
    EXPECT_EQ(stats.min.load(), std::numeric_limits<std::uint64_t>::max());
    EXPECT_EQ(stats.max.load(), 0U);
    EXPECT_EQ(stats.total.load(), 0U);
    EXPECT_EQ(stats.count.load(), 0U);
}

TEST(CallbackTimes, GatherMinimumMaximumTotalAndCountUntilTheyAreReset)
{
    ManagerBench bench;
    for (const unsigned long duration : {5UL, 3UL, 9UL})
    {
        bench.manager->UpdateSnapshotTime(duration);
    }
    bench.manager->UpdateTradesTime(4);
    const CallbackTimeStats& live = bench.manager->GetSnapshotCallbackTime();
    EXPECT_EQ(live.min.load(), 3U);

    const CallbackTimeStats copy = bench.manager->GetAndResetSnapshotCallbackTime();
    EXPECT_EQ(copy.min.load(), 3U);
    EXPECT_EQ(copy.max.load(), 9U);
    EXPECT_EQ(copy.total.load(), 17U);
    EXPECT_EQ(copy.count.load(), 3U);
    EXPECT_EQ(live.min.load(), std::numeric_limits<std::uint64_t>::max());
    EXPECT_EQ(live.max.load() + live.total.load() + live.count.load(), 0U);

    EXPECT_EQ(bench.manager->GetTradesCallbackTime().count.load(), 1U);
    EXPECT_EQ(bench.manager->GetAndResetTradesCallbackTime().total.load(), 4U);
    EXPECT_EQ(bench.manager->GetTradesCallbackTime().count.load(), 0U);
}

TEST(DumpSubscriptions, RunsOnTheQueueThreadAndHandsItsArgumentOn)
{
    ManagerBench bench;
    bench.manager->Subscribe(MakeDef("X"), {}, bench.MakeObserver("A"), 1);
    bench.manager->Subscribe(MakeDef("Y"), {}, bench.MakeObserver("A"), 1);
    bench.Run();
    bench.events.Clear();
    bench.manager->DumpSubscriptions(1);
    EXPECT_TRUE(bench.events.Take().empty());
    bench.Run();
    const Events lines = bench.events.Take();
    ASSERT_EQ(lines.size(), 2U); // one subscription, and how many there are
    EXPECT_EQ(lines[1], LogLine(10, "DumpSubscriptions: 2 in all"));
}
