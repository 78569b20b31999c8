#include "server/server_config.h"

#include "config/composite_node.h"
#include "config_test_kit.h"
#include "generated_config.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <utility>

using namespace ps_ns;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace
{

const std::string kMarkets = "<Markets>\n<Market id='1' name='SPOT'/>\n<Market id='2' name='USDM'/>\n</Markets>\n";
const std::string kSimulation = "<Providers><Mds><Simulation/></Mds></Providers>";

std::string Server(const std::string& sections)
{
    return "<PriceServer>" + sections + "</PriceServer>";
}
std::string WithMds(const std::string& content)
{
    return Server(kMarkets + "<Providers><Mds>" + content + "</Mds></Providers>");
}
std::string WithImplied(const std::string& rules)
{
    return WithMds("<Simulation/><Implied>" + rules + "</Implied>");
}

/// A folder with a configuration file "server.xml" in it, and perhaps with other files.
class ServerConfigTest : public ::testing::Test
{
protected:
    std::vector<std::string> Check(const std::string& text)
    {
        std::vector<std::string> lines;
        for (const ConfigProblem& problem : CheckServerConfig(m_folder.Write("server.xml", text)))
        {
            lines.push_back(std::to_string(problem.line) + ": " + problem.text);
        }
        return lines;
    }
    ServerConfig Load(const std::string& text) { return LoadServerConfig(m_folder.Write("server.xml", text)); }

    const TemporaryFolder m_folder;
};

} // namespace

TEST_F(ServerConfigTest, HasTheDocumentedDefaults)
{
    const ServerConfig config =
        Load(Server(kMarkets + "<Providers><Mds><Simulation/></Mds><Zel/></Providers><Gateway/>"));
    EXPECT_EQ(config.gateway.value().drain_ms, 0U);
    EXPECT_EQ(config.logging.level, 10);
    EXPECT_EQ(config.logging.format, zel::logging::Format::Text);
    EXPECT_EQ(config.logging.file, "");
    EXPECT_EQ(config.logging.queue, 8192U);
    EXPECT_TRUE(config.metrics.enabled);
    EXPECT_EQ(config.executorThreads, 2U);
    EXPECT_EQ(config.markets.at(0).defaultDepth, 10U);
    EXPECT_EQ(config.markets.at(0).maxDepth, 1000U);
    EXPECT_EQ(config.markets.at(0).emptySuppressInterval_ms, 0U);
    EXPECT_EQ(config.mds->simulation->seed, 1U);
    EXPECT_EQ(config.mds->simulation->updatesPerSecond, 200U);
    EXPECT_FALSE(config.mds->replay.has_value());
    EXPECT_EQ(config.zel->url, "nats://127.0.0.1:4222");
    EXPECT_EQ(config.zel->user, "");
    EXPECT_EQ(config.zel->connectTimeout_ms, 500U);
    EXPECT_EQ(config.gateway->address, "127.0.0.1");
    EXPECT_EQ(config.gateway->port, 8080);
}

TEST_F(ServerConfigTest, LeavesOutTheSectionsThatAreNotThere)
{
    const ServerConfig config = Load(Server(kMarkets + kSimulation));
    EXPECT_FALSE(config.gateway.has_value());
    EXPECT_FALSE(config.zel.has_value());
    EXPECT_THAT(config.mds->implied, IsEmpty());
    EXPECT_FALSE(Load(Server(kMarkets + "<Providers><Zel/></Providers>")).mds.has_value());
}

