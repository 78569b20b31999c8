#include "metrics/metrics.h"

#include <gtest/gtest.h>
#include <prometheus/collectable.h>
#include <prometheus/text_serializer.h>

#include <algorithm>
#include <latch>
#include <locale>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

using namespace zel::metrics;

namespace
{

std::string Export()
{
    std::ostringstream page;
    prometheus::TextSerializer().Serialize(page, GetCollectable()->Collect());
    return page.str();
}

/// The exported value of a series, as "name" or "name{label="value"}" spells it; nothing when it is not exported.
std::optional<double> Exported(const std::string& series)
{
    std::istringstream page(Export());
    for (std::string line; std::getline(page, line);)
    {
        if (line.starts_with(series + " "))
        {
            return std::stod(line.substr(series.size() + 1));
        }
    }
    return std::nullopt;
}

std::string FailureOf(const Metric& metric)
{
    try
    {
        CreateGauge(metric);
        DestroyGauge(metric);
        return "";
    }
    catch (const std::invalid_argument& error)
    {
        return error.what();
    }
}

const Metric kDepth{"test_depth", "Tasks in the queue", {}};
const Metric kOther{"test_other", "Another", {}};

} // namespace

TEST(Gauge, IsHarmlessByDefault)
{
    Gauge gauge;
    gauge.Set(5);
    ++gauge;
    --gauge;
    gauge += 3;
    gauge -= 2;
    EXPECT_EQ(gauge.Get(), 0.0);
    EXPECT_FALSE(gauge);
    gauge.Reset();
    EXPECT_EQ(Export(), "");
}

TEST(Gauge, CountsAndKeepsFractions)
{
    Gauge gauge = CreateGauge(kDepth);
    EXPECT_TRUE(gauge);
    EXPECT_EQ(gauge.Get(), 0.0);
    gauge.Set(4);
    ++gauge;
    EXPECT_EQ(gauge.Get(), 5.0);
    --gauge;
    gauge += 2.5;
    gauge -= 10;
    EXPECT_EQ(gauge.Get(), -3.5);
    gauge += -1;
    gauge -= -0.5;
    EXPECT_EQ(gauge.Get(), -4.0);
    DestroyGauge(kDepth);
}

TEST(Gauge, IsSharedByCopies)
{
    Gauge gauge = CreateGauge(kDepth);
    Gauge copy = gauge;
    ++copy;
    EXPECT_EQ(gauge.Get(), 1.0);
    gauge.Reset();
    EXPECT_EQ(gauge.Get(), 0.0);
    EXPECT_EQ(copy.Get(), 1.0);
    EXPECT_EQ(Exported("test_depth"), 1.0);
    DestroyGauge(kDepth);
}

TEST(Gauge, KeepsWorkingUnexportedAfterItIsDestroyed)
{
    Gauge gauge = CreateGauge(kDepth);
    DestroyGauge(kDepth);
    ++gauge;
    EXPECT_EQ(gauge.Get(), 1.0);
    EXPECT_EQ(Export(), "");
}

TEST(Gauge, LosesNoIncrementOfSeveralThreads)
{
    constexpr int kThreads = 4;
    constexpr int kIncrements = 5000;
    const Gauge gauge = CreateGauge(kDepth);
    std::latch start(kThreads);
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int i = 0; i < kThreads; ++i)
    {
        threads.emplace_back(
            [&start, handle = gauge]() mutable
            {
                start.arrive_and_wait();
                for (int count = 0; count < kIncrements; ++count)
                {
                    ++handle;
                    handle += 2;
                    --handle;
                }
            });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(gauge.Get(), 2.0 * kThreads * kIncrements);
    DestroyGauge(kDepth);
}

