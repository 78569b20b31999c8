#include "server/process_metrics.h"

#include <gtest/gtest.h>
#include <prometheus/collectable.h>
#include <prometheus/metric_family.h>

#include <chrono>
#include <map>

namespace ps_ns
{
namespace
{

TEST(ProcessMetrics, ReadsTheFieldsBehindANameWithParenthesesAndBlanks)
{
    const auto stat = ParseProcessStat("17 (a) b) (c) S 1 17 17 0 -1 4194560 100 0 0 0 250 50 0 0 20 0 9 0 123456 "
                                       "1048576 77 18446744073709551615 1 1 0");
    ASSERT_TRUE(stat.has_value());
    EXPECT_EQ(stat->cpu_ticks, 300U);
    EXPECT_EQ(stat->start_ticks, 123456U);
    EXPECT_EQ(stat->virtual_bytes, 1'048'576U);
    EXPECT_EQ(stat->resident_pages, 77U);
}

TEST(ProcessMetrics, RefusesATextThatEndsEarlyOrHasNoName)
{
    EXPECT_FALSE(ParseProcessStat("").has_value());
    EXPECT_FALSE(ParseProcessStat("17 name S 1").has_value());
    EXPECT_FALSE(ParseProcessStat("17 (name) S 1 17 17 0 -1").has_value());
}

TEST(ProcessMetrics, TellsOfThisProcessUnderTheUsualNames)
{
    std::map<std::string, double> values;
    for (const prometheus::MetricFamily& family : MakeProcessMetrics()->Collect())
    {
        EXPECT_FALSE(family.help.empty()) << family.name;
        ASSERT_EQ(family.metric.size(), 1U) << family.name;
        const bool isCounter = family.type == prometheus::MetricType::Counter;
        values[family.name] = isCounter ? family.metric[0].counter.value : family.metric[0].gauge.value;
    }
    EXPECT_EQ(values.size(), 6U);
    EXPECT_GE(values.at("process_cpu_seconds_total"), 0);
    EXPECT_GT(values.at("process_resident_memory_bytes"), 1e5);
    EXPECT_GT(values.at("process_virtual_memory_bytes"), values.at("process_resident_memory_bytes"));
    EXPECT_GE(values.at("process_open_fds"), 3);
    EXPECT_GE(values.at("process_max_fds"), values.at("process_open_fds"));
    const std::chrono::duration<double> now = std::chrono::system_clock::now().time_since_epoch();
    EXPECT_LE(values.at("process_start_time_seconds"), now.count());
    EXPECT_GT(values.at("process_start_time_seconds"), now.count() - 3600);
}

} // namespace
} // namespace ps_ns
