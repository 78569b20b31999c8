#include "child_process.h"
#include "program_test_kit.h"
#include "server/exit_code.h"

#include <boost/json.hpp>
#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>

namespace ps_ns
{
namespace
{

namespace json = boost::json;

constexpr auto kStopLimit = std::chrono::seconds(2);

std::vector<json::object> ParseLines(const std::string& output)
{
    std::vector<json::object> lines;
    std::istringstream stream(output);
    for (std::string line; std::getline(stream, line);)
    {
        lines.push_back(json::parse(line).as_object());
    }
    return lines;
}

TEST(Program, ReplaysARecordingToItsEndAsJsonLines)
{
    ChildProcess program({"--replay", GetRecording("three_segments/spot.csv.zst"), "--once", "--speed", "max",
                          "--watch", "BTCUSDT", "--depth", "4"});
    ASSERT_EQ(program.WaitForExit(), ExitOk) << program.GetErrors();

    std::size_t books = 0;
    std::size_t trades = 0;
    std::int64_t sequence = 0;
    for (const json::object& line : ParseLines(program.GetOutput()))
    {
        ASSERT_EQ(line.at("market").as_string(), "SPOT");
        ASSERT_EQ(line.at("symbol").as_string(), "BTCUSDT");
        if (line.at("type").as_string() == "trades")
        {
            trades += line.at("trades").as_array().size();
            continue;
        }
        ++books;
        ASSERT_GT(line.at("sequence").as_int64(), sequence);
        sequence = line.at("sequence").as_int64();
        ASSERT_LE(line.at("bids").as_array().size(), 4U);
    }
    EXPECT_GT(books, 500U);
    EXPECT_GT(trades, 1000U);
}

TEST(Program, FailsAtTheEndOfARecordingThatIsCutOffButPlaysWhatThereIs)
{
    std::ifstream in(GetRecording("three_segments/spot.csv.zst"), std::ios::binary);
    const std::string whole{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    const TemporaryFolder folder;
    const std::string path = folder.Write("cut.csv.zst", whole.substr(0, whole.size() / 2));
    ChildProcess program({"--replay", path, "--once", "--speed", "max", "--no-gateway"});
    EXPECT_EQ(program.WaitForExit(), ExitFailure);
    EXPECT_NE(program.GetErrors().find("the market data feed has failed"), std::string::npos) << program.GetErrors();
    EXPECT_GT(ParseLines(program.GetOutput()).size(), 100U);
}

TEST(Program, WritesTheSameLinesEachTimeThatItReplaysARecording)
{
    const std::vector<std::string> arguments{"--replay", GetRecording("many_instruments/poloniex.csv.zst"), "--speed",
                                             "max"};
    ChildProcess first(arguments);
    ChildProcess second(arguments);
    ASSERT_EQ(first.WaitForExit(), ExitOk) << first.GetErrors();
    ASSERT_EQ(second.WaitForExit(), ExitOk) << second.GetErrors();
    EXPECT_FALSE(first.GetOutput().empty());
    EXPECT_EQ(first.GetOutput(), second.GetOutput());
}

TEST(Program, MergesImpliedPricesIntoTheBooksOfItsSimulatedMarket)
{
    ChildProcess program({"--duration", "1", "--watch", "GOLD-MAR27"});
    ASSERT_EQ(program.WaitForExit(), ExitOk) << program.GetErrors();
    bool hasImplied = false;
    for (const json::object& line : ParseLines(program.GetOutput()))
    {
        if (line.at("type").as_string() == "book")
        {
            for (const json::value& level : line.at("bids").as_array())
            {
                hasImplied = hasImplied || level.at("implied").as_string() != "0";
            }
        }
    }
    EXPECT_TRUE(hasImplied);
}

TEST(Program, StopsWithinTwoSecondsOfASignal)
{
    for (const int number : {SIGTERM, SIGINT, SIGHUP})
    {
        ChildProcess program({});
        ASSERT_TRUE(program.WaitForOutput("\n")) << program.GetErrors();
        const auto begin = ChildProcess::Clock::now();
        program.Signal(number);
        EXPECT_EQ(program.WaitForExit(), ExitOk) << program.GetErrors();
        EXPECT_LT(ChildProcess::Clock::now() - begin, kStopLimit);
        EXPECT_EQ(program.GetOutput().back(), '\n') << "the last line is whole";
    }
}

TEST(Program, TakesTwoSignalsThatComeTogetherForOneRequest)
{
    ChildProcess program({});
    ASSERT_TRUE(program.WaitForOutput("\n")) << program.GetErrors();
    program.Signal(SIGTERM);
    program.Signal(SIGINT);
    EXPECT_EQ(program.WaitForExit(), ExitOk) << program.GetErrors();
}

TEST(Program, StopsWithinTwoSecondsAlthoughNobodyReadsItsOutput)
{
    ChildProcess program(
        {"--replay", GetRecording("three_segments/usdm.csv.zst"), "--speed", "max", "--loop", "--watch", "BTCUSDT"});
    ASSERT_TRUE(program.WaitForOutput("\n")) << program.GetErrors();
    program.Signal(SIGTERM);
    const auto begin = ChildProcess::Clock::now();
    EXPECT_EQ(program.WaitForExitUnread(), ExitOk) << program.GetErrors();
    EXPECT_LT(ChildProcess::Clock::now() - begin, kStopLimit);
}

TEST(Program, EndsQuietlyWhenItsReaderHasGone)
{
    ChildProcess program({});
    ASSERT_TRUE(program.WaitForOutput("\n")) << program.GetErrors();
    program.CloseOutput();
    EXPECT_EQ(program.WaitForExit(), ExitOk) << program.GetErrors();
}

TEST(Program, SaysWhatIsWrongWithAConfigurationAndOnWhichLine)
{
    const TemporaryFolder folder;
    const std::string path = folder.Write("bad.xml", "<PriceServer>\n  <Genral/>\n</PriceServer>\n");
    ChildProcess program({"--config", path});
    EXPECT_EQ(program.WaitForExit(), ExitConfiguration);
    EXPECT_NE(program.GetErrors().find(path + ":2: "), std::string::npos) << program.GetErrors();
    EXPECT_NE(program.GetErrors().find("General"), std::string::npos) << program.GetErrors();
    EXPECT_TRUE(program.GetOutput().empty());

    ChildProcess check({"--config", path, "--check-config"});
    EXPECT_EQ(check.WaitForExit(), ExitConfiguration);
    EXPECT_NE(check.GetOutput().find(path + ":2: "), std::string::npos) << check.GetOutput();
}

TEST(Program, FindsNothingWrongWithTheConfigurationThatItPrints)
{
    ChildProcess print({"--print-config"});
    ASSERT_EQ(print.WaitForExit(), ExitOk);
    const TemporaryFolder folder;
    ChildProcess check({"--config", folder.Write("good.xml", print.GetOutput()), "--check-config"});
    EXPECT_EQ(check.WaitForExit(), ExitOk) << check.GetOutput();
}

TEST(Program, NamesTheNearestInstrumentForOneThatItDoesNotKnow)
{
    ChildProcess program({"--watch", "GOLD-MAR72"});
    EXPECT_EQ(program.WaitForExit(), ExitFailure);
    EXPECT_NE(program.GetErrors().find("there is no instrument \"GOLD-MAR72\"; near are "), std::string::npos);
    EXPECT_NE(program.GetErrors().find("GOLD-MAR27"), std::string::npos) << program.GetErrors();
}

TEST(Program, TellsWrongUsageFromFailure)
{
    ChildProcess usage({"--speed", "fast"});
    EXPECT_EQ(usage.WaitForExit(), ExitUsage);
    ChildProcess noRecording({"--once"});
    EXPECT_EQ(noRecording.WaitForExit(), ExitUsage);
    ChildProcess noFile({"--replay", "/no/such/file.csv"});
    EXPECT_EQ(noFile.WaitForExit(), ExitFailure);
    EXPECT_NE(noFile.GetErrors().find("/no/such/file.csv"), std::string::npos) << noFile.GetErrors();
    ChildProcess noConfig({"--config", "/no/such/file.xml"});
    EXPECT_EQ(noConfig.WaitForExit(), ExitConfiguration);
}

TEST(Program, DrawsLaddersOnATerminalAndGivesTheScreenBack)
{
    ChildProcess program({"--watch", "GOLD-MAR27"}, ChildProcess::Output::Terminal);
    ASSERT_TRUE(program.WaitForOutput("\x1b[?1049h"));
    ASSERT_TRUE(program.WaitForOutput("SIM:GOLD-MAR27"));
    ASSERT_TRUE(program.WaitForOutput("implied"));
    const auto begin = ChildProcess::Clock::now();
    program.Signal(SIGINT);
    EXPECT_EQ(program.WaitForExit(), ExitOk);
    EXPECT_LT(ChildProcess::Clock::now() - begin, kStopLimit);
    const std::string& output = program.GetOutput();
    const std::size_t leave = output.rfind("\x1b[?1049l");
    ASSERT_NE(leave, std::string::npos);
    EXPECT_EQ(output.find("\x1b[?1049h", leave), std::string::npos);
    EXPECT_LT(output.rfind("\x1b[?25l"), output.rfind("\x1b[?25h")) << "the cursor is shown again";
    EXPECT_NE(output.find("SIM:GOLD-MAR27", leave), std::string::npos) << "the last picture stays";
}

TEST(Program, RedrawsAtMostSomeTenTimesASecond)
{
    ChildProcess program({}, ChildProcess::Output::Terminal);
    ASSERT_TRUE(program.WaitForOutput("\x1b[H"));
    const auto count = [&]
    {
        std::size_t frames = 0;
        for (std::size_t at = 0; (at = program.GetOutput().find("\x1b[H", at)) != std::string::npos; ++at)
        {
            ++frames;
        }
        return frames;
    };
    const std::size_t before = count();
    const auto begin = ChildProcess::Clock::now();
    program.ReadFor(std::chrono::milliseconds(1000));
    const std::chrono::duration<double> time = ChildProcess::Clock::now() - begin;
    const std::size_t frames = count() - before;
    EXPECT_GE(frames, 2U);
    EXPECT_LE(static_cast<double>(frames), 11 * time.count() + 2);
    program.Signal(SIGTERM);
    EXPECT_EQ(program.WaitForExit(), ExitOk);
}

TEST(Program, RunsWithoutAWatchAsAConfiguredServer)
{
    ChildProcess print({"--print-config"});
    ASSERT_EQ(print.WaitForExit(), ExitOk);
    const TemporaryFolder folder;
    ChildProcess program({"--config", folder.Write("good.xml", print.GetOutput()), "--port", "0", "--duration", "0.2"});
    EXPECT_EQ(program.WaitForExit(), ExitOk) << program.GetErrors();
    EXPECT_TRUE(program.GetOutput().empty());
    EXPECT_NE(program.GetErrors().find("watching none"), std::string::npos) << program.GetErrors();
}

} // namespace
} // namespace ps_ns
