#include "composite_price/fixed_point.h"

#include <gtest/gtest.h>
#include <rapidcheck.h>
#include <rapidcheck/gtest.h>

#include <limits>

using namespace ps_ns;

namespace
{

constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();

} // namespace

TEST(ParseFixed, ReadsPlainDecimals)
{
    EXPECT_EQ(ParsePrice("12.5"), 125'000'000'000);
    EXPECT_EQ(ParsePrice("-12.5"), -125'000'000'000);
    EXPECT_EQ(ParsePrice("0.00001814"), 181'400);
    EXPECT_EQ(ParsePrice("3"), 30'000'000'000);
    EXPECT_EQ(ParsePrice("0.0000000001"), 1);
    EXPECT_EQ(ParseQuantity("0.00000001"), 1);
    EXPECT_EQ(ParseQuantity("7"), 700'000'000);
    EXPECT_EQ(ParseFixed("42", 0), 42);
}

TEST(ParseFixed, ReadsZeroInAllItsSpellings)
{
    for (const char* const text : {"0", "-0", "0.0", "-0.000", "000", "00.00", "0.00000000000000000000000000000"})
    {
        EXPECT_EQ(ParsePrice(text), 0) << text;
    }
}

TEST(ParseFixed, TakesLeadingAndTrailingZeros)
{
    EXPECT_EQ(ParsePrice("0000000000000000000000000000001.5"), 15'000'000'000);
    EXPECT_EQ(ParsePrice("1.50000000000000000000000000000000"), 15'000'000'000);
    EXPECT_EQ(ParseFixed("42.000", 0), 42);
}

TEST(ParseFixed, NeverRounds)
{
    EXPECT_EQ(ParsePrice("0.00000000001"), std::nullopt);
    EXPECT_EQ(ParsePrice("1.00000000009"), std::nullopt);
    EXPECT_EQ(ParsePrice("1.000000000000000000001"), std::nullopt);
    EXPECT_EQ(ParseQuantity("0.000000001"), std::nullopt);
    EXPECT_EQ(ParseFixed("42.5", 0), std::nullopt);
}

TEST(ParseFixed, ReadsUpToItsLimitsAndNothingBeyond)
{
    EXPECT_EQ(ParsePrice("922337203.6854775807"), kMax);
    EXPECT_EQ(ParsePrice("-922337203.6854775807"), -kMax);
    EXPECT_EQ(ParsePrice("922337203.6854775808"), std::nullopt);
    EXPECT_EQ(ParsePrice("-922337203.6854775808"), std::nullopt) << "the range is symmetric";
    EXPECT_EQ(ParsePrice("922337203.6854775810"), std::nullopt);
    EXPECT_EQ(ParsePrice("922337204"), std::nullopt);
    EXPECT_EQ(ParseQuantity("92233720368.54775807"), kMax);
    EXPECT_EQ(ParseQuantity("92233720368.54775808"), std::nullopt);
    EXPECT_EQ(ParseQuantity("92233720369"), std::nullopt);
    EXPECT_EQ(ParseFixed("9223372036854775807", 0), kMax);
    EXPECT_EQ(ParseFixed("9223372036854775808", 0), std::nullopt);
    EXPECT_EQ(ParseFixed("18446744073709551616", 0), std::nullopt);
    EXPECT_EQ(ParsePrice("99999999999999999999999999999999999999"), std::nullopt);
}

TEST(ParseFixed, RefusesWhatIsNoPlainDecimal)
{
    for (const char* const text :
         {"",    "-",   ".",     "-.",   ".5",  "-.5", "5.",   "+5",    "--5",  "5-",  " 5",   "5 ",  "1e3",
          "1E3", "1,5", "1.2.3", "0x10", "nan", "inf", "-inf", "1_000", "five", "5\n", "1.5x", "1.x", "\xd9\xa1"})
    {
        EXPECT_EQ(ParsePrice(text), std::nullopt) << '"' << text << '"';
    }
    EXPECT_EQ(ParsePrice(std::string_view("5\0", 2)), std::nullopt);
}

TEST(FormatFixed, WritesPlainDecimalsWithoutTrailingZeros)
{
    EXPECT_EQ(FormatPrice(125'000'000'000), "12.5");
    EXPECT_EQ(FormatPrice(30'000'000'000), "3");
    EXPECT_EQ(FormatPrice(-100'000'000), "-0.01");
    EXPECT_EQ(FormatPrice(1), "0.0000000001");
    EXPECT_EQ(FormatPrice(0), "0");
    EXPECT_EQ(FormatQuantity(1), "0.00000001");
    EXPECT_EQ(FormatQuantity(1'000'000'000), "10");
    EXPECT_EQ(FormatFixed(-42, 0), "-42");
}

TEST(FormatFixed, WritesBothLimits)
{
    EXPECT_EQ(FormatPrice(kMax), "922337203.6854775807");
    EXPECT_EQ(FormatPrice(kMin), "-922337203.6854775808");
    EXPECT_EQ(FormatQuantity(kMin), "-92233720368.54775808");
    EXPECT_EQ(FormatFixed(kMin, 0), "-9223372036854775808");
}

TEST(FormatFixed, IsReadBackAtTheLimits)
{
    for (const std::int64_t units : {kMax, kMax - 1, -kMax, -kMax + 1, std::int64_t{1}, std::int64_t{-1}})
    {
        EXPECT_EQ(ParsePrice(FormatPrice(units)), units);
        EXPECT_EQ(ParseQuantity(FormatQuantity(units)), units);
    }
}

RC_GTEST_PROP(GeneratedFixedPoint, IsReadBackAsItWasWritten, ())
{
    // Of all magnitudes: plain arbitrary numbers are nearly all large or nearly all small.
    const std::int64_t units = *rc::gen::inRange<std::int64_t>(-kMax, kMax) >> *rc::gen::inRange(0, 63);
    const int decimals = *rc::gen::inRange(0, 19);
    const std::string text = FormatFixed(units, decimals);
    RC_ASSERT(ParseFixed(text, decimals) == units);
    RC_ASSERT(text.find('.') == std::string::npos || text.back() != '0');
}

RC_GTEST_PROP(GeneratedFixedPoint, TakesZerosAppendedToADecimal, ())
{
    const std::int64_t units = *rc::gen::inRange<std::int64_t>(-kMax, kMax);
    const std::string text = FormatPrice(units);
    RC_PRE(text.find('.') != std::string::npos);
    const auto zeros = static_cast<std::size_t>(*rc::gen::inRange(0, 40));
    RC_ASSERT(ParsePrice(text + std::string(zeros, '0')) == units);
}

RC_GTEST_PROP(GeneratedFixedPoint, ReadsNoTextAsAnotherNumberThanItSpells, ())
{
    const auto text = *rc::gen::container<std::string>(rc::gen::element('-', '.', '0', '1', '9', ' ', 'e'));
    const auto units = ParsePrice(text);
    if (units)
    {
        // What is left after taking off superfluous zeros is what is written.
        std::string plain = text;
        const bool negative = plain.front() == '-';
        plain.erase(0, negative ? 1 : 0);
        plain.erase(0, std::min(plain.find_first_not_of('0'), plain.find('.') - 1));
        if (plain.find('.') != std::string::npos)
        {
            plain.erase(plain.find_last_not_of('0') + 1);
            plain.erase(plain.back() == '.' ? plain.size() - 1 : plain.size());
        }
        if (plain.empty())
        {
            plain = "0";
        }
        RC_ASSERT(FormatPrice(*units) == (negative && *units != 0 ? "-" + plain : plain));
    }
}