TEST_F(ServerConfigTest, ReadsEveryAttribute)
{
    const ServerConfig config =
        Load(Server("<Logging level='20' format='json' file='/var/log/server.log' queue='99'/><Metrics enabled='no'/>"
                    "<Threads executors='7'/><Markets><Market id='32767' name='A&amp;B' defaultDepth='3' maxDepth='4' "
                    "emptySuppressInterval_ms='5'/></Markets><Providers><Mds><Simulation seed='18446744073709551615' "
                    "updatesPerSecond='9'/></Mds><Zel url='nats://broker:1' user='u' passwordFile='server.xml' "
                    "connectTimeout_ms='77'/></Providers><Gateway address='::1' port='0' "
                    "drain_ms='2500'/>"));
    EXPECT_EQ(config.gateway.value().drain_ms, 2500U);
    EXPECT_EQ(config.logging.level, 20);
    EXPECT_EQ(config.logging.format, zel::logging::Format::JsonLines);
    EXPECT_EQ(config.logging.file, "/var/log/server.log");
    EXPECT_EQ(config.logging.queue, 99U);
    EXPECT_FALSE(config.metrics.enabled);
    EXPECT_EQ(config.executorThreads, 7U);
    ASSERT_EQ(config.markets.size(), 1U);
    EXPECT_EQ(config.markets[0].id, 32767);
    EXPECT_EQ(config.markets[0].name, "A&B");
    EXPECT_EQ(config.markets[0].defaultDepth, 3U);
    EXPECT_EQ(config.markets[0].maxDepth, 4U);
    EXPECT_EQ(config.markets[0].emptySuppressInterval_ms, 5U);
    EXPECT_EQ(config.mds->simulation->seed, 18'446'744'073'709'551'615U);
    EXPECT_EQ(config.mds->simulation->updatesPerSecond, 9U);
    EXPECT_EQ(config.zel->url, "nats://broker:1");
    EXPECT_EQ(config.zel->user, "u");
    EXPECT_TRUE(config.zel->passwordFile.ends_with("/server.xml"));
    EXPECT_EQ(config.zel->connectTimeout_ms, 77U);
    EXPECT_EQ(config.gateway->address, "::1");
    EXPECT_EQ(config.gateway->port, 0);
}

TEST_F(ServerConfigTest, ChecksTheBrokersAddressAndItsPassword)
{
    const auto check = [&](const std::string& attributes)
    { return Check(Server(kMarkets + "<Providers><Zel " + attributes + "/></Providers>")); };
    EXPECT_THAT(check("url='nats://a:1, tls://b:2'"), IsEmpty());
    for (const char* const url : {"broker:4222", "nats://", "nats://a:1,", "http://a"})
    {
        const auto problems = check(std::string("url='") + url + "'");
        ASSERT_EQ(problems.size(), 1U) << url;
        EXPECT_THAT(problems[0], ::testing::HasSubstr("is not like nats://host:4222"));
    }
    EXPECT_THAT(check("user='u'").at(0), ::testing::HasSubstr("needs \"user\" and \"passwordFile\" together"));
    EXPECT_THAT(check("user='u' passwordFile='none'").at(0), ::testing::HasSubstr("cannot be read"));
}

TEST_F(ServerConfigTest, ReadsHowTheInstrumentsAreShared)
{
    const auto zel = [&](const std::string& attributes)
    { return Server(kMarkets + "<Providers><Zel " + attributes + "/></Providers>"); };
    EXPECT_EQ(Load(zel("")).zel->shards, 0U);
    const ZelSettings settings =
        *Load(zel("shards='20' server='ps1' address='http://ps1:80' lease_ms='1500' brokers='3'")).zel;
    EXPECT_EQ(settings.shards, 20U);
    EXPECT_EQ(settings.server, "ps1");
    EXPECT_EQ(settings.address, "http://ps1:80");
    EXPECT_EQ(settings.lease_ms, 1500U);
    EXPECT_EQ(settings.brokers, 3U);
    for (const char* const attribute : {"server='a'", "address='a'", "lease_ms='800'", "brokers='3'"})
    {
        EXPECT_THAT(Check(zel(attribute)), ElementsAre(HasSubstr("means nothing without \"shards\""))) << attribute;
    }
    EXPECT_THAT(Check(zel("shards='0'")), ElementsAre(HasSubstr("is not a whole number from 1 to 1000")));
    EXPECT_EQ(Check(zel("shards='4' brokers='2'")).size(), 1U);
    EXPECT_EQ(Check(zel("shards='4' lease_ms='100'")).size(), 1U);
}

TEST_F(ServerConfigTest, KeepsTheTreeThatTheManagerReads)
{
    const ServerConfig config = Load(
        Server("<General SkipUnchangedSnapshots='T' InstrumentMonitoringInterval_sec='30'/>" + kMarkets + kSimulation));
    EXPECT_EQ(config.config->GetRootName(), "PriceServer");
    const CompositeNode general("General", config.config->GetTree().get_child("PriceServer.General"));
    EXPECT_TRUE(general.GetAttrValue<bool>("SkipUnchangedSnapshots", false, nullptr));
    EXPECT_EQ(general.GetAttrValue<unsigned>("InstrumentMonitoringInterval_sec", 0U, nullptr), 30U);
}

