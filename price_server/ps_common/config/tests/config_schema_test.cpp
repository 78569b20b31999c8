#include "config/config_schema.h"

#include "config_test_kit.h"

#include <gmock/gmock.h>

#include <string>

using namespace ps_ns;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace
{

std::vector<std::string> Check(const std::string& text, std::uint64_t* work = nullptr)
{
    std::vector<std::string> lines;
    for (const ConfigProblem& problem : MakeSampleSchema().Check(ScanXml(text, "f"), work))
    {
        lines.push_back(std::to_string(problem.line) + ": " + problem.text);
    }
    return lines;
}

/// A sample configuration with these attributes in its one market.
std::vector<std::string> CheckMarket(const std::string& attributes)
{
    return Check("<PriceServer><Markets><Market " + attributes + "/></Markets></PriceServer>");
}

std::vector<std::string> CheckLogging(const std::string& attributes)
{
    return Check("<PriceServer><Logging " + attributes +
                 "/><Markets><Market id='1' name='a'/></Markets></PriceServer>");
}

} // namespace

TEST(ConfigSchema, FindsNothingInAFileWithoutFault)
{
    EXPECT_THAT(Check(std::string(kSampleText)), IsEmpty());
}

TEST(ConfigSchema, NamesTheNearestKnownAttribute)
{
    EXPECT_THAT(CheckMarket("id='1' name='a' defaltDepth='5'"),
                ElementsAre("1: unknown attribute \"defaltDepth\" in <Market>; did you mean \"defaultDepth\"?"));
    EXPECT_THAT(CheckMarket("id='1' name='a' colour='5'"), ElementsAre("1: unknown attribute \"colour\" in <Market>"));
}

TEST(ConfigSchema, NamesTheNearestKnownElement)
{
    EXPECT_THAT(Check("<PriceServer>\n<Markts/>\n<Markets>\n<Market id='1' name='a'/><Xyzzy/></Markets></PriceServer>"),
                ElementsAre("2: unknown element <Markts> in <PriceServer>; did you mean <Markets>?",
                            "4: unknown element <Xyzzy> in <Markets>"));
}

TEST(ConfigSchema, DoesNotJudgeWhatIsInsideAnUnknownElement)
{
    EXPECT_THAT(Check("<PriceServer><Foreign a='1'>text<Market/><b><c/></b></Foreign><Markets>"
                      "<Market id='1' name='a'/></Markets></PriceServer>"),
                ElementsAre("1: unknown element <Foreign> in <PriceServer>"));
}

TEST(ConfigSchema, JudgesWhatFollowsAnUnknownElement)
{
    EXPECT_THAT(Check("<PriceServer><Markets><Odd><Odd/></Odd>\n<Market/></Markets>\n<General x='1'/></PriceServer>"),
                ElementsAre("1: unknown element <Odd> in <Markets>", "2: the attribute \"id\" is missing in <Market>",
                            "2: the attribute \"name\" is missing in <Market>",
                            "3: unknown attribute \"x\" in <General>"));
}

TEST(ConfigSchema, ReportsAnotherRootElementAndNothingElse)
{
    EXPECT_THAT(Check("\n<Server><a/></Server>"), ElementsAre("2: the root element is <Server>, not <PriceServer>"));
}

TEST(ConfigSchema, ReportsMissingElementsAtTheirParent)
{
    EXPECT_THAT(Check("<PriceServer>\n\n</PriceServer>"),
                ElementsAre("1: the element <Markets> is missing in <PriceServer>"));
    EXPECT_THAT(Check("<PriceServer>\n<Markets>\n</Markets>\n</PriceServer>"),
                ElementsAre("2: the element <Market> is missing in <Markets>"));
}

TEST(ConfigSchema, ReportsElementsThatAreThereTooOften)
{
    const std::string market = "<Market id='1' name='a'/>\n";
    EXPECT_THAT(Check("<PriceServer>\n<General/>\n<General/><General/><Markets>" + market + "</Markets></PriceServer>"),
                ElementsAre("3: <General> is there already, on line 2"));
    EXPECT_THAT(
        Check("<PriceServer><Markets>\n" + market + market + market + market + market + "</Markets></PriceServer>"),
        ElementsAre("5: more than 3 times <Market>"));
}

TEST(ConfigSchema, CountsElementsInEachParentAnew)
{
    const ConfigSchema schema(
        ElementRule{.name = "a", .children = {{.name = "b", .children = {{.name = "c"}}, .maxCount = 9}}});
    EXPECT_THAT(schema.Check(ScanXml("<a><b><c/></b><b><c/></b></a>", "f")), IsEmpty());
}

TEST(ConfigSchema, ReportsText)
{
    EXPECT_THAT(Check("<PriceServer>\n<Markets>\n\n x <Market id='1' name='a'/></Markets></PriceServer>"),
                ElementsAre("4: text inside <Markets>, where none belongs"));
}

