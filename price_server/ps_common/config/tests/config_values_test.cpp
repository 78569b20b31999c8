#include "config/config_values.h"

#include <gtest/gtest.h>

using namespace ps_ns;

TEST(ConfigValues, RaisesTextCharacterByCharacter)
{
    EXPECT_EQ(ToUpper("aB1 \xC3\xA4"), "AB1 \xC3\xA4");
    EXPECT_EQ(ToUpper(""), "");
}

TEST(ConfigValues, ReadsBooleansInUpperCaseOnly)
{
    EXPECT_EQ(ParseBoolean("YES"), true);
    EXPECT_EQ(ParseBoolean("F"), false);
    EXPECT_EQ(ParseBoolean("yes"), std::nullopt);
    EXPECT_EQ(ParseBoolean(""), std::nullopt);
}

TEST(ConfigValues, ReadsUnsignedNumbersOfDigitsOnly)
{
    EXPECT_EQ(ParseUnsigned("0"), 0U);
    EXPECT_EQ(ParseUnsigned("007"), 7U);
    EXPECT_EQ(ParseUnsigned("18446744073709551615"), 18'446'744'073'709'551'615U);
    for (const char* const text : {"", "-1", "+1", " 1", "1 ", "1.0", "0x1", "1e3", "18446744073709551616", "one"})
    {
        EXPECT_EQ(ParseUnsigned(text), std::nullopt) << text;
    }
}

TEST(ConfigValues, ReadsDecimalsWithoutSignAndExponent)
{
    EXPECT_EQ(ParseDecimal("2"), 2.0);
    EXPECT_EQ(ParseDecimal("0.5"), 0.5);
    EXPECT_EQ(ParseDecimal(".25"), 0.25);
    EXPECT_EQ(ParseDecimal("3."), 3.0);
    for (const char* const text : {"", ".", "-1", "+1", "1e3", "nan", "inf", "1,5", " 1", "1.2.3", "0x1p3"})
    {
        EXPECT_EQ(ParseDecimal(text), std::nullopt) << text;
    }
}