TEST(Metrics, AreExportedWithHelpTypeAndLabelsInOrder)
{
    const Metric zel{"test_subscriptions", "Subscriptions \\ by provider", {{"venue", "a\"b"}, {"provider", "zel"}}};
    const Metric mds{"test_subscriptions", "Subscriptions \\ by provider", {{"provider", "mds"}}};
    Gauge zelGauge = CreateGauge(zel);
    Gauge mdsGauge = CreateGauge(mds);
    Gauge depth = CreateGauge(kDepth);
    zelGauge.Set(3);
    mdsGauge.Set(0.5);
    EXPECT_EQ(Export(), "# HELP test_depth Tasks in the queue\n"
                        "# TYPE test_depth gauge\n"
                        "test_depth 0\n"
                        "# HELP test_subscriptions Subscriptions \\ by provider\n"
                        "# TYPE test_subscriptions gauge\n"
                        "test_subscriptions{provider=\"mds\"} 0.5\n"
                        "test_subscriptions{provider=\"zel\",venue=\"a\\\"b\"} 3\n");
    DestroyGauge(zel);
    EXPECT_EQ(Exported("test_subscriptions{provider=\"mds\"}"), 0.5);
    DestroyGauge(mds);
    DestroyGauge(kDepth);
    EXPECT_EQ(Export(), "");
}

TEST(Metrics, WithOneNameAreExportedAsTheirSum)
{
    Gauge first = CreateGauge(kDepth);
    Gauge second = CreateGauge(kDepth);
    first.Set(2);
    second.Set(3);
    EXPECT_EQ(first.Get(), 2.0);
    EXPECT_EQ(Exported("test_depth"), 5.0);
    DestroyGauge(kDepth);
    first.Reset();
    EXPECT_EQ(Exported("test_depth"), 3.0);
    DestroyGauge(kDepth);
    EXPECT_EQ(Exported("test_depth"), std::nullopt);
}

TEST(Metrics, IgnoreTheDestructionOfWhatIsNotRegistered)
{
    const Gauge gauge = CreateGauge(kDepth);
    DestroyGauge(kOther);
    DestroyGauge({"", "", {}});
    DestroyGauge({kDepth.name, kDepth.help, {{"a", "b"}}});
    EXPECT_EQ(Exported("test_depth"), 0.0);
    DestroyGauge(kDepth);
    DestroyGauge(kDepth);
    EXPECT_EQ(Export(), "");
}

TEST(Metrics, StartAtZeroWhenANameIsUsedAgain)
{
    Gauge old = CreateGauge(kDepth);
    old.Set(7);
    DestroyGauge(kDepth);
    const Gauge gauge = CreateGauge({kDepth.name, "Another help text", {}});
    EXPECT_EQ(Exported("test_depth"), 0.0);
    DestroyGauge(kDepth);
}

TEST(Metrics, RefuseNamesThatPrometheusDoesNotAccept)
{
    EXPECT_EQ(FailureOf({"", "h", {}}), "metric '': not a name for a metric");
    EXPECT_EQ(FailureOf({"a b", "h", {}}), "metric 'a b': not a name for a metric");
    EXPECT_EQ(FailureOf({"1a", "h", {}}), "metric '1a': not a name for a metric");
    EXPECT_EQ(FailureOf({"a", "h", {{"b-c", "v"}}}), "metric 'a': 'b-c' is not a name for a label");
    EXPECT_EQ(FailureOf({"a", "h", {{"__b", "v"}}}), "metric 'a': '__b' is not a name for a label");
    EXPECT_EQ(FailureOf({"a:b_1", "h", {{"b1", "any value"}}}), "");
    EXPECT_EQ(Export(), "");
}

TEST(Metrics, RefuseASecondHelpTextForAName)
{
    const Gauge gauge = CreateGauge(kDepth);
    EXPECT_EQ(FailureOf({"test_depth", "Else", {{"a", "b"}}}),
              "metric 'test_depth': help text 'Else', but it is registered with 'Tasks in the queue'");
    EXPECT_EQ(Exported("test_depth"), 0.0);
    DestroyGauge(kDepth);
    EXPECT_EQ(Export(), "");
}

