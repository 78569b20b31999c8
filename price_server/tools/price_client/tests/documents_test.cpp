#include "price_client/completion.h"
#include "price_client/options.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <regex>
#include <set>

namespace ps_ns::price_client
{
namespace
{

const std::vector<const char*> kCommands{"watch", "subscribe", "instruments", "status", "explain", "completion"};

std::string GetHelp(std::vector<const char*> arguments)
{
    arguments.insert(arguments.begin(), "price_client");
    arguments.push_back("--help");
    return std::get<OptionsAnswer>(ParseOptions(static_cast<int>(arguments.size()), arguments.data())).text;
}

/// Of the program and of all its commands, without their hyphens.
std::set<std::string> GetOptionNames()
{
    std::string help = GetHelp({});
    for (const char* const command : kCommands)
    {
        help += GetHelp({command});
    }
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
    std::ifstream in(PRICE_CLIENT_MAN_PAGE);
    std::string text(std::istreambuf_iterator<char>(in), {});
    return std::regex_replace(text, std::regex("\\\\-"), "-");
}

TEST(Documents, ManPageHasEveryCommandAndOption)
{
    const std::string page = ReadManPage();
    const std::set<std::string> options = GetOptionNames();
    EXPECT_GE(options.size(), 15U);
    for (const std::string& name : options)
    {
        EXPECT_TRUE(std::regex_search(page, std::regex("\\.(TP|BI|B|BR)[^\n]*--" + name + "\\b"))) << name;
    }
    for (const char* const command : kCommands)
    {
        EXPECT_NE(page.find(std::string("\n.TP\n.B ") + command + "\n"), std::string::npos) << command;
    }
}

TEST(Documents, ManPageHasEveryExitCode)
{
    const std::string page = ReadManPage();
    for (const char* const code : {"0", "1", "2", "3", "4", "5", "130"})
    {
        EXPECT_NE(page.find(std::string("\n.TP\n.B ") + code + "\n"), std::string::npos) << code;
    }
}

TEST(Documents, CompletionsHaveEveryCommandAndOption)
{
    for (const char* const shell : {"bash", "zsh", "fish"})
    {
        const std::string script(GetCompletionScript(shell));
        for (const char* const command : kCommands)
        {
            EXPECT_NE(script.find(command), std::string::npos) << shell << ": " << command;
        }
        for (const std::string& name : GetOptionNames())
        {
            const std::string text = (std::string(shell) == "fish" ? "-l " : "--") + name;
            EXPECT_NE(script.find(text), std::string::npos) << shell << ": " << name;
        }
    }
    EXPECT_EQ(GetCompletionScript("tcsh"), "");
}

} // namespace
} // namespace ps_ns::price_client
