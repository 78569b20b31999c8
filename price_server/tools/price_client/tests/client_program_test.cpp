#include "client_test_kit.h"
#include "price_client/client_error.h"

#include <boost/json.hpp>
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <csignal>
#include <netinet/in.h>
#include <sstream>
#include <sys/socket.h>
#include <unistd.h>

namespace ps_ns::price_client
{
namespace
{

constexpr const char* kNobody = "http://127.0.0.1:1"; // a port that needs rights nobody here has

int operator+(ExitCode code)
{
    return static_cast<int>(code);
}

std::vector<boost::json::object> ParseLines(const std::string& output)
{
    std::vector<boost::json::object> lines;
    std::istringstream stream(output);
    for (std::string line; std::getline(stream, line);)
    {
        lines.push_back(boost::json::parse(line).as_object());
    }
    return lines;
}

/// The first object behind a text is an image.
bool HasPricesBehind(const std::string& output, const std::string& text)
{
    const std::size_t at = output.find(text);
    return at != std::string::npos && output.compare(at + text.size(), 15, "{\"type\":\"image\"") == 0;
}

/// One server for the tests that leave it as it is.
class ClientProgram : public ::testing::Test
{
protected:
    static void SetUpTestSuite() { s_server = std::make_unique<TestServer>(); }
    static void TearDownTestSuite() { s_server.reset(); }
    static std::string Url() { return s_server->GetUrl(); }