TEST_F(ServerConfigTest, ChecksTheTypesOfTheGeneralSection)
{
    EXPECT_THAT(Check(Server("<General SkipUnchangedSnapshots='maybe' InstrumentMonitoringInterval_sec='-1'/>" +
                             kMarkets + kSimulation)),
                ElementsAre(HasSubstr("\"maybe\" is not yes or no"),
                            HasSubstr("\"-1\" is not a whole number from 0 to 4294967295")));
}

TEST_F(ServerConfigTest, ReadsReplayFilesFromTheFolderOfTheFile)
{
    m_folder.Write("spot.csv.zst", "x");
    m_folder.Write("usdm.csv", "x");
    const ServerConfig config = Load(WithMds("<Replay speed='0.5' loop='yes'><File path='spot.csv.zst'/><File path='" +
                                             m_folder.GetPath("usdm.csv") + "'/></Replay>"));
    EXPECT_EQ(config.mds->replay->speed, 0.5);
    EXPECT_TRUE(config.mds->replay->loop);
    EXPECT_THAT(config.mds->replay->files, ElementsAre(m_folder.GetPath("spot.csv.zst"), m_folder.GetPath("usdm.csv")));
}

TEST_F(ServerConfigTest, TakesSpeedZeroForAsFastAsPossible)
{
    m_folder.Write("a.csv", "x");
    const ServerConfig config = Load(WithMds("<Replay speed='0'><File path='a.csv'/></Replay>"));
    EXPECT_EQ(config.mds->replay->speed, 0.0);
    EXPECT_FALSE(config.mds->replay->loop);
}

TEST_F(ServerConfigTest, RefusesReplayFilesThatCannotBeReplayed)
{
    m_folder.Write("a.csv", "x");
    m_folder.Write("notes.txt", "x");
    std::filesystem::create_directory(m_folder.GetPath("folder.csv"));
    EXPECT_THAT(Check(WithMds("<Replay>\n<File path='none.csv'/>\n<File path='folder.csv'/>\n<File path='notes.txt'/>\n"
                              "<File path='a.csv'/>\n<File path='a.csv'/></Replay>")),
                ElementsAre(AllOf(HasSubstr("6: the replay file"), HasSubstr("does not exist")),
                            AllOf(HasSubstr("7: "), HasSubstr("is not a file")),
                            AllOf(HasSubstr("8: "), HasSubstr("is neither .csv nor .csv.zst")),
                            AllOf(HasSubstr("10: "), HasSubstr("is there already, on line 9"))));
}

TEST_F(ServerConfigTest, RefusesAReplayWithoutFiles)
{
    EXPECT_THAT(Check(WithMds("<Replay/>")), ElementsAre("5: the element <File> is missing in <Replay>"));
}

TEST_F(ServerConfigTest, WantsEitherReplayOrSimulation)
{
    m_folder.Write("a.csv", "x");
    EXPECT_THAT(Check(WithMds("")), ElementsAre("5: <Mds> has neither <Replay> nor <Simulation>"));
    EXPECT_THAT(Check(WithMds("<Replay><File path='a.csv'/></Replay><Simulation/>")),
                ElementsAre("5: <Mds> has both <Replay> and <Simulation>; only one of them can be"));
}

TEST_F(ServerConfigTest, WantsAProviderAndAMarket)
{
    EXPECT_THAT(Check(Server(kMarkets + "<Providers/>")),
                ElementsAre("5: <Providers> has neither <Mds> nor <Zel>: there would be no prices"));
    EXPECT_THAT(Check("<PriceServer/>"), ElementsAre("1: the element <Markets> is missing in <PriceServer>",
                                                     "1: the element <Providers> is missing in <PriceServer>"));
}

TEST_F(ServerConfigTest, RefusesMarketsThatShareAnIdOrAName)
{
    EXPECT_THAT(
        Check(Server("<Markets>\n<Market id='1' name='A'/>\n<Market id='01' name='B'/>\n<Market id='2' name='A'/>"
                     "</Markets>" +
                     kSimulation)),
        ElementsAre("3: the market id \"1\" is there already, on line 2",
                    "4: the market name \"A\" is there already, on line 2"));
}

