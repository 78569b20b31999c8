#include "generated_config.h"

#include "config/config.h"
#include "config/config_schema.h"
#include "config/detail/bounded_file.h"
#include "config_test_kit.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iostream>
#include <iterator>
#include <map>

using namespace ps_ns;

namespace
{

constexpr std::size_t kFiles = PS_IS_SANITIZED ? 2'500 : 10'000; // some have 100 MiB
constexpr std::uint64_t kSeed = 20'240'808;

/// Compares the elements of a parsed tree, in the order of the file, with those of the scan.
class TreeComparison
{
public:
    explicit TreeComparison(const XmlDocument& document)
        : m_document(document)
    {
    }

    void CompareChildren(const boost::property_tree::ptree& tree, std::size_t depth)
    {
        for (const auto& [name, child] : tree)
        {
            if (name != "<xmlattr>")
            {
                CompareElement(name, child, depth);
            }
        }
    }
    std::size_t GetCompared() const { return m_next; }

private:
    void CompareElement(const std::string& name, const boost::property_tree::ptree& tree, std::size_t depth)
    {
        ASSERT_LT(m_next, m_document.GetElements().size());
        const XmlElement& element = m_document.GetElements()[m_next++];
        ASSERT_EQ(name, element.name);
        ASSERT_EQ(depth, element.depth);
        const auto parsed = tree.get_child_optional("<xmlattr>");
        ASSERT_EQ(parsed ? parsed->size() : 0, element.attributeCount);
        auto scanned = m_document.GetAttributes(element).begin();
        for (const auto& [attributeName, value] : parsed ? *parsed : boost::property_tree::ptree())
        {
            ASSERT_EQ(attributeName, scanned->name);
            ASSERT_EQ(value.data(), scanned->value);
            ++scanned;
        }
        CompareChildren(tree, depth + 1);
    }

    const XmlDocument& m_document;
    std::size_t m_next = 0;
};

std::size_t CountLines(const std::string& text)
{
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) + 1;
}

/// `lines` is the number of lines of the file.
void ExpectSensibleProblem(const ConfigProblem& problem, std::size_t lines)
{
    EXPECT_GE(problem.line, 1U);
    EXPECT_LE(problem.line, lines);
    EXPECT_FALSE(problem.text.empty());
    EXPECT_LT(problem.text.size(), 1000U);
    EXPECT_TRUE(IsOnePrintableLine(problem.text)) << problem.text;
}

/// True when it was accepted.
bool ExpectAnAnswer(const std::string& path, const std::string& text)
{
    const std::size_t lines = CountLines(text);
    try
    {
        const auto config = Config::LoadFile(path);
        TreeComparison comparison(config->GetDocument());
        comparison.CompareChildren(config->GetTree(), 1);
        EXPECT_EQ(comparison.GetCompared(), config->GetDocument().GetElements().size());
        EXPECT_EQ(config->GetTree().size(), 1U);
        EXPECT_EQ(config->GetTree().front().first, config->GetRootName());

        std::uint64_t work = 0;
        for (const ConfigProblem& problem : MakeSampleSchema().Check(config->GetDocument(), &work))
        {
            ExpectSensibleProblem(problem, lines);
        }
        EXPECT_LE(work, kMaxSampleSchemaWork);
        return true;
    }
    catch (const ConfigError& error)
    {
        EXPECT_EQ(error.GetProblems().size(), 1U);
        ExpectSensibleProblem(error.GetProblems().front(), lines);
        EXPECT_EQ(error.what(), path + ":" + std::to_string(error.GetProblems().front().line) + ": " +
                                    error.GetProblems().front().text);
        return false;
    }
}

void ExpectBoundedScan(const std::string& text)
{
    std::size_t visited = 0;
    try
    {
        ScanXml(text, "text", &visited);
    }
    catch (const ConfigError&)
    {
        // Refused or not: the bound holds.
    }
    EXPECT_LE(visited, 3 * std::min(text.size(), XmlLimits::kMaxBytes));
}

} // namespace

TEST(GeneratedConfigs, AreAllAnswered)
{
    std::cout << "seed " << kSeed << '\n';
    const TemporaryFolder folder;
    const std::string path = folder.GetPath("generated.xml");
    ConfigGenerator generator(kSampleText, kSeed);
    std::map<std::string, std::pair<std::size_t, std::size_t>> tally; // by kind: accepted, refused
    for (std::size_t index = 0; index < kFiles && !::testing::Test::HasFailure(); ++index)
    {
        const GeneratedConfig generated = generator.Next();
        SCOPED_TRACE("seed " + std::to_string(kSeed) + ", file " + std::to_string(index) + ": " + generated.kind);
        generated.WriteTo(path);
        const std::string text = detail::ReadBounded(path, XmlLimits::kMaxBytes + 1);
        ASSERT_LE(text.size(), XmlLimits::kMaxBytes + 1);

        ExpectBoundedScan(text);
        const bool isAccepted = ExpectAnAnswer(path, text);
        ++(isAccepted ? tally[generated.kind].first : tally[generated.kind].second);
        EXPECT_FALSE(isAccepted && generated.expected == GeneratedConfig::Expected::Refused);
        EXPECT_FALSE(!isAccepted && generated.expected == GeneratedConfig::Expected::Accepted);
    }
    for (const auto& [kind, counts] : tally)
    {
        std::cout << kind << ": " << counts.first << " accepted, " << counts.second << " refused\n";
        EXPECT_GE(counts.first + counts.second, kind == "100 MiB" ? kFiles / 2500 : kFiles * 7 / 100);
    }
}

TEST(GeneratedConfigs, AreTheSameForTheSameSeed)
{
    ConfigGenerator first(kSampleText, kSeed);
    ConfigGenerator second(kSampleText, kSeed);
    for (int index = 0; index < 100; ++index)
    {
        ASSERT_EQ(first.Next().head, second.Next().head);
    }
}
