#include "price_publisher/progress.h"

#include <gtest/gtest.h>

namespace ps_ns::price_publisher
{
namespace
{

ProgressSample Sample(std::uint64_t messages, std::uint64_t bytes, int seconds)
{
    ProgressSample sample;
    sample.counts.messages = messages;
    sample.counts.bytes = bytes;
    sample.isConnected = true;
    sample.sourceTime_ns = 1'723'161'254'087'896'568;
    sample.time += std::chrono::seconds(seconds);
    return sample;
}

TEST(Progress, TellsTotalsAndRatesSinceTheLastLine)
{
    EXPECT_EQ(FormatProgress(Sample(1'234'567, 5'000'000, 12), Sample(1'230'567, 1'000'000, 10), false),
              "publishing  2024-08-08 23:54:14  1,234,567 messages, 2,000/s, 2.0 MB/s, 0 images");
}

TEST(Progress, TellsThatThereIsNoBroker)
{
    ProgressSample sample = Sample(1, 1, 1);
    sample.isConnected = false;
    sample.sourceTime_ns = 0;
    sample.counts.unsent = 1000;
    EXPECT_EQ(FormatProgress(sample, sample, false), "no broker  1 messages, 0/s, 0 B/s, 0 images, 1,000 unsent");
    EXPECT_NE(FormatProgress(sample, sample, true).find("\x1b[31mno broker\x1b[0m"), std::string::npos);
}

TEST(Progress, GroupsDigitsAndChoosesUnits)
{
    EXPECT_EQ(GroupDigits(0), "0");
    EXPECT_EQ(GroupDigits(999), "999");
    EXPECT_EQ(GroupDigits(1000), "1,000");
    EXPECT_EQ(GroupDigits(12'345'678), "12,345,678");
    EXPECT_EQ(FormatBytes(0), "0 B");
    EXPECT_EQ(FormatBytes(999), "999 B");
    EXPECT_EQ(FormatBytes(1500), "1.5 kB");
    EXPECT_EQ(FormatBytes(999'999), "1.0 MB");
}

} // namespace
} // namespace ps_ns::price_publisher
