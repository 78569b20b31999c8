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

/// Reads line after line as the reader does: alike rows in one go, the others alone.
class RowParserInOneGo : public ::testing::Test
{
protected:
    /// The row, or why there is none; checks that reading in one go changes nothing, and counts how often it was done.
    ProblemKind Parse(const std::string& line, RecordingRow& row)
    {
        std::string text = line + "\n";
        text.resize(text.size() + RowParser::kLookAhead, '7');
        RecordingRow alone;
        const ProblemKind expected = RowParser().Parse(line, alone);
        AlikeRow alike;
        if (const char* const next = m_parser.ParseAlike(text.data(), alike))
        {
            m_parser.Complete(text.data(), alike, row);
            ++m_alike;
            EXPECT_EQ(next, text.data() + line.size() + 1) << line;
            EXPECT_EQ(expected, ProblemKind::None) << line;
            EXPECT_TRUE(row.isAlike);
            EXPECT_EQ(Everything(row), Everything(alone)) << line;
            EXPECT_EQ(std::tuple(row.receiveTime_ns, row.venueSequence, std::string(row.instrument)), m_lastGood);
            return ProblemKind::None;
        }
        const ProblemKind problem = m_parser.Parse(line, row);
        EXPECT_EQ(problem, expected) << line;
        if (problem == ProblemKind::None)
        {
            EXPECT_FALSE(row.isAlike);
            m_lastGood = std::tuple(row.receiveTime_ns, row.venueSequence, std::string(row.instrument));
        }
        return problem;
    }

    RowParser m_parser;
    std::size_t m_alike = 0;
    std::tuple<std::uint64_t, std::uint64_t, std::string> m_lastGood;
};

TEST_F(RowParserInOneGo, ReadsTheSameAsWhenEachRowIsReadAlone)
{
    SeededRandom random(20'261'123);
    const std::array<std::string, 4> heads{"1723161256609369665,1723161256610,SPOT,BTCUSDT,", "100,,MARKET,A,",
                                           "1,99999999999999999999,M,A,", "17,1,M," + std::string(200, 'A') + ","};
    const std::array<std::string, 8> numbers{"0",        "7",        "0.5",        "61804.7",
                                             "12345678", "1234.567", "0.00001814", "61804.75"};
    const std::array<std::string, 4> sequences{"", "9", "5123113372420", "18446744073709551615"};
    for (int i = 0; i < 200'000; ++i)
    {
        const auto below = [&](std::int64_t end) { return static_cast<std::size_t>(random.Below(end)); };
        std::string line = heads[below(random.Once(50) ? 4 : 2)];
        line += random.Once(20) ? "snap,B,3," : random.Once(2) ? "book,B,," : "book,S,,";
        line +=
            numbers[below(8)] + "," + numbers[below(8)] + "," + sequences[below(4)] + (random.Once(5) ? ",1" : ",0");
        RecordingRow row;
        Parse(random.Once(8) ? Mutate(line, random) : line, row);
        ASSERT_FALSE(HasFailure());
    }
    EXPECT_GT(m_alike, 10'000U);
}

TEST_F(RowParserInOneGo, ReadsEveryShortNumberAsTheFixedPointParserDoes)
{
    SeededRandom random(20'261'124);
    constexpr std::string_view kCharacters = "0123456789012345678901234567890123456789.,-+/:e ";
    const auto makeNumber = [&]
    {
        std::string text;
        for (std::int64_t size = random.Below(11); size > 0; --size)
        {
            text += kCharacters[static_cast<std::size_t>(random.Below(std::ssize(kCharacters)))];
        }
        if (random.Once(2) && !text.empty())
        {
            text[static_cast<std::size_t>(random.Below(std::ssize(text)))] = '.';
        }
        return text;
    };
    RecordingRow row;
    for (int i = 0; i < 300'000; ++i)
    {
        ASSERT_EQ(m_parser.Parse("100,7,MARKET,A,book,B,,1,1,9,0", row), ProblemKind::None);
        m_lastGood = {100, 9, "MARKET,A"};
        Parse("100,7,MARKET,A,book,B,," + makeNumber() + ",3.25,9,0", row);
        Parse("100,7,MARKET,A,book,S,,3.25," + makeNumber() + ",9,1", row);
        ASSERT_FALSE(HasFailure());
    }
    EXPECT_GT(m_alike, 100'000U);
}

TEST_F(RowParserInOneGo, TakesNothingOverFromARowThatWasWrong)
{
    RecordingRow row;
    EXPECT_EQ(Parse("100,7,MARKET,A,book,B,,1.5,2,9,0", row), ProblemKind::None);
    EXPECT_EQ(Parse("100,7,MARKET,B,book,B,,x,2,9,0", row), ProblemKind::BadNumber);
    EXPECT_EQ(Parse("100,7,MARKET,B,book,B,,1.5,2,9,0", row), ProblemKind::None);
    EXPECT_EQ(m_alike, 0U);
    EXPECT_EQ(Parse("100,7,MARKET,B,book,S,,1.5,2,9,1", row), ProblemKind::None);
    EXPECT_EQ(m_alike, 1U);
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
