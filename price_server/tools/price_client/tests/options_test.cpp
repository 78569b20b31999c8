#include "price_client/options.h"

#include "server/tests/program_test_kit.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

namespace ps_ns::price_client
{
namespace
{

/// Without what the environment of the test itself says.
class OptionsTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ::unsetenv("PRICE_SERVER_URL");
        ::unsetenv("PRICE_SERVER_TOKEN");
    }
    void TearDown() override { SetUp(); }

    static std::variant<Options, OptionsAnswer> Parse(std::vector<const char*> arguments)
    {
        arguments.insert(arguments.begin(), "price_client");
        return ParseOptions(static_cast<int>(arguments.size()), arguments.data());
    }
    static Options Take(const std::vector<const char*>& arguments)
    {
        const auto parsed = Parse(arguments);
        const auto* const answer = std::get_if<OptionsAnswer>(&parsed);
        EXPECT_EQ(answer, nullptr) << (answer == nullptr ? "" : answer->text);
        return answer == nullptr ? std::get<Options>(parsed) : Options{};
    }
    static OptionsAnswer Refuse(const std::vector<const char*>& arguments)
    {
        const auto parsed = Parse(arguments);
        const auto* const answer = std::get_if<OptionsAnswer>(&parsed);
        EXPECT_NE(answer, nullptr);
        return answer == nullptr ? OptionsAnswer{} : *answer;
    }
};

TEST_F(OptionsTest, AreThoseOfAServerOnThisMachineWhenNothingIsSaid)
{
    const Options options = Take({"status"});
    EXPECT_EQ(options.command, Command::Status);
    EXPECT_EQ(options.access.url.GetPlace(), "127.0.0.1:8080");
    EXPECT_FALSE(options.access.url.isEncrypted);
    EXPECT_EQ(options.access.token, "");
    EXPECT_EQ(options.access.timeout, std::chrono::seconds(5));
}

TEST_F(OptionsTest, OfTheConnectionStandBeforeOrBehindTheCommand)
{
    for (const auto& arguments : {std::vector<const char*>{"--url", "https://h:9", "--timeout", "0.5", "watch", "A"},
                                  std::vector<const char*>{"watch", "A", "--timeout=0.5", "--url", "https://h:9"}})
    {
        const Options options = Take(arguments);
        EXPECT_EQ(options.command, Command::Watch);
        EXPECT_TRUE(options.access.url.isEncrypted);
        EXPECT_EQ(options.access.url.GetPlace(), "h:9");
        EXPECT_EQ(options.access.timeout, std::chrono::milliseconds(500));
        EXPECT_EQ(options.instruments, std::vector<std::string>{"A"});
    }
}

TEST_F(OptionsTest, TakeTheAddressFromTheEnvironmentUnlessTheCommandLineHasOne)
{
    ::setenv("PRICE_SERVER_URL", "http://env:1", 1);
    EXPECT_EQ(Take({"status"}).access.url.GetPlace(), "env:1");
    EXPECT_EQ(Take({"status", "--url", "http://line:2"}).access.url.GetPlace(), "line:2");
}

TEST_F(OptionsTest, ReadAllThatSubscribeTakes)
{
    const Options options = Take({"subscribe", "A:B", "--books", "--depth", "7", "--interval", "20", "--kinds",
                                  "book,trades", "--count", "3", "C:D", "A:B"});
    EXPECT_EQ(options.command, Command::Subscribe);
    EXPECT_EQ(options.instruments, (std::vector<std::string>{"A:B", "C:D"})) << "each once";
    EXPECT_TRUE(options.writesBooks);
    EXPECT_EQ(options.depth, "7");
    EXPECT_EQ(options.interval_ms, 20U);
    EXPECT_EQ(options.kinds, (std::vector<std::string>{"book", "trades"}));
    EXPECT_EQ(options.count, 3U);
}