    static inline std::unique_ptr<TestServer> s_server;
};

TEST_F(ClientProgram, ShowsTheStatus)
{
    const Ended client = RunClient(Url(), {"status"});
    EXPECT_EQ(client.exitCode, 0) << client.errors;
    EXPECT_NE(client.output.find("ready           yes\n"), std::string::npos) << client.output;
    EXPECT_NE(client.output.find("market 1        SIM, depth 10, at most 1000\n"), std::string::npos);
    EXPECT_EQ(client.errors, "");
    EXPECT_TRUE(boost::json::parse(RunClient(Url(), {"status", "--json"}).output).as_object().contains("gauges"));
}

TEST_F(ClientProgram, ListsInstruments)
{
    const Ended names = RunClient(Url(), {"instruments", "--names", "--search", "gold"});
    EXPECT_EQ(names.exitCode, 0) << names.errors;
    EXPECT_EQ(Count(names.output, "\n"), 6U) << names.output;
    EXPECT_EQ(Count(names.output, "SIM:GOLD-"), 6U);
    EXPECT_EQ(Count(RunClient(Url(), {"instruments", "--limit", "4"}).output, "\n"), 5U) << "with a head";
    EXPECT_EQ(ParseLines(RunClient(Url(), {"instruments", "--json"}).output).size(), 18U);
    EXPECT_EQ(RunClient(Url(), {"instruments", "--names", "--market", "NONE"}).output, "");
}

TEST_F(ClientProgram, WritesAnImageAndThenUpdatesThatFollowEachOther)
{
    const Ended client = RunClient(Url(), {"subscribe", "--json", "GOLD-JUN27", "--depth", "3", "--count", "20"});
    ASSERT_EQ(client.exitCode, 0) << client.errors;
    const auto lines = ParseLines(client.output);
    ASSERT_EQ(lines.size(), 20U);
    EXPECT_EQ(lines[0].at("type").as_string(), "image");
    for (std::size_t i = 1; i < lines.size(); ++i)
    {
        ASSERT_EQ(lines[i].at("instrument").as_string(), "SIM:GOLD-JUN27");
        if (lines[i].at("type").as_string() == "update")
        {
            ASSERT_EQ(lines[i].at("previous"), lines[i - 1].at("sequence"));
        }
    }
    EXPECT_EQ(client.errors, "");
}

TEST_F(ClientProgram, WritesWholeBooks)
{
    const Ended client = RunClient(Url(), {"subscribe", "--books", "GOLD-JUN27", "CRUDE-MAR27", "--depth", "3",
                                           "--count", "30", "--kinds", "book,trades"});
    ASSERT_EQ(client.exitCode, 0) << client.errors;
    std::size_t books = 0;
    for (const auto& line : ParseLines(client.output))
    {
        if (line.at("type").as_string() == "book")
        {
            ++books;
            EXPECT_GE(line.at("bids").as_array().size(), 1U);
            EXPECT_LE(line.at("bids").as_array().size(), 3U);
        }
        else
        {
            EXPECT_EQ(line.at("type").as_string(), "trades");
        }
    }
    EXPECT_GT(books, 5U);
}

TEST_F(ClientProgram, ExplainsAnInstrumentAndWhoHoldsIt)
{
    const auto holder = StartClient(Url(), {"subscribe", "SIM:WHEAT-JUN27", "--depth", "4", "--interval", "30"});
    ASSERT_TRUE(holder->WaitForOutput("\"image\""));
    const Ended client = RunClient(Url(), {"explain", "SIM:WHEAT-JUN27"});
    EXPECT_EQ(client.exitCode, 0) << client.errors;
    for (const char* const text :
         {"identity        instrument ", "  state         active\n", "  direct        WHEAT-JUN27 at mds (final)",
          "  implied       IM_WHEAT-JUN27 at mds (final)", "  holders       1\n", "gateway-",
          "depth 4, at most one book in 30 ms", "  last update   20"})
    {
        EXPECT_NE(client.output.find(text), std::string::npos) << text << "\n" << client.output;
    }
}

TEST_F(ClientProgram, EndsWithNearNamesWhenAnInstrumentIsUnknown)
{
    for (const char* const command : {"subscribe", "explain"})
    {
        const Ended client = RunClient(Url(), {command, "GOLD-JUN72"});
        EXPECT_EQ(client.exitCode, +ExitCode::NotFound);
        EXPECT_EQ(client.output, "");
        EXPECT_NE(client.errors.find("there is no instrument \"GOLD-JUN72\"; near are"), std::string::npos);
        EXPECT_NE(client.errors.find("SIM:GOLD-JUN27"), std::string::npos) << client.errors;
    }
}

TEST_F(ClientProgram, EndsWellWhenItsReaderLeaves)
{
    const Ended shell = RunShell(Url(), "\"$CLIENT\" subscribe SIM:GOLD-JUN27 | head -1; echo \"${PIPESTATUS[0]}\"");
    EXPECT_NE(shell.output.find("{\"type\":\"image\""), std::string::npos) << shell.errors;
    EXPECT_TRUE(shell.output.ends_with("\n0\n")) << shell.output;
    EXPECT_EQ(shell.errors, "");
}

TEST_F(ClientProgram, EndsWellAtASignal)
{
    for (const int number : {SIGINT, SIGTERM})
    {
        const auto client = StartClient(Url(), {"subscribe", "SIM:GOLD-JUN27"});
        ASSERT_TRUE(client->WaitForOutput("\"update\""));
        client->Signal(number);
        EXPECT_EQ(client->WaitForExit(), 0);
        EXPECT_TRUE(client->GetOutput().ends_with("}\n")) << "the last line is whole";
        EXPECT_EQ(client->GetErrors(), "");
    }
}

/// The bytes that a reader gets of a client that is interrupted after two seconds, and what timeout(1) says of it: 124,
/// or 137 when it had to be killed five seconds later.
std::pair<std::size_t, int> InterruptWhileRead(const std::string& url, const std::string& reader)
{
    const Ended shell = RunShell(url, R"(
        timeout -s INT -k 5 2 "$CLIENT" subscribe --books --depth max GOLD-MAR27 GOLD-JUN27 GOLD-SEP27 CRUDE-MAR27 \
            CRUDE-JUN27 CRUDE-SEP27 WHEAT-MAR27 WHEAT-JUN27 | )" +
                                          reader + R"(
        echo "${PIPESTATUS[0]}")");
    std::istringstream numbers(shell.output);
    std::pair<std::size_t, int> result;
    numbers >> result.first >> result.second;
    return result;
}

TEST_F(ClientProgram, EndsAtASignalThoughItsReaderDoesNotRead)
{
    const auto [allBytes, exitCodeWhenRead] = InterruptWhileRead(Url(), "wc -c");
    const auto [someBytes, exitCodeWhenUnread] = InterruptWhileRead(Url(), "{ sleep 7.2; wc -c; }");
    EXPECT_EQ(exitCodeWhenRead, 124);
    EXPECT_EQ(exitCodeWhenUnread, 124);
    EXPECT_GT(someBytes, 0U);
    EXPECT_GT(allBytes, 2 * someBytes) << "the pipe was full";
}

TEST_F(ClientProgram, WatchDrawsLaddersOnATerminalAndGivesItBack)
{
    const auto client = StartClient(Url(), {"watch", "SIM:GOLD-JUN27", "GOLD-JUN27", "CRUDE-MAR27", "--depth", "5"}, {},
                                    ChildProcess::Output::Terminal);
    ASSERT_TRUE(WaitForCount(*client, " updates. Ctrl+C ends", 3)) << client->GetOutput();
    client->Signal(SIGINT);
    EXPECT_EQ(client->WaitForExit(), 0);
    const std::string& screen = client->GetOutput();
    EXPECT_EQ(Count(screen, "\x1b[?1049h"), 1U);
    const std::size_t left = screen.find("\x1b[?1049l");
    ASSERT_NE(left, std::string::npos);
    EXPECT_NE(screen.find("\x1b[3"), std::string::npos) << "colours";
    EXPECT_NE(screen.find("SIM:GOLD-JUN27", left), std::string::npos) << "the last picture stays";
    EXPECT_NE(screen.find("SIM:CRUDE-MAR27", left), std::string::npos);
    EXPECT_EQ(Count(screen, "GOLD-JUN27: asked for twice, shown once"), 1U);
}

TEST_F(ClientProgram, WatchHasNoColoursWhenTheyAreNotWanted)
{
    const auto client = StartClient(Url(), {"watch", "SIM:GOLD-JUN27"}, {"NO_COLOR=1"}, ChildProcess::Output::Terminal);
    ASSERT_TRUE(WaitForCount(*client, " updates. Ctrl+C ends", 2)) << client->GetOutput();
    client->Signal(SIGINT);
    EXPECT_EQ(client->WaitForExit(), 0);
    EXPECT_EQ(client->GetOutput().find("\x1b[3"), std::string::npos);
}

TEST_F(ClientProgram, WatchLeavesTheTerminalAloneWhenThereIsNothingToShow)
{
    const auto client = StartClient(Url(), {"watch", "NONSENSE"}, {}, ChildProcess::Output::Terminal);
    EXPECT_EQ(client->WaitForExit(), +ExitCode::NotFound);
    EXPECT_EQ(client->GetOutput().find('\x1b'), std::string::npos) << client->GetOutput();
}

TEST_F(ClientProgram, WatchRefusesAPipe)
{
    const Ended client = RunClient(Url(), {"watch", "SIM:GOLD-JUN27"});
    EXPECT_EQ(client.exitCode, +ExitCode::Usage);
    EXPECT_NE(client.errors.find("use subscribe"), std::string::npos);
}

TEST_F(ClientProgram, CompletesCommandsOptionsAndInstrumentsInBash)
{
    const std::string complete = R"(
        source <("$CLIENT" completion bash)
        complete_line() {
            COMP_LINE="$1" COMP_POINT=${#1} COMP_WORDS=("$CLIENT")
            _price_client
            echo "${COMPREPLY[*]}"
        }
        complete_line 'price_client st'
        complete_line 'price_client subscribe --bo'
        complete_line 'price_client completion '
        complete_line 'price_client watch SIM:CRUDE-M'
        complete_line 'price_client --url http://127.0.0.1:1 watch SIM:CRUDE-M'
        COMP_WORDBREAKS=
        complete_line 'price_client explain SIM:CRUDE-S')";
    const Ended shell = RunShell(Url(), complete);
    std::istringstream lines(shell.output);
    std::vector<std::string> found;
    for (std::string line; std::getline(lines, line);)
    {
        found.push_back(line);
    }
    ASSERT_EQ(found.size(), 6U) << shell.output << shell.errors;
    EXPECT_EQ(found[0], "status");
    EXPECT_EQ(found[1], "--books");
    EXPECT_TRUE(found[2].starts_with("bash zsh fish")) << found[2];
    EXPECT_EQ(found[3], "CRUDE-MAR27 CRUDE-MAR27-JUN27 CRUDE-MAR27-SEP27") << "what stands behind the colon";
    EXPECT_EQ(found[4], "") << "the server that the line names is asked";
    EXPECT_EQ(found[5], "SIM:CRUDE-SEP27");
}

TEST(ClientProgramAlone, EndsWhenNobodyListens)
{
    for (const auto& arguments :
         {std::vector<std::string>{"status"}, {"instruments"}, {"explain", "A"}, {"subscribe", "SIM:GOLD-JUN27"}})
    {
        const Ended client = RunClient(kNobody, arguments);
        EXPECT_EQ(client.exitCode, +ExitCode::CannotConnect);
        EXPECT_EQ(client.errors, "price_client: cannot connect to 127.0.0.1:1: Connection refused\n");
        EXPECT_EQ(client.output, "");
    }
}

TEST(ClientProgramAlone, EndsWhenTheServerDoesNotAnswerInTime)
{
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), size), 0);
    ASSERT_EQ(::listen(listener, 8), 0);
    ASSERT_EQ(::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size), 0);
    const std::string place = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    for (const auto& arguments :
         {std::vector<std::string>{"status", "--timeout", "0.2"}, {"subscribe", "A", "--timeout", "0.2"}})
    {
        for (const std::string scheme : {"http://", "https://"})
        {
            const Ended client = RunClient(scheme + place, arguments);
            EXPECT_EQ(client.exitCode, +ExitCode::CannotConnect) << client.errors;
            EXPECT_NE(client.errors.find("no answer within 200 ms"), std::string::npos) << client.errors;
        }
    }
    ::close(listener);
}