TEST_F(ServerConfigTest, RefusesADefaultDepthAboveTheMaximum)
{
    EXPECT_THAT(
        Check(Server("<Markets><Market id='1' name='A' defaultDepth='6' maxDepth='5'/>\n"
                     "<Market id='2' name='B' maxDepth='5'/><Market id='3' name='C' defaultDepth='5' maxDepth='5'/>"
                     "</Markets>" +
                     kSimulation)),
        ElementsAre("1: the default depth 6 is above the maximum depth 5",
                    "2: the default depth 10 (there is no attribute \"defaultDepth\") is above the maximum depth 5"));
}

TEST_F(ServerConfigTest, MakesMarketsThatTheMarketTableTakes)
{
    const MarketTable table(Load(Server(kMarkets + kSimulation)).markets);
    EXPECT_EQ(table.Get(2).name, "USDM");
}

TEST_F(ServerConfigTest, ReadsTheThreeKindsOfImpliedRules)
{
    const auto rules =
        Load(WithImplied("<Cross market='SPOT' symbol='BCH_BTC' numerator='BCH_USDT' denominator='BTC_USDT'/>"
                         "<OutrightFromSpread market='USDM' symbol='F2' spread='F2-F1' near='F1'/>"
                         "<OutrightFromSpread market='USDM' symbol='F1' spread='F2-F1' far='F2'/>"
                         "<SpreadFromOutrights market='USDM' symbol='F2-F1' far='F2' near='F1'/>"))
            .mds->implied;
    ASSERT_EQ(rules.size(), 4U);
    EXPECT_EQ(rules[0].kind, ImpliedRuleSettings::Kind::Cross);
    EXPECT_EQ(rules[0].marketId, 1);
    EXPECT_EQ(rules[0].symbol, "BCH_BTC");
    EXPECT_EQ(rules[0].numerator, "BCH_USDT");
    EXPECT_EQ(rules[0].denominator, "BTC_USDT");
    EXPECT_EQ(rules[1].kind, ImpliedRuleSettings::Kind::OutrightFromSpread);
    EXPECT_EQ(rules[1].spread, "F2-F1");
    EXPECT_EQ(rules[1].near, "F1");
    EXPECT_EQ(rules[1].far, "");
    EXPECT_EQ(rules[2].far, "F2");
    EXPECT_EQ(rules[3].kind, ImpliedRuleSettings::Kind::SpreadFromOutrights);
    EXPECT_EQ(rules[3].marketId, 2);
    EXPECT_EQ(rules[3].far, "F2");
    EXPECT_EQ(rules[3].near, "F1");
}

TEST_F(ServerConfigTest, RefusesImpliedRulesThatCannotBe)
{
    EXPECT_THAT(
        Check(WithImplied("<Cross market='SPTO' symbol='a' numerator='b' denominator='c'/>\n"
                          "<Cross market='SPOT' symbol='a' numerator='b' denominator='b'/>\n"
                          "<OutrightFromSpread market='SPOT' symbol='d' spread='e'/>\n"
                          "<OutrightFromSpread market='SPOT' symbol='f' spread='e' far='g' near='h'/>\n"
                          "<SpreadFromOutrights market='SPOT' symbol='a' far='b' near='c'/>\n"
                          "<Cross market='SPOT' symbol='x'/>")),
        ElementsAre("5: the market \"SPTO\" of <Cross> is not in <Markets>",
                    "6: the symbol \"b\" is there twice in <Cross>",
                    "7: <OutrightFromSpread> needs either \"far\" or \"near\", the outright whose book is there",
                    "8: <OutrightFromSpread> needs either \"far\" or \"near\", the outright whose book is there",
                    "9: an implied rule for the symbol \"a\" is there already, on line 6",
                    "10: the attribute \"numerator\" is missing in <Cross>",
                    "10: the attribute \"denominator\" is missing in <Cross>"));
}

TEST_F(ServerConfigTest, ReportsProblemsOfBothKindsInTheOrderOfLines)
{
    EXPECT_THAT(Check("<PriceServer>\n<Markets>\n<Market id='1' name='A' defaltDepth='5'/>\n<Market id='1' name='B'/>\n"
                      "</Markets>\n<Gateway port='70000'/>\n<Providers/>\n</PriceServer>"),
                ElementsAre("3: unknown attribute \"defaltDepth\" in <Market>; did you mean \"defaultDepth\"?",
                            "4: the market id \"1\" is there already, on line 3",
                            "6: attribute \"port\" in <Gateway>: \"70000\" is not a whole number from 0 to 65535",
                            "7: <Providers> has neither <Mds> nor <Zel>: there would be no prices"));
}

