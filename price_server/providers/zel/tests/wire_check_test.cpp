#include "wire_check.h"

#include <gtest/gtest.h>

#include <functional>
#include <vector>

namespace ps_ns
{
namespace
{

WireInstrument Good()
{
    return {0, {100, false, 2, 'D', 5}, "BTC/USD", "BTC/USD", "KRAKEN", "bitcoin"};
}

TEST(WireCheck, TakesTextsOfAllLanguages)
{
    for (const char* const text : {"", "BTC/USD", "a b", "\xc3\xa9", "\xc2\xa0", "\xe2\x82\xac", "\xf0\x9f\x92\xb0",
                                   "\xed\x9f\xbf", "\xee\x80\x80", "\xf4\x8f\xbf\xbf"})
    {
        EXPECT_TRUE(IsPlainUtf8(text)) << text;
    }
}

TEST(WireCheck, RefusesWhatIsNoUtf8AndControlCharacters)
{
    for (const char* const text : {"\n", "a\tb", "\x1b[2J", "\x7f", "\xc2\x85", "\x80", "\xff", "\xc3", "\xc3(",
                                   "\xc0\xaf", "\xc1\xbf", "\xe0\x9f\xbf", "\xe2\x82", "\xed\xa0\x80",
                                   "\xf0\x8f\xbf\xbf", "\xf4\x90\x80\x80", "\xf5\x80\x80\x80", "\xe2\x82\x41"})
    {
        EXPECT_FALSE(IsPlainUtf8(text)) << text;
    }
    EXPECT_FALSE(IsPlainUtf8(std::string_view("\0", 1)));
}

TEST(WireCheck, FindsWhatIsWrongWithAnInstrument)
{
    EXPECT_EQ(FindWireFault(Good()), "");
    const std::vector<std::function<void(WireInstrument&)>> spoilers{
        [](WireInstrument& listed) { listed.format.fractionDigits = kMostWireFractionDigits + 1; },
        [](WireInstrument& listed) { listed.format.displayFormat = '\n'; },
        [](WireInstrument& listed) { listed.format.displayFormat = static_cast<char>(0xe9); },
        [](WireInstrument& listed) { listed.firstSymbol.clear(); },
        [](WireInstrument& listed) { listed.symbol.clear(); },
        [](WireInstrument& listed) { listed.symbol.assign(kMostWireNameBytes + 1, 'x'); },
        [](WireInstrument& listed) { listed.symbol = "A\nB"; },
        [](WireInstrument& listed) { listed.firstSymbol = "\xff"; },
        [](WireInstrument& listed) { listed.exchange = "\x1b[31m"; },
        [](WireInstrument& listed) { listed.description.assign(kMostWireDescriptionBytes + 1, 'x'); }};
    for (std::size_t i = 0; i < spoilers.size(); ++i)
    {
        WireInstrument listed = Good();
        spoilers[i](listed);
        EXPECT_NE(FindWireFault(listed), "") << i;
        EXPECT_TRUE(IsPlainUtf8(FindWireFault(listed))) << "a log shows it";
    }
    WireInstrument largest = Good();
    largest.format.fractionDigits = kMostWireFractionDigits;
    largest.symbol.assign(kMostWireNameBytes, 'x');
    largest.description.assign(kMostWireDescriptionBytes, 'x');
    EXPECT_EQ(FindWireFault(largest), "");
}

TEST(WireCheck, FindsWhatIsWrongWithARename)
{
    EXPECT_EQ(FindWireFault(WireRename{1, "FB", "META"}), "");
    EXPECT_NE(FindWireFault(WireRename{1, "FB", ""}), "");
    EXPECT_NE(FindWireFault(WireRename{1, "FB", "ME\rTA"}), "");
}

} // namespace
} // namespace ps_ns
