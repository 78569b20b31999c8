#include "config/detail/quoted.h"

#include <gtest/gtest.h>

using namespace ps_ns::detail;

TEST(Quoted, ShowsOrdinaryTextAsItIs)
{
    EXPECT_EQ(Quoted("defaultDepth"), "\"defaultDepth\"");
    EXPECT_EQ(Quoted("\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80"), "\"\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80\"");
    EXPECT_EQ(Quoted(""), "\"\"");
    EXPECT_EQ(Tag("Market"), "<Market>");
}

TEST(Quoted, EscapesWhatATerminalWouldObey)
{
    EXPECT_EQ(Printable("a\nb\x1B[31m\x7F"), "a\\x0Ab\\x1B[31m\\x7F");
    EXPECT_EQ(Printable("\xC2\x9B"
                        "31m"),
              "\\xC2\\x9B31m");
    EXPECT_EQ(Printable("\xFF"), "\\xFF");
    EXPECT_EQ(Printable(std::string_view("\0", 1)), "\\x00");
}

TEST(Quoted, CutsLongTextBetweenCharacters)
{
    EXPECT_EQ(Printable(std::string(60, 'x')), std::string(60, 'x'));
    EXPECT_EQ(Printable(std::string(61, 'x')), std::string(60, 'x') + "...");
    EXPECT_EQ(Printable(std::string(59, 'x') + "\xC3\xA4"
                                               "b"),
              std::string(59, 'x') + "\xC3\xA4...");
    EXPECT_EQ(Printable(std::string(1'000'000, '\x01')).size(), 60 * 4 + 3U);
}