TEST(Metrics, MayBeCreatedDestroyedAndCollectedFromSeveralThreads)
{
    constexpr int kThreads = 3;
    constexpr int kRounds = 200;
    std::latch start(kThreads + 1);
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int i = 0; i < kThreads; ++i)
    {
        threads.emplace_back(
            [&start]
            {
                start.arrive_and_wait();
                for (int round = 0; round < kRounds; ++round)
                {
                    Gauge gauge = CreateGauge(kDepth);
                    ++gauge;
                    DestroyGauge(kDepth);
                }
            });
    }
    start.arrive_and_wait();
    double highest = 0;
    for (int round = 0; round < kRounds; ++round)
    {
        highest = std::max(highest, Exported("test_depth").value_or(0));
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_LE(highest, kThreads);
    EXPECT_EQ(Export(), "");
}

TEST(Store, TakesItsGaugesBackWhenItDies)
{
    {
        Store<Gauge, 2> store;
        store.Create(0, kDepth);
        store.Create(1, kOther);
        ++store[1];
        EXPECT_EQ(Exported("test_depth"), 0.0);
        EXPECT_EQ(Exported("test_other"), 1.0);
    }
    EXPECT_EQ(Export(), "");
}

TEST(Store, LeavesTheGaugesOfASecondStoreWithTheSameNamesAlone)
{
    Store<Gauge, 2> first;
    first.Create(0, kDepth);
    first[0].Set(2);
    {
        Store<Gauge, 2> second;
        second.Create(0, kDepth);
        EXPECT_EQ(second[0].Get(), 0.0);
        second[0] += 5;
        EXPECT_EQ(first[0].Get(), 2.0);
        EXPECT_EQ(Exported("test_depth"), 7.0);
    }
    EXPECT_EQ(first[0].Get(), 2.0);
    EXPECT_EQ(Exported("test_depth"), 2.0);
    ++first[0];
    EXPECT_EQ(Exported("test_depth"), 3.0);
}

TEST(Store, IgnoresAnIndexOutsideIt)
{
    Store<Gauge, 2> store;
    store.Create(2, kDepth);
    store.Create(4'000'000'000U, kDepth);
    EXPECT_EQ(Export(), "");
}

TEST(Store, HoldsHarmlessGaugesUntilTheyAreCreated)
{
    Store<Gauge, 1> store;
    ++store[0];
    const auto& constant = store;
    EXPECT_EQ(constant[0].Get(), 0.0);
}

TEST(Store, TakesBackWhatASlotHeldWhenItIsCreatedAgain)
{
    Store<Gauge, 1> store;
    store.Create(0, kDepth);
    store[0].Set(4);
    store.Create(0, kDepth);
    EXPECT_EQ(Exported("test_depth"), 0.0);
    store.Create(0, {kDepth.name, "Another help text", {}});
    EXPECT_NE(Export().find("# HELP test_depth Another help text\n"), std::string::npos);
    store.Create(0, kOther);
    EXPECT_EQ(Exported("test_depth"), std::nullopt);
    EXPECT_EQ(Exported("test_other"), 0.0);
}

TEST(Store, TakesBackASlotWhoseHandleWasLetGo)
{
    Store<Gauge, 1> store;
    store.Create(0, kDepth);
    store[0].Reset();
    store.Create(0, kOther);
    EXPECT_EQ(Exported("test_depth"), std::nullopt);
}

TEST(Store, TakesNothingOfOthersBackAfterACreateThatWasRefused)
{
    const Gauge other = CreateGauge(kDepth);
    {
        Store<Gauge, 1> store;
        store.Create(0, kOther);
        EXPECT_THROW(store.Create(0, {kDepth.name, "Another help text", {}}), std::invalid_argument);
        EXPECT_FALSE(store[0]);
        EXPECT_EQ(Exported("test_other"), std::nullopt);
    }
    EXPECT_EQ(Exported("test_depth"), 0.0);
    DestroyGauge(kDepth);
}
