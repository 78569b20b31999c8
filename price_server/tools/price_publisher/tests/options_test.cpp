#include "price_publisher/options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

namespace ps_ns::price_publisher
{
namespace
{

using ::testing::HasSubstr;

std::variant<Options, OptionsAnswer> Parse(std::vector<const char*> arguments)
{
    arguments.insert(arguments.begin(), "price_publisher");
    return ParseOptions(static_cast<int>(arguments.size()), arguments.data());
}

Options Good(std::vector<const char*> arguments)
{
    const auto parsed = Parse(std::move(arguments));
    const auto* const answer = std::get_if<OptionsAnswer>(&parsed);
    EXPECT_EQ(answer, nullptr) << answer->text;
    return std::get<Options>(parsed);
}

OptionsAnswer Answer(std::vector<const char*> arguments)
{
    return std::get<OptionsAnswer>(Parse(std::move(arguments)));
}

TEST(PublisherOptions, HaveTheDocumentedDefaults)
{
    const Options options = Good({});
    EXPECT_EQ(options.broker, "nats://127.0.0.1:4222");
    EXPECT_TRUE(options.replayFiles.empty());
    EXPECT_EQ(options.speed, 1);
    EXPECT_EQ(options.rate, 200U);
    EXPECT_EQ(options.market, "SIM");
    EXPECT_FALSE(options.duration_sec);
    EXPECT_TRUE(options.keepsLastValues);
    EXPECT_FALSE(Good({"--no-last-values"}).keepsLastValues);
}

TEST(PublisherOptions, ReadAllOfARecording)
{
    const Options options = Good({"--replay", "a.csv", "b.csv.zst", "--speed", "max", "--once", "--broker",
                                  "nats://b:1", "--delay", "2.5", "--duration", "9", "--quiet"});
    EXPECT_EQ(options.replayFiles, (std::vector<std::string>{"a.csv", "b.csv.zst"}));
    EXPECT_EQ(options.speed, 0);
    EXPECT_TRUE(options.playsOnce);
    EXPECT_EQ(options.broker, "nats://b:1");
    EXPECT_EQ(options.delay_sec, 2.5);
    EXPECT_EQ(options.duration_sec, 9);
    EXPECT_TRUE(options.isQuiet);
}

TEST(PublisherOptions, ReadRenames)
{
    const Options options =
        Good({"--rename", "FB", "META", "2022-06-08", "--rename", "A", "B", "2022-06-08T00:00:01Z"});
    ASSERT_EQ(options.renames.size(), 2U);
    EXPECT_EQ(options.renames[0].rename, (SymbolRename{-1, "FB", "META"}));
    EXPECT_EQ(options.renames[0].time_ns, 1'654'732'800'000'000'000U);
    EXPECT_EQ(options.renames[1].time_ns, 1'654'646'401'000'000'000U);
}

TEST(PublisherOptions, RefuseWhatMakesNoSense)
{
    for (const std::vector<const char*>& arguments :
         std::vector<std::vector<const char*>>{{"--speed", "2"},
                                               {"--once"},
                                               {"--replay", "a.csv", "--loop", "--once"},
                                               {"--replay", "a.csv", "--rate", "9"},
                                               {"--rate", "0"},
                                               {"--user", "me"},
                                               {"--rename", "A", "A", "2022-06-08"},
                                               {"--rename", "A", "B", "yesterday"},
                                               {"--renames", "/no/such/file.csv"},
                                               {"--duration", "-1"},
                                               {"--market", ""},
                                               {"--nonsense"},
                                               {"surplus"}})
    {
        const OptionsAnswer answer = Answer(arguments);
        EXPECT_EQ(answer.exitCode, ExitCode::Usage) << arguments[0];
        EXPECT_TRUE(answer.isError);
        EXPECT_THAT(answer.text, HasSubstr("try: price_publisher --help"));
    }
}

TEST(PublisherOptions, ExplainThemselves)
{
    const OptionsAnswer help = Answer({"--help"});
    EXPECT_EQ(help.exitCode, ExitCode::Ok);
    EXPECT_FALSE(help.isError);
    for (const char* const text : {"--broker", "--replay", "--rename", "Exit codes", "PRICE_BROKER_URL"})
    {
        EXPECT_THAT(help.text, HasSubstr(text));
    }
    EXPECT_THAT(Answer({"--version"}).text, HasSubstr("price_publisher "));
}

} // namespace
} // namespace ps_ns::price_publisher
