#include "server/rename_file.h"

#include "config_test_kit.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace ps_ns;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace
{

const std::string kHeader = std::string(kRenameFileHeader) + "\n";
constexpr std::uint64_t kDay_ns = 86'400'000'000'000;

class RenameFileTest : public ::testing::Test
{
protected:
    RenameFile Read(const std::string& text) { return ReadRenameFile(m_folder.Write("renames.csv", text)); }
    /// Of rows under the header.
    std::vector<std::string> Problems(const std::string& rows) { return Describe(Read(kHeader + rows)); }
    static std::vector<std::string> Describe(const RenameFile& file)
    {
        std::vector<std::string> lines;
        for (const ConfigProblem& problem : file.problems)
        {
            lines.push_back(std::to_string(problem.line) + ": " + problem.text);
        }
        return lines;
    }
    static std::vector<std::string> Rows(const RenameFile& file)
    {
        std::vector<std::string> rows;
        for (const RenameFile::Row& row : file.rows)
        {
            rows.push_back(std::to_string(row.line) + " " + row.oldSymbol + ">" + row.newSymbol + " " +
                           std::to_string(row.time_ns));
        }
        return rows;
    }

    const TemporaryFolder m_folder;
};

} // namespace

TEST_F(RenameFileTest, HoldsTheRealRenamesFromTheMidnightAfterTheLastDay)
{
    const RenameFile file = ReadRenameFile(std::string(PRICE_SERVER_DATA) + "/renames/symbol_renames.csv");
    EXPECT_THAT(Describe(file), IsEmpty());
    EXPECT_THAT(Rows(file), ElementsAre("2 GOOCV>GOOG 1396483200000000000", "3 GOOG>GOOGL 1396483200000000000",
                                        "4 FB>META 1654732800000000000", "5 NWSA>FOXA 1372464000000000000",
                                        "6 FOXA>TFCFA 1552953600000000000"));
}

TEST_F(RenameFileTest, MayHaveAMarkWindowsLinesAndEmptyLinesAndNoEndOfLine)
{
    const RenameFile file =
        Read("\xEF\xBB\xBF" + std::string(kRenameFileHeader) + "\r\n\r\n,A,B,1970-01-01,\r\n\nx,C,D,1970-01-02,y");
    EXPECT_THAT(Describe(file), IsEmpty());
    EXPECT_THAT(Rows(file), ElementsAre("3 A>B " + std::to_string(kDay_ns), "5 C>D " + std::to_string(2 * kDay_ns)));
    EXPECT_THAT(Rows(Read(kHeader)), IsEmpty());
    EXPECT_THAT(Describe(Read(kHeader)), IsEmpty());
}

TEST_F(RenameFileTest, MustBeginWithItsHeader)
{
    EXPECT_THAT(Describe(Read("old,new\nA,B\n")),
                ElementsAre("1: the header is \"old,new\"; expected is "
                            "\"instrument,old_symbol,new_symbol,last_day_old_symbol,source_file\""));
    EXPECT_THAT(Describe(Read("")), ElementsAre(HasSubstr("1: the header is \"\"; expected is")));
}

TEST_F(RenameFileTest, NamesTheLineTheColumnItsValueAndWhatWasExpected)
{
    EXPECT_THAT(
        Problems("a,FB,META,2022-06-31,f\na,,META,2022-06-08,f\na,FB,\"X\",2022-06-08,f\na,FB,FB,2022-06-08,f\n"
                 "a,FB,META\na,FB,META,2022-06-08,f,more\n"),
        ElementsAre("2: last_day_old_symbol \"2022-06-31\": expected is a day YYYY-MM-DD of the years 1970 to 2499",
                    "3: old_symbol \"\": expected is a symbol of 1 to 64 bytes, without quotes and control characters",
                    AllOf(HasSubstr("4: new_symbol "), HasSubstr("expected is a symbol of 1 to 64 bytes")),
                    "5: new_symbol \"FB\": expected is another symbol than old_symbol",
                    AllOf(HasSubstr("6: the line \"a,FB,META\" has 3 fields; expected are 5: instrument,")),
                    HasSubstr("7: the line \"a,FB,META,2022-06-08,f,more\" has 6 fields")));
}