TEST(ConfigSchema, ChecksBooleans)
{
    const std::string rest = "<Markets><Market id='1' name='a'/></Markets></PriceServer>";
    EXPECT_THAT(Check("<PriceServer><General SkipUnchangedSnapshots='nO'/>" + rest), IsEmpty());
    EXPECT_THAT(Check("<PriceServer><General\nSkipUnchangedSnapshots='maybe'/>" + rest),
                ElementsAre("2: attribute \"SkipUnchangedSnapshots\" in <General>: \"maybe\" is not yes or no"));
}

TEST(ConfigSchema, ChecksNumbersAndTheirRange)
{
    EXPECT_THAT(CheckLogging("level='0'"), IsEmpty());
    EXPECT_THAT(CheckLogging("level='100'"), IsEmpty());
    for (const char* const bad : {"101", "-1", "", "ten", "1.5", "99999999999999999999999"})
    {
        EXPECT_THAT(CheckLogging("level='" + std::string(bad) + "'"),
                    ElementsAre("1: attribute \"level\" in <Logging>: \"" + std::string(bad) +
                                "\" is not a whole number from 0 to 100"));
    }
    EXPECT_THAT(CheckMarket("id='1' name='a' speed='0.5'"), IsEmpty());
    EXPECT_THAT(CheckMarket("id='1' name='a' speed='10.5'"),
                ElementsAre("1: attribute \"speed\" in <Market>: \"10.5\" is not a number from 0 to 10"));
}

TEST(ConfigSchema, ChecksEnumerationsAndNamesTheNearestValue)
{
    EXPECT_THAT(CheckLogging("format='json'"), IsEmpty());
    EXPECT_THAT(
        CheckLogging("format='jsn'"),
        ElementsAre("1: attribute \"format\" in <Logging>: \"jsn\" is none of text, json; did you mean \"json\"?"));
    EXPECT_THAT(CheckLogging("format='yaml'"),
                ElementsAre("1: attribute \"format\" in <Logging>: \"yaml\" is none of text, json"));
}

TEST(ConfigSchema, ChecksTheLengthOfTextsAndPaths)
{
    EXPECT_THAT(CheckMarket("id='1' name=''"), ElementsAre("1: attribute \"name\" in <Market>: \"\" is empty"));
    EXPECT_THAT(CheckMarket("id='1' name='12345678901234567'"),
                ElementsAre("1: attribute \"name\" in <Market>: \"12345678901234567\" is longer than 16 bytes"));
    EXPECT_THAT(CheckLogging("file=''"), ElementsAre("1: attribute \"file\" in <Logging>: \"\" is empty"));
    EXPECT_EQ(CheckLogging("file='" + std::string(5000, 'x') + "'").size(), 1U);
}

TEST(ConfigSchema, ReportsAllProblemsInTheOrderOfLines)
{
    EXPECT_THAT(
        Check("<PriceServer>\n<Logging level='x'\nformat='y'/>\n<Markets a='1'>\n<Market\nid='z'/>\n</Markets>\n"
              "<Logging/>\n<Other/>\n</PriceServer>"),
        ElementsAre("2: attribute \"level\" in <Logging>: \"x\" is not a whole number from 0 to 100",
                    "3: attribute \"format\" in <Logging>: \"y\" is none of text, json",
                    "4: unknown attribute \"a\" in <Markets>", "5: the attribute \"name\" is missing in <Market>",
                    "6: attribute \"id\" in <Market>: \"z\" is not a whole number from 0 to 32767",
                    "8: <Logging> is there already, on line 2", "9: unknown element <Other> in <PriceServer>"));
}

TEST(ConfigSchema, ReportsEveryOneOfThousandsOfProblems)
{
    std::string text = "<PriceServer><Markets><Market id='1' name='a'/></Markets>";
    for (int index = 0; index < 19'990; ++index)
    {
        text += "<Loggng" + std::to_string(index) + "/>";
    }
    std::uint64_t work = 0;
    EXPECT_EQ(Check(text + "</PriceServer>", &work).size(), 19'990U);
    EXPECT_LE(work, kMaxSampleSchemaWork);
}

TEST(ConfigSchema, BoundsItsWorkOnNamesMadeToBeCompared)
{
    std::string text = "<PriceServer><Markets><Market id='1' name='a'";
    for (int index = 0; index < 19'990; ++index)
    {
        text += " defaltDepth" + std::to_string(index) + "=''";
    }
    std::uint64_t work = 0;
    EXPECT_EQ(Check(text + "/></Markets></PriceServer>", &work).size(), 19'990U);
    EXPECT_LE(work, kMaxSampleSchemaWork);
}