TEST_F(ServerConfigTest, ThrowsWhatTheCheckFinds)
{
    const std::string path = m_folder.Write("server.xml", "<PriceServer/>");
    try
    {
        LoadServerConfig(path);
        FAIL() << "accepted";
    }
    catch (const ConfigError& error)
    {
        EXPECT_EQ(error.GetProblems(), CheckServerConfig(path));
        EXPECT_EQ(error.what(), path + ":1: the element <Markets> is missing in <PriceServer>\n" + path +
                                    ":1: the element <Providers> is missing in <PriceServer>");
    }
}

TEST_F(ServerConfigTest, AnswersForAFileThatIsNotThere)
{
    EXPECT_THAT(CheckServerConfig(m_folder.GetPath("none.xml")),
                ElementsAre(ConfigProblem{1, "cannot read the file: No such file or directory"}));
    EXPECT_THROW(LoadServerConfig(m_folder.GetPath("none.xml")), ConfigError);
}

TEST_F(ServerConfigTest, DescribesACheckWithALineForEachProblemAndACount)
{
    EXPECT_EQ(DescribeServerConfigCheck("f.xml", {}), "f.xml: no problems\n");
    EXPECT_EQ(DescribeServerConfigCheck("f.xml", {{3, "x"}}), "f.xml:3: x\nf.xml: 1 problem\n");
    EXPECT_EQ(DescribeServerConfigCheck("f.xml", {{3, "x"}, {4, "y"}}), "f.xml:3: x\nf.xml:4: y\nf.xml: 2 problems\n");
}

TEST_F(ServerConfigTest, RunsTheSimulatedMarketWhenItIsBuiltIn)
{
    const ServerConfig config = MakeBuiltInServerConfig();
    ASSERT_NE(config.config, nullptr);
    EXPECT_TRUE(config.mds->simulation.has_value());
    EXPECT_TRUE(config.gateway.has_value());
    ASSERT_EQ(config.markets.size(), 1U);
    EXPECT_EQ(config.markets[0].name, "SIM");
}

TEST_F(ServerConfigTest, AcceptsTheBuiltInTextAsAFile)
{
    EXPECT_THAT(Check(std::string(GetBuiltInServerConfigText())), IsEmpty());
}

TEST_F(ServerConfigTest, AnswersGeneratedFiles)
{
    constexpr std::uint64_t kSeed = 19'700'101;
    constexpr int kFiles = PS_IS_SANITIZED ? 2'500 : 10'000;
    std::cout << "seed " << kSeed << '\n';
    ConfigGenerator generator(GetBuiltInServerConfigText(), kSeed);
    const std::string path = m_folder.GetPath("server.xml");
    std::map<std::string, std::pair<int, int>> tally; // by kind: without problems, with
    for (int index = 0; index < kFiles && !HasFailure(); ++index)
    {
        const GeneratedConfig generated = generator.Next();
        SCOPED_TRACE("seed " + std::to_string(kSeed) + ", file " + std::to_string(index) + ": " + generated.kind);
        generated.WriteTo(path);
        const auto lines = static_cast<std::size_t>(std::count(generated.head.begin(), generated.head.end(), '\n')) + 1;
        const std::vector<ConfigProblem> problems = CheckServerConfig(path);
        ++(problems.empty() ? tally[generated.kind].first : tally[generated.kind].second);
        for (const ConfigProblem& problem : problems)
        {
            ASSERT_GE(problem.line, 1U);
            ASSERT_TRUE(problem.line <= lines || !generated.unit.empty());
            ASSERT_FALSE(problem.text.empty());
            ASSERT_TRUE(IsOnePrintableLine(problem.text)) << problem.text;
        }
        ASSERT_FALSE(problems.empty() && generated.expected == GeneratedConfig::Expected::Refused);
    }
    for (const auto& [kind, counts] : tally)
    {
        std::cout << kind << ": " << counts.first << " without problems, " << counts.second << " with\n";
    }
    EXPECT_GE(tally["valid"].first, kFiles * 7 / 100);
    EXPECT_EQ(tally["valid"].second, 0);
    EXPECT_GE(tally["misspelled"].second, kFiles * 6 / 100);
}