TEST_F(OptionsTest, TakeTheTokenFromTheFirstLineOfAFileOrElseFromTheEnvironment)
{
    const TemporaryFolder folder;
    const std::string file = folder.Write("token", "from-file \r\nsecond line\n");
    ::setenv("PRICE_SERVER_TOKEN", "from-env", 1);
    EXPECT_EQ(Take({"status"}).access.token, "from-env");
    EXPECT_EQ(Take({"status", "--token-file", file.c_str()}).access.token, "from-file");
}

TEST_F(OptionsTest, HaveNoTokenOnTheCommandLine)
{
    EXPECT_EQ(Refuse({"--token", "secret", "status"}).exitCode, ExitCode::Usage);
}

TEST_F(OptionsTest, RefuseATokenFileThatIsEmptyOrMissing)
{
    const TemporaryFolder folder;
    const std::string empty = folder.Write("empty", "");
    const OptionsAnswer answer = Refuse({"status", "--token-file", empty.c_str()});
    EXPECT_EQ(answer.exitCode, ExitCode::Usage);
    EXPECT_NE(answer.text.find(empty), std::string::npos);
    EXPECT_EQ(Refuse({"status", "--token-file", "/there/is/none"}).exitCode, ExitCode::Failure);
}

TEST_F(OptionsTest, RefuseATokenThatWouldBreakAHeader)
{
    ::setenv("PRICE_SERVER_TOKEN", "a\r\nX: y", 1);
    const OptionsAnswer answer = Refuse({"status"});
    EXPECT_EQ(answer.exitCode, ExitCode::Usage);
    EXPECT_EQ(answer.text.find("X: y"), std::string::npos) << "a token is not repeated";
}

TEST_F(OptionsTest, SayWhatIsWrongOnStandardErrorWithTheExitCodeForIt)
{
    for (const auto& arguments : {std::vector<const char*>{},
                                  {"fly"},
                                  {"watch"},
                                  {"watch", "A", "--depth", "0"},
                                  {"watch", ""},
                                  {"watch", "A", "--depth", "1001"},
                                  {"watch", "A", "--interval", "60001"},
                                  {"explain"},
                                  {"explain", "A", "B"},
                                  {"subscribe", "A", "--json", "--books"},
                                  {"subscribe", "A", "--kinds", "stars"},
                                  {"subscribe", "A", "--count", "0"},
                                  {"status", "--timeout", "0"},
                                  {"status", "--timeout", "inf"},
                                  {"completion", "tcsh"},
                                  {"status", "--url", "h:1"},
                                  {"instruments", "--names", "--json"}})
    {
        const OptionsAnswer answer = Refuse(arguments);
        EXPECT_EQ(answer.exitCode, ExitCode::Usage) << ::testing::PrintToString(arguments);
        EXPECT_TRUE(answer.isError);
        EXPECT_TRUE(answer.text.starts_with("price_client: ")) << answer.text;
    }
    EXPECT_NE(Refuse({"fly"}).text.find("fly"), std::string::npos);
    EXPECT_NE(Refuse({}).text.find("a command is missing"), std::string::npos);
}

TEST_F(OptionsTest, HelpSaysTheExitCodesOnStandardOutput)
{
    const OptionsAnswer answer = Refuse({"--help"});
    EXPECT_EQ(answer.exitCode, ExitCode::Ok);
    EXPECT_FALSE(answer.isError);
    for (const char* const text : {"3    cannot connect", "4    refused", "5    not found", "PRICE_SERVER_TOKEN"})
    {
        EXPECT_NE(answer.text.find(text), std::string::npos) << text;
    }
}

TEST_F(OptionsTest, OfACompletionNeedNoServer)
{
    ::setenv("PRICE_SERVER_URL", "nonsense", 1);
    EXPECT_EQ(Take({"completion", "zsh"}).shell, "zsh");
}

} // namespace
} // namespace ps_ns::price_client
