#include "server/command_line.h"

#include "program_test_kit.h"
#include "server/effective_config.h"
#include "server/exit_code.h"

#include <gtest/gtest.h>

namespace ps_ns
{
namespace
{

std::variant<CommandLine, CommandLineAnswer> Parse(std::vector<const char*> arguments)
{
    arguments.insert(arguments.begin(), "price_server");
    return ParseCommandLine(static_cast<int>(arguments.size()), arguments.data());
}

CommandLine ParseGood(std::vector<const char*> arguments)
{
    const auto parsed = Parse(std::move(arguments));
    if (const auto* const answer = std::get_if<CommandLineAnswer>(&parsed))
    {
        ADD_FAILURE() << answer->text;
        return {};
    }
    return std::get<CommandLine>(parsed);
}

CommandLineAnswer ParseAnswer(std::vector<const char*> arguments)
{
    const auto parsed = Parse(std::move(arguments));
    if (std::holds_alternative<CommandLine>(parsed))
    {
        ADD_FAILURE() << "there is something to run";
        return {};
    }
    return std::get<CommandLineAnswer>(parsed);
}

TEST(CommandLine, IsEmptyWithoutArguments)
{
    const CommandLine line = ParseGood({});
    EXPECT_TRUE(line.configFile.empty());
    EXPECT_TRUE(line.replayFiles.empty());
    EXPECT_TRUE(line.watched.empty());
    EXPECT_EQ(line.depth, 10);
    EXPECT_FALSE(line.speed || line.seed || line.duration_sec || line.logLevel);
}

TEST(CommandLine, TakesSeveralFilesAndSeveralInstruments)
{
    const CommandLine line = ParseGood({"--replay", "a.csv", "b.csv.zst", "--watch", "X", "M:Y", "--depth", "3"});
    EXPECT_EQ(line.replayFiles, (std::vector<std::string>{"a.csv", "b.csv.zst"}));
    EXPECT_EQ(line.watched, (std::vector<std::string>{"X", "M:Y"}));
    EXPECT_EQ(line.depth, 3);
}

TEST(CommandLine, ReadsMaxAsNoWaiting)
{
    EXPECT_EQ(ParseGood({"--speed", "max"}).speed, 0.0);
    EXPECT_EQ(ParseGood({"--speed", "0"}).speed, 0.0);
    EXPECT_EQ(ParseGood({"--speed", "2.5"}).speed, 2.5);
}

TEST(CommandLine, TakesRenamesFromFilesAndOneByOne)
{
    const CommandLine line = ParseGood({"--renames", "a.csv", "b.csv", "--rename", "FB", "META", "2022-06-08",
                                        "--rename", "US:A", "B", "2022-06-09T12:00:00Z", "--watch", "FB"});
    EXPECT_EQ(line.renameFiles, (std::vector<std::string>{"a.csv", "b.csv"}));
    ASSERT_EQ(line.renames.size(), 2U);
    EXPECT_EQ(line.renames[0].oldSymbol, "FB");
    EXPECT_EQ(line.renames[0].newSymbol, "META");
    EXPECT_EQ(line.renames[0].when, "2022-06-08");
    EXPECT_EQ(line.renames[1].oldSymbol, "US:A");
    EXPECT_EQ(line.renames[1].when, "2022-06-09T12:00:00Z");
    EXPECT_EQ(line.watched, std::vector<std::string>{"FB"});
}

TEST(CommandLine, RefusesWhatMakesNoSense)
{
    const std::vector<std::vector<const char*>> wrong{{"--speed", "fast"},
                                                      {"--speed", "-1"},
                                                      {"--speed", "nan"},
                                                      {"--speed", "inf"},
                                                      {"--depth", "0"},
                                                      {"--depth", "ten"},
                                                      {"--duration", "-1"},
                                                      {"--duration", "nan"},
                                                      {"--loop", "--once"},
                                                      {"--check-config"},
                                                      {"--replay"},
                                                      {"--renames"},
                                                      {"--rename"},
                                                      {"--rename", "FB", "META"},
                                                      {"--rename", "FB", "META", "2022-06-08", "A"},
                                                      {"--watch"},
                                                      {"--no-such-option"},
                                                      {"stray"},
                                                      {"--log-level", "101"},
                                                      {"--seed", "-1"},
                                                      {"--config", "a", "--print-config"}};
    for (const auto& arguments : wrong)
    {
        const CommandLineAnswer answer = ParseAnswer(arguments);
        EXPECT_EQ(answer.exitCode, ExitUsage) << arguments.front();
        EXPECT_TRUE(answer.isError) << arguments.front();
        EXPECT_NE(answer.text.find("--help"), std::string::npos) << answer.text;
    }
}

TEST(CommandLine, SaysInTheHelpWhatTheExitCodesAre)
{
    const CommandLineAnswer answer = ParseAnswer({"--help"});
    EXPECT_EQ(answer.exitCode, ExitOk);
    EXPECT_FALSE(answer.isError);
    EXPECT_NE(answer.text.find("3    wrong configuration"), std::string::npos) << answer.text;
}

TEST(CommandLine, PrintsItsVersion)
{
    const CommandLineAnswer answer = ParseAnswer({"--version"});
    EXPECT_EQ(answer.exitCode, ExitOk);
    EXPECT_TRUE(answer.text.starts_with("price_server ")) << answer.text;
}

TEST(EffectiveConfig, IsTheBuiltInSimulationWithoutOptions)
{
    const EffectiveConfig effective = MakeEffectiveConfig({});
    ASSERT_TRUE(effective.config.mds && effective.config.mds->simulation);
    EXPECT_FALSE(effective.endsWithPrices);
}

TEST(EffectiveConfig, TakesMarketsFromTheFilesOfAReplayWithoutConfiguration)
{
    CommandLine line;
    line.replayFiles = {GetRecording("three_segments/spot.csv.zst"), GetRecording("three_segments/coinm.csv.zst")};
    const EffectiveConfig effective = MakeEffectiveConfig(line);
    ASSERT_EQ(effective.config.markets.size(), 2U);
    EXPECT_EQ(effective.config.markets[0].name, "SPOT");
    EXPECT_EQ(effective.config.markets[1].name, "COINM");
    ASSERT_TRUE(effective.config.mds && effective.config.mds->replay);
    EXPECT_FALSE(effective.config.mds->simulation);
    EXPECT_EQ(effective.config.mds->replay->speed, 1.0);
    EXPECT_TRUE(effective.endsWithPrices);
    EXPECT_FALSE(effective.alignsStarts);
}

TEST(EffectiveConfig, AlignsFilesThatWereRecordedOnDifferentDays)
{
    CommandLine line;
    line.replayFiles = {GetRecording("many_instruments/bitmex.csv.zst"),
                        GetRecording("many_instruments/poloniex.csv.zst")};
    EXPECT_TRUE(MakeEffectiveConfig(line).alignsStarts);
}

TEST(EffectiveConfig, GoesOnForEverWithLoop)
{
    CommandLine line;
    line.replayFiles = {GetRecording("three_segments/spot.csv.zst")};
    line.loops = true;
    const EffectiveConfig effective = MakeEffectiveConfig(line);
    EXPECT_TRUE(effective.config.mds->replay->loop);
    EXPECT_FALSE(effective.endsWithPrices);
}

TEST(EffectiveConfig, NamesTheFileOfAReplayThatIsNotThere)
{
    CommandLine line;
    line.replayFiles = {"/no/such/file.csv"};
    try
    {
        MakeEffectiveConfig(line);
        FAIL() << "no error";
    }
    catch (const std::runtime_error& error)
    {
        EXPECT_NE(std::string(error.what()).find("/no/such/file.csv"), std::string::npos) << error.what();
    }
}

TEST(EffectiveConfig, AddsRenamesToThoseThatAreConfigured)
{
    CommandLine line;
    line.replayFiles = {GetRecording("three_segments/spot.csv.zst")};
    line.renameFiles = {GetRecording("renames/symbol_renames.csv")};
    line.renames = {{"SPOT:BTCUSDT", "XBT", "2024-08-08"}, {"a:b", "C", "2024-08-09T00:00:00Z"}};
    const std::vector<RenameSettings> renames = MakeEffectiveConfig(line).config.mds->renames;
    ASSERT_EQ(renames.size(), 5U + 2U);
    EXPECT_FALSE(renames[0].marketId);
    EXPECT_EQ(renames[0].newSymbol, "GOOG");
    EXPECT_EQ(renames[5].marketId, MakeEffectiveConfig(line).config.markets.at(0).id);
    EXPECT_EQ(renames[5].oldSymbol, "BTCUSDT");
    EXPECT_EQ(renames[6].oldSymbol, "a:b"); // there is no market "a"
    EXPECT_FALSE(renames[6].marketId);
    EXPECT_EQ(renames[5].time_ns, renames[6].time_ns);
}

TEST(EffectiveConfig, PlaysFilesOnTheirOwnDaysWhenThereAreRenames)
{
    CommandLine line;
    line.replayFiles = {GetRecording("many_instruments/bitmex.csv.zst"),
                        GetRecording("many_instruments/poloniex.csv.zst")};
    line.renameFiles = {GetRecording("renames/symbol_renames.csv")};
    EXPECT_FALSE(MakeEffectiveConfig(line).alignsStarts);
}

TEST(EffectiveConfig, RefusesRenamesThatItCannotRead)
{
    const TemporaryFolder folder;
    CommandLine line;
    line.renameFiles = {folder.Write("bad.csv", "no header\n")};
    EXPECT_THROW(MakeEffectiveConfig(line), ConfigError);
    line.renameFiles.clear();
    for (const AskedRename& wrong : {AskedRename{"FB", "META", "soon"}, AskedRename{"FB", "FB", "2022-06-08"},
                                     AskedRename{"SIM:", "META", "2022-06-08"}, AskedRename{"FB", "", "2022-06-08"}})
    {
        line.renames = {wrong};
        EXPECT_THROW(MakeEffectiveConfig(line), UsageError) << wrong.oldSymbol << " " << wrong.when;
    }
}

TEST(EffectiveConfig, RefusesOptionsOfARecordingForASimulationAndTheOtherWayRound)
{
    CommandLine speed;
    speed.speed = 2;
    EXPECT_THROW(MakeEffectiveConfig(speed), UsageError);
    CommandLine once;
    once.playsOnce = true;
    EXPECT_THROW(MakeEffectiveConfig(once), UsageError);
    CommandLine seed;
    seed.seed = 7;
    EXPECT_EQ(MakeEffectiveConfig(seed).config.mds->simulation->seed, 7U);
    seed.replayFiles = {GetRecording("three_segments/spot.csv.zst")};
    EXPECT_THROW(MakeEffectiveConfig(seed), UsageError);
}

} // namespace
} // namespace ps_ns
