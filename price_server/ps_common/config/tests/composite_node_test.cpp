#include "config/composite_node.h"

#include <gtest/gtest.h>

#include <concepts>
#include <locale>
#include <stdexcept>

using namespace ps_ns;

namespace
{

CompositeNode NodeWith(const std::string& attribute, const std::string& text)
{
    boost::property_tree::ptree tree;
    tree.put("<xmlattr>." + attribute, text);
    return {"General", tree};
}

bool ReadBool(const std::string& text)
{
    return NodeWith("a", text).GetAttrValue<bool>("a", false, nullptr);
}

/// Groups digits and has another decimal point, as some users' locales do.
struct Grouping : std::numpunct<char>
{
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
};

template <class T>
concept IsReadable = requires(const ConfigHelper& helper, const boost::property_tree::ptree& tree, T value)
{
    helper.Get<T>(tree, "", value, nullptr);
};

template <class T>
concept IsAttribute = requires(const CompositeNode& node, T value)
{
    node.GetAttrValue<T>("", value, nullptr);
};

} // namespace

TEST(ConfigHelper, WalksAPathOfPartsSeparatedByDots)
{
    boost::property_tree::ptree tree;
    tree.put("a.b.c", "text");
    bool found = false;
    EXPECT_EQ(ConfigHelper().Get<std::string>(tree, "a.b.c", "default", &found), "text");
    EXPECT_TRUE(found);
    EXPECT_EQ(ConfigHelper().Get<std::string>(tree, "a.b.c", "default", nullptr), "text");
}

TEST(ConfigHelper, ReturnsTheDefaultForAPathThatIsNotThere)
{
    bool found = true;
    EXPECT_EQ(ConfigHelper().Get<std::string>({}, "a.b", "default", &found), "default");
    EXPECT_FALSE(found);
    EXPECT_EQ(ConfigHelper().Get<std::string>({}, "a.b", "default", nullptr), "default");
}

TEST(ConfigHelper, FindsANodeWithoutText)
{
    boost::property_tree::ptree tree;
    tree.put("a.b", "x");
    bool found = false;
    EXPECT_EQ(ConfigHelper().Get<std::string>(tree, "a", "default", &found), "");
    EXPECT_TRUE(found);
}

TEST(ConfigHelper, ProvidesTextOnly)
{
    EXPECT_TRUE(IsReadable<std::string>);
    EXPECT_FALSE(IsReadable<int>);
}

TEST(CompositeNode, HasItsNameAndACopyOfItsSection)
{
    EXPECT_EQ(CompositeNode("General").GetName(), "General");
    EXPECT_TRUE(CompositeNode("General").GetTree().empty());
    EXPECT_EQ(NodeWith("a", "1").GetTree().get<std::string>("<xmlattr>.a"), "1");
}

TEST(CompositeNode, ProvidesBooleansAndUnsignedNumbersOnly)
{
    EXPECT_TRUE(IsAttribute<bool>);
    EXPECT_TRUE(IsAttribute<unsigned>);
    EXPECT_FALSE(IsAttribute<int>);
    EXPECT_FALSE(IsAttribute<std::string>);
}

TEST(CompositeNode, ReadsTheEightTextsOfABooleanInAnyCase)
{
    for (const char* const text : {"1", "TRUE", "true", "tRuE", "YES", "yes", "yEs", "T", "t"})
    {
        EXPECT_TRUE(ReadBool(text)) << text;
    }
    for (const char* const text : {"0", "FALSE", "false", "fAlSe", "NO", "no", "No", "F", "f"})
    {
        EXPECT_FALSE(NodeWith("a", text).GetAttrValue<bool>("a", true, nullptr)) << text;
    }
}

TEST(CompositeNode, ThrowsForAnyOtherTextOfABooleanInUpperCase)
{
    try
    {
        NodeWith("Skip", "maybe").GetAttrValue<bool>("Skip", true, nullptr);
        FAIL() << "accepted";
    }
    catch (const std::runtime_error& error)
    {
        EXPECT_STREQ(error.what(), "Invalid Value MAYBE for Attribute Skip");
    }
    for (const char* const text : {"", " 1", "yes ", "Y", "N", "on", "2", "01", "\xC3\xA4"})
    {
        EXPECT_THROW(ReadBool(text), std::runtime_error) << text;
    }
}

TEST(CompositeNode, TellsWhetherABooleanWasThere)
{
    bool found = false;
    EXPECT_TRUE(NodeWith("a", "yes").GetAttrValue<bool>("a", false, &found));
    EXPECT_TRUE(found);
    EXPECT_TRUE(NodeWith("a", "no").GetAttrValue<bool>("b", true, &found));
    EXPECT_FALSE(found);
    EXPECT_FALSE(CompositeNode("General").GetAttrValue<bool>("a", false, &found));
    EXPECT_FALSE(found);
}

TEST(CompositeNode, TellsThatAWrongBooleanWasThere)
{
    bool found = false;
    EXPECT_THROW(NodeWith("a", "x").GetAttrValue<bool>("a", false, &found), std::runtime_error);
    EXPECT_TRUE(found);
}

TEST(CompositeNode, ReadsUnsignedNumbers)
{
    bool found = false;
    EXPECT_EQ(NodeWith("a", "30").GetAttrValue<unsigned>("a", 7U, &found), 30U);
    EXPECT_TRUE(found);
    EXPECT_EQ(NodeWith("a", "4294967295").GetAttrValue<unsigned>("a", 7U, nullptr), 4'294'967'295U);
    EXPECT_EQ(NodeWith("a", " 5 ").GetAttrValue<unsigned>("a", 7U, nullptr), 5U);
}

TEST(CompositeNode, ReadsMinusOneAsTheLargestUnsignedNumber)
{
    bool found = false;
    EXPECT_EQ(NodeWith("a", "-1").GetAttrValue<unsigned>("a", 7U, &found), 4'294'967'295U);
    EXPECT_TRUE(found);
}

TEST(CompositeNode, ReturnsTheDefaultForWhatIsNoUnsignedNumber)
{
    for (const char* const text : {"", "x", "1x", "1 2", "1.5", "4294967296", "0x10"})
    {
        bool found = true;
        EXPECT_EQ(NodeWith("a", text).GetAttrValue<unsigned>("a", 7U, &found), 7U) << text;
        EXPECT_FALSE(found) << text;
        EXPECT_EQ(NodeWith("a", text).GetAttrValue<unsigned>("a", 7U, nullptr), 7U) << text;
    }
    bool found = true;
    EXPECT_EQ(CompositeNode("General").GetAttrValue<unsigned>("a", 7U, &found), 7U);
    EXPECT_FALSE(found);
}

TEST(CompositeNode, ReadsNumbersTheSameInEveryLocale)
{
    const std::locale previous = std::locale::global(std::locale(std::locale::classic(), new Grouping));
    const unsigned grouped = NodeWith("a", "1.000").GetAttrValue<unsigned>("a", 7U, nullptr);
    const unsigned plain = NodeWith("a", "1000").GetAttrValue<unsigned>("a", 7U, nullptr);
    std::locale::global(previous);
    EXPECT_EQ(grouped, 7U);
    EXPECT_EQ(plain, 1000U);
}
