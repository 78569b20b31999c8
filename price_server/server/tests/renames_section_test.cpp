#include "config_test_kit.h"
#include "server/rename_file.h"
#include "server/server_config.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace ps_ns;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace
{

class RenamesSectionTest : public ::testing::Test
{
protected:
    std::string Write(const std::string& content) const
    {
        return m_folder.Write("server.xml", "<PriceServer><Markets>\n<Market id='1' name='US'/>\n"
                                            "<Market id='2' name='EU'/></Markets><Providers><Mds><Simulation/>\n"
                                            "<Renames>\n" +
                                                content + "</Renames></Mds></Providers></PriceServer>");
    }
    /// The content begins on line 5.
    std::vector<std::string> Check(const std::string& content) const
    {
        std::vector<std::string> lines;
        for (const ConfigProblem& problem : CheckServerConfig(Write(content)))
        {
            lines.push_back(std::to_string(problem.line) + ": " + problem.text);
        }
        return lines;
    }
    std::vector<std::string> Load(const std::string& content) const
    {
        std::vector<std::string> renames;
        const ServerConfig config = LoadServerConfig(Write(content));
        for (const RenameSettings& rename : config.mds->renames)
        {
            renames.push_back((rename.marketId ? std::to_string(*rename.marketId) + ":" : "") + rename.oldSymbol + ">" +
                              rename.newSymbol + " " + std::to_string(rename.time_ns));
        }
        return renames;
    }

    const TemporaryFolder m_folder;
};

} // namespace

TEST_F(RenamesSectionTest, NamesFilesAndSingleRenamesOfOneMarketOrOfAll)
{
    m_folder.Write("renames.csv", std::string(kRenameFileHeader) + "\na,GOOG,GOOGL,1970-01-01,\n");
    EXPECT_THAT(Load("<File path='renames.csv'/><File path='renames.csv' market='EU'/>"
                     "<Rename oldSymbol='FB' newSymbol='META' lastDay='1970-01-02'/>"
                     "<Rename oldSymbol='FB' newSymbol='META' market='US' time='1970-01-01T00:00:01Z'/>"),
                ElementsAre("GOOG>GOOGL 86400000000000", "2:GOOG>GOOGL 86400000000000", "FB>META 172800000000000",
                            "1:FB>META 1000000000"));
    EXPECT_THAT(Load(""), IsEmpty());
}

TEST_F(RenamesSectionTest, TellsOfAProblemInAFileWithBothLines)
{
    const std::string path = m_folder.Write("r.csv", std::string(kRenameFileHeader) + "\na,FB,META,yesterday,\n");
    EXPECT_THAT(Check("<File path='r.csv'/>\n<File path='none.csv'/>"),
                ElementsAre(::testing::AllOf(HasSubstr("5: the renames file "),
                                             HasSubstr(", line 2: last_day_old_symbol \"yesterday\": expected is a "
                                                       "day YYYY-MM-DD")),
                            HasSubstr("cannot read the file")));
}

TEST_F(RenamesSectionTest, RefusesWhatCannotBeMade)
{
    m_folder.Write("r.csv", std::string(kRenameFileHeader) + "\n");
    EXPECT_THAT(
        Check("<File path='r.csv'/><File path='r.csv'/>\n<File path='r.csv' market='MOON'/>\n"
              "<Rename oldSymbol='A' newSymbol='B'/>\n<Rename oldSymbol='A' newSymbol='B' lastDay='2022-06-08' "
              "time='2022-06-09T00:00:00Z'/>\n<Rename oldSymbol='A' newSymbol='A' lastDay='2022-06-08'/>\n"
              "<Rename oldSymbol='A' newSymbol='B' lastDay='08.06.2022'/>\n"
              "<Rename oldSymbol='A' newSymbol='B' time='noon'/>\n<Rename oldSymbol='A' lastDay='2022-06-08'/>"),
        ElementsAre(
            ::testing::AllOf(HasSubstr("5: the renames file "), HasSubstr("is there already, on line 5")),
            "6: the market \"MOON\" of <File> is not in <Markets>", HasSubstr("7: <Rename> needs either \"lastDay\""),
            HasSubstr("8: <Rename> needs either"), "9: <Rename> makes the symbol \"A\" itself",
            "10: attribute \"lastDay\" in <Rename>: \"08.06.2022\" is not a day YYYY-MM-DD of the years 1970 to "
            "2499",
            "11: attribute \"time\" in <Rename>: \"noon\" is not a time YYYY-MM-DDThh:mm:ssZ of the years 1970 "
            "to 2499",
            HasSubstr("12: ")));
}