TEST_F(RenameFileTest, KeepsTheGoodRowsBesideBadOnes)
{
    EXPECT_THAT(Rows(Read(kHeader + "a,A,B,1970-01-01,\na,C,,1970-01-01,\na,D,E,1970-01-01,\n")), SizeIs(2));
}

TEST_F(RenameFileTest, RefusesRowsThatContradictEachOther)
{
    EXPECT_THAT(
        Problems("a,GOOG,GOOGL,2014-04-02,f\nb,GOOG,GOOGX,2014-04-02,f\nc,ELSE,GOOGL,2014-04-02,f\n"
                 "d,GOOG,GOOGL,2014-04-02,f\ne,GOOG,GOOGX,2015-04-02,f\n"),
        ElementsAre("3: new_symbol \"GOOGX\": expected is \"GOOGL\", which line 2 makes of \"GOOG\" on that day",
                    "4: new_symbol \"GOOGL\": expected is a symbol that no other line gives on that day, as "
                    "line 2 does"));
}

TEST_F(RenameFileTest, CountsProblemsBeyondTheFirstTwenty)
{
    std::string rows;
    for (int row = 0; row < 50; ++row)
    {
        rows += "x\n";
    }
    const std::vector<std::string> problems = Problems(rows);
    ASSERT_THAT(problems, SizeIs(21));
    EXPECT_EQ(problems.back(), "51: and 30 more problems up to this line");
}

TEST_F(RenameFileTest, HasOneProblemWhenItCannotBeReadOrIsTooLarge)
{
    EXPECT_THAT(Describe(ReadRenameFile(m_folder.GetPath("none.csv"))),
                ElementsAre(HasSubstr("1: cannot read the file: ")));
    EXPECT_THAT(Describe(ReadRenameFile(m_folder.GetPath("."))), ElementsAre(HasSubstr("it is a directory")));
    EXPECT_THAT(Describe(Read(kHeader + std::string(kMaxRenameFileBytes, '\n'))),
                ElementsAre("1: the file is longer than 4194304 bytes"));
}

TEST(RenameTime, IsADayOfTheCalendarOrAMomentInUtc)
{
    EXPECT_EQ(ParseLastDay("1970-01-01"), kDay_ns);
    EXPECT_EQ(ParseLastDay("2024-02-29"), 1'709'251'200'000'000'000U);
    EXPECT_EQ(ParseLastDay("2499-12-31"), 16'725'225'600'000'000'000U);
    EXPECT_EQ(ParseUtcTime("2022-06-09T00:00:00Z"), ParseLastDay("2022-06-08"));
    EXPECT_EQ(ParseUtcTime("1970-01-01T23:59:59Z"), 86'399'000'000'000U);
    for (const char* const day : {"", "2022-6-8", "2022-06-8", "20220608", "2023-02-29", "2022-13-01", "2022-00-01",
                                  "1969-12-31", "2500-01-01", "2022-06-08 ", "+022-06-08", "2022/06/08", "2022-06-0x"})
    {
        EXPECT_FALSE(ParseLastDay(day)) << day;
    }
    for (const char* const time : {"", "2022-06-09", "2022-06-09T24:00:00Z", "2022-06-09T00:60:00Z",
                                   "2022-06-09T00:00:60Z", "2022-06-09T00:00:00", "2022-06-09 00:00:00Z",
                                   "2022-06-31T00:00:00Z", "2022-06-09T-1:00:00Z", "2022-06-09T00:00:00+"})
    {
        EXPECT_FALSE(ParseUtcTime(time)) << time;
    }
}