TEST(ClientProgramAlone, ShowsItsTokenAndEndsWhenItIsWrongOrMissing)
{
    const TestServer server(TestServer::Settings{"right-token", false});
    const std::string file = server.GetFolder().Write("client_token", "right-token\n");
    for (const auto& arguments : {std::vector<std::string>{"status"}, {"subscribe", "SIM:GOLD-JUN27", "--count", "1"}})
    {
        EXPECT_EQ(RunClient(server.GetUrl(), arguments, {"PRICE_SERVER_TOKEN=right-token"}).exitCode, 0);
        std::vector<std::string> withFile{"--token-file", file};
        withFile.insert(withFile.end(), arguments.begin(), arguments.end());
        EXPECT_EQ(RunClient(server.GetUrl(), withFile).exitCode, 0);

        const Ended wrong = RunClient(server.GetUrl(), arguments, {"PRICE_SERVER_TOKEN=wrong-token"});
        EXPECT_EQ(wrong.exitCode, +ExitCode::Refused) << wrong.errors;
        EXPECT_EQ(wrong.errors.find("wrong-token"), std::string::npos) << "a token is not repeated";
        const Ended missing = RunClient(server.GetUrl(), arguments);
        EXPECT_EQ(missing.exitCode, +ExitCode::Refused) << missing.errors;
        EXPECT_NE(missing.errors.find("--token-file"), std::string::npos) << missing.errors;
    }
}

