#include "mds/recording_row.h"

#include "mutate_row.h"

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <tuple>

namespace ps_ns
{
namespace
{

using namespace testing_ns;

auto Everything(const RecordingRow& row)
{
    return std::tuple(row.receiveTime_ns, row.exchangeTime_ns, row.instrument, row.market, row.symbol, row.price,
                      row.quantity, row.venueSequence, row.priceDecimals, row.event, row.side, row.isLast);
}

TEST(RowParser, ReadsARowThatBeginsAsTheOneBeforeAsItReadsItAlone)
{
    SeededRandom random(20'261'122);
    const std::array<std::string, 4> heads{"1723161256609369665,1723161256610,SPOT,BTCUSDT,",
                                           "1723161256609369665,,M,A,", "1,99999999999999999999,M,A,",
                                           "17,1,M," + std::string(200, 'A') + ","};
    const std::array<std::string, 4> tails{"book,B,,61804.7,2,9,1", "snap,S,12,0.00001814,918.992246,,0",
                                           "trade,,,5860832,0.01,2284079807,1", "book,S,,1.5,0,9,0"};
    RowParser parser;
    std::size_t good = 0;
    std::size_t bad = 0;
    for (int i = 0; i < 100'000; ++i)
    {
        const std::string& head = heads[static_cast<std::size_t>(random.Below(random.Once(10) ? 4 : 2))];
        const std::string& tail = tails[static_cast<std::size_t>(random.Below(4))];
        const std::string line = random.Once(4) ? Mutate(head + tail, random) : head + tail;
        RecordingRow row;
        RecordingRow alone;
        const ProblemKind problem = parser.Parse(line, row);
        ASSERT_EQ(problem, RowParser().Parse(line, alone)) << line;
        if (problem == ProblemKind::None)
        {
            ASSERT_EQ(Everything(row), Everything(alone)) << line;
            ASSERT_EQ(row.instrument.data(), alone.instrument.data()) << "it must point into this line";
        }
        ++(problem == ProblemKind::None ? good : bad);
    }
    EXPECT_GT(good, 50'000U);
    EXPECT_GT(bad, 10'000U);
}

TEST(RowParser, TakesNothingOverFromARowWhoseTimesWereWrong)
{
    RowParser parser;
    RecordingRow row;
    EXPECT_EQ(parser.Parse("1x,7,M,A,book,B,,1.5,2,9,1", row), ProblemKind::BadNumber);
    EXPECT_EQ(parser.Parse("1x,7,M,A,book,B,,1.5,2,9,1", row), ProblemKind::BadNumber);
    EXPECT_EQ(parser.Parse(",7,M,A,book,B,,1.5,2,9,1", row), ProblemKind::BadNumber);
    EXPECT_EQ(parser.Parse("100,7,,A,book,B,,1.5,2,9,1", row), ProblemKind::NoName);
    EXPECT_EQ(parser.Parse("100,7,,A,book,B,,1.5,2,9,1", row), ProblemKind::NoName);
}

TEST(RowParser, ReadsTheLargestTimeAndRefusesALargerOne)
{
    RowParser parser;
    RecordingRow row;
    EXPECT_EQ(parser.Parse("18446744073709551615,,M,A,book,B,,1.5,2,9,1", row), ProblemKind::None);
    EXPECT_EQ(row.receiveTime_ns, 18'446'744'073'709'551'615U);
    EXPECT_EQ(parser.Parse("18446744073709551616,,M,A,book,B,,1.5,2,9,1", row), ProblemKind::BadNumber);
}

} // namespace
} // namespace ps_ns
