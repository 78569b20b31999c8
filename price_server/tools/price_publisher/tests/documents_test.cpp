#include "price_publisher/options.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <regex>
#include <set>

namespace ps_ns::price_publisher
{
namespace
{

/// Of the program, without their hyphens.
std::set<std::string> GetOptionNames()
{
    const char* const arguments[] = {"price_publisher", "--help"};
    const std::string help = std::get<OptionsAnswer>(ParseOptions(2, arguments)).text;
    const std::regex option("(?:^|\n) +(?:-h,)?--([a-z-]+)");
    std::set<std::string> names;
    for (std::sregex_iterator it(help.begin(), help.end(), option); it != std::sregex_iterator(); ++it)
    {
        names.insert((*it)[1]);
    }
    return names;
}

std::string ReadManPage()
{
    std::ifstream in(PRICE_PUBLISHER_MAN_PAGE);
    const std::string text(std::istreambuf_iterator<char>(in), {});
    return std::regex_replace(text, std::regex("\\\\-"), "-");
}

TEST(PublisherDocuments, ManPageHasEveryOptionAndNoOther)
{
    const std::string page = ReadManPage();
    const std::set<std::string> options = GetOptionNames();
    EXPECT_GE(options.size(), 17U);
    for (const std::string& name : options)
    {
        EXPECT_TRUE(std::regex_search(page, std::regex("\n\\.TP\n\\.(BI|B|BR)[^\n]*--" + name + "\\b(?!-)"))) << name;
    }
    const std::regex mentioned("--([a-z-]+)");
    for (std::sregex_iterator it(page.begin(), page.end(), mentioned); it != std::sregex_iterator(); ++it)
    {
        EXPECT_EQ(options.count((*it)[1]), 1U) << "there is no " << it->str();
    }
}

TEST(PublisherDocuments, ManPageHasEveryExitCode)
{
    const std::string page = ReadManPage();
    for (const char* const code : {"0", "1", "2", "3", "130"})
    {
        EXPECT_NE(page.find(std::string("\n.TP\n.B ") + code + "\n"), std::string::npos) << code;
    }
}

} // namespace
} // namespace ps_ns::price_publisher
