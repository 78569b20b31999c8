#include "config/config.h"

#include "config/composite_node.h"
#include "config_test_kit.h"

#include <gtest/gtest.h>

#include <stdexcept>

using namespace ps_ns;

namespace
{

std::string Refusal(const std::string& path)
{
    try
    {
        Config::LoadFile(path);
        return "accepted";
    }
    catch (const ConfigError& error)
    {
        return error.what();
    }
}

} // namespace

TEST(Config, HoldsTheRootElementAsTheOneChildOfTheTree)
{
    const auto config = Config::LoadText("<?xml version='1.0'?><!-- x --><Root a='1'><b/></Root><!-- y -->", "text");
    EXPECT_EQ(config->GetRootName(), "Root");
    ASSERT_EQ(config->GetTree().size(), 1U);
    EXPECT_EQ(config->GetTree().front().first, "Root");
    EXPECT_EQ(config->GetTree().get<std::string>("Root.<xmlattr>.a"), "1");
    EXPECT_EQ(config->GetTree().get_child("Root").count("b"), 1U);
}

TEST(Config, LeavesCommentsAndSurroundingBlanksOutOfTheTree)
{
    const auto config = Config::LoadText("<Root>\n  <!-- x -->\n  <b> text </b>\n</Root>", "text");
    EXPECT_EQ(config->GetTree().get_child("Root").size(), 1U);
    EXPECT_EQ(config->GetTree().get_child("Root").data(), "");
    EXPECT_EQ(config->GetTree().get<std::string>("Root.b"), "text");
}

TEST(Config, GivesTheSectionsThatCompositeNodesAreMadeOf)
{
    const auto config = Config::LoadText(kSampleText, "text");
    const CompositeNode general("General", config->GetTree().get_child(config->GetRootName() + ".General"));
    EXPECT_TRUE(general.GetAttrValue<bool>("SkipUnchangedSnapshots", false, nullptr));
    EXPECT_EQ(general.GetAttrValue<unsigned>("Interval_sec", 0U, nullptr), 30U);
}

TEST(Config, KeepsTheLinesOfItsElements)
{
    const auto config = Config::LoadText(kSampleText, "text");
    const auto markets = config->GetDocument().FindChild(0, "Markets");
    ASSERT_TRUE(markets.has_value());
    EXPECT_EQ(config->GetDocument().GetElements()[*markets].line, 6U);
}

TEST(Config, LoadsAFileUnderItsPath)
{
    const TemporaryFolder folder;
    const std::string path = folder.Write("good.xml", kSampleText);
    const auto config = Config::LoadFile(path);
    EXPECT_EQ(config->GetName(), path);
    EXPECT_EQ(config->GetRootName(), "PriceServer");
}

TEST(Config, NamesFileAndLineOfWhatItRefuses)
{
    const TemporaryFolder folder;
    const std::string path = folder.Write("bad.xml", "<a>\n<b>\n</a>");
    EXPECT_EQ(Refusal(path), path + ":3: the end tag </a> does not match <b> of line 2");
    EXPECT_THROW(Config::LoadText("", "text"), std::runtime_error);
}

TEST(Config, RefusesAFileThatIsNotThere)
{
    EXPECT_EQ(Refusal("/no/such/file.xml"), "/no/such/file.xml:1: cannot read the file: No such file or directory");
}

TEST(Config, RefusesAHundredMebibytesOfWhateverTheyAre)
{
    const TemporaryFolder folder;
    const std::string hole = folder.Write("hole.xml", "");
    std::filesystem::resize_file(hole, 100 * 1024 * 1024);
    EXPECT_EQ(Refusal(hole), hole + ":1: the file is larger than 1 MiB");
}

TEST(Config, SurvivesTheNestingThatOverflowsTheParser)
{
    std::string text;
    for (int level = 0; level < 100'000; ++level)
    {
        text += "<a>\n";
    }
    const TemporaryFolder folder;
    const std::string path = folder.Write("deep.xml", text);
    EXPECT_EQ(Refusal(path), path + ":65: elements are nested more than 64 deep");
}

TEST(ConfigError, ListsEveryProblemOnALineOfItsOwn)
{
    const ConfigError error("f.xml", {{3, "three"}, {7, "seven"}});
    EXPECT_STREQ(error.what(), "f.xml:3: three\nf.xml:7: seven");
    EXPECT_EQ(error.GetProblems().size(), 2U);
}