TEST(ClientProgramAlone, VerifiesTheServersCertificateAndItsName)
{
    const TestServer server(TestServer::Settings{"", true});
    const std::string ca = server.GetCertificateFile();
    for (const auto& arguments : {std::vector<std::string>{"status"}, {"subscribe", "SIM:GOLD-JUN27", "--count", "2"}})
    {
        const auto run = [&](const std::string& url, const std::vector<std::string>& more)
        {
            std::vector<std::string> all = arguments;
            all.insert(all.end(), more.begin(), more.end());
            return RunClient(url, all);
        };
        const Ended trusted = run(server.GetUrl(), {"--ca", ca});
        EXPECT_EQ(trusted.exitCode, 0) << trusted.errors;
        EXPECT_NE(trusted.output, "");
        const Ended untrusted = run(server.GetUrl(), {});
        EXPECT_EQ(untrusted.exitCode, +ExitCode::CannotConnect);
        EXPECT_NE(untrusted.errors.find("self-signed certificate"), std::string::npos) << untrusted.errors;
        const Ended otherName = run(server.GetUrl("localhost"), {"--ca", ca});
        EXPECT_EQ(otherName.exitCode, +ExitCode::CannotConnect) << otherName.output;
        const Ended noFile = run(server.GetUrl(), {"--ca", "/there/is/none"});
        EXPECT_EQ(noFile.exitCode, +ExitCode::Failure);
    }
}

TEST(ClientProgramAlone, TakesPricesUpAgainWhenTheServerComesBack)
{
    TestServer server;
    const auto client = StartShell(server.GetUrl(), "exec \"$CLIENT\" subscribe SIM:GOLD-JUN27 2>&1");
    ASSERT_TRUE(client->WaitForOutput("\"update\""));
    server.Stop();
    ASSERT_TRUE(client->WaitForOutput("has ended the session: the server stops (1001); trying again in"));
    ASSERT_TRUE(client->WaitForOutput("Connection refused; trying again in"));
    server.StartAgain();
    ASSERT_TRUE(client->WaitForOutput(" again\n"));
    ASSERT_TRUE(WaitUntil(*client, [&] { return HasPricesBehind(client->GetOutput(), " again\n"); }));
    client->Signal(SIGINT);
    EXPECT_EQ(client->WaitForExit(), 0);
}

TEST(ClientProgramAlone, WatchKeepsOldBooksAndSaysSoWhileTheServerIsAway)
{
    TestServer server;
    const auto client = StartClient(server.GetUrl(), {"watch", "SIM:GOLD-JUN27"}, {}, ChildProcess::Output::Terminal);
    ASSERT_TRUE(WaitForCount(*client, " updates. Ctrl+C ends", 2));
    server.Stop();
    ASSERT_TRUE(client->WaitForOutput("SIM:GOLD-JUN27 OLD"));
    client->Signal(SIGINT);
    EXPECT_EQ(client->WaitForExit(), 0) << "also while it waits";
    EXPECT_NE(client->GetOutput().find("trying again in"), std::string::npos);
}

} // namespace
} // namespace ps_ns::price_client
