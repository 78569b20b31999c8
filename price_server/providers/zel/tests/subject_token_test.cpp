#include "zel/subject_token.h"

#include "mds/seeded_random.h"

#include <gtest/gtest.h>

#include <set>

namespace ps_ns
{
namespace
{

TEST(SubjectToken, LeavesLettersDigitsAndDashesAlone)
{
    EXPECT_EQ(EscapeToken("GOLD-MAR27_x"), "GOLD-MAR27_x");
    EXPECT_EQ(UnescapeToken("GOLD-MAR27_x"), "GOLD-MAR27_x");
}

TEST(SubjectToken, EscapesWhatASubjectGivesAMeaning)
{
    EXPECT_EQ(EscapeToken("BTC/USD"), "BTC=2FUSD");
    EXPECT_EQ(EscapeToken("a.b*c>d e"), "a=2Eb=2Ac=3Ed=20e");
    EXPECT_EQ(EscapeToken("="), "=3D");
    EXPECT_EQ(EscapeToken("\xc3\xa9"), "=C3=A9");
    EXPECT_EQ(EscapeToken(""), "=");
}

TEST(SubjectToken, ComesBackAsTheText)
{
    SeededRandom random(3);
    std::set<std::string> texts{""};
    std::set<std::string> tokens{EscapeToken("")};
    for (int round = 0; round < 20'000; ++round)
    {
        std::string text;
        for (std::int64_t size = random.Below(12); size > 0; --size)
        {
            text += static_cast<char>(random.Next());
        }
        const std::string token = EscapeToken(text);
        EXPECT_EQ(token.find_first_of(". *>\t\r\n"), std::string::npos);
        ASSERT_EQ(UnescapeToken(token), text);
        texts.insert(text);
        tokens.insert(token);
    }
    EXPECT_EQ(texts.size(), tokens.size());
}

TEST(SubjectToken, RefusesWhatIsNeverWritten)
{
    for (const char* const token : {"", "a=", "a=2", "a=2f", "=41", "a.b", "=GG", "==", "a b"})
    {
        EXPECT_EQ(UnescapeToken(token), std::nullopt) << token;
    }
}

} // namespace
} // namespace ps_ns
