#include "config/config_schema.h"

#include "config/detail/nearest_name.h"
#include "config/detail/quoted.h"

#include <algorithm>
#include <utility>

namespace ps_ns
{

using detail::Quoted;
using detail::Tag;

namespace
{

template <class Rule>
std::vector<std::string_view> NamesOf(const std::vector<Rule>& rules)
{
    std::vector<std::string_view> names;
    names.reserve(rules.size());
    for (const Rule& rule : rules)
    {
        names.push_back(rule.name);
    }
    return names;
}

/// The work of one Check: a walk over the elements in the order of the file, with the elements around the current one
/// on a stack. No recursion.
class Walk
{
public:
    Walk(const XmlDocument& document, std::uint64_t& work)
        : m_document(document)
        , m_work(work)
    {
    }

    std::vector<ConfigProblem> Run(const ElementRule& root)
    {
        const XmlElement& element = m_document.GetElements().front();
        if (element.name != root.name)
        {
            Report(element.line, "the root element is " + Tag(element.name) + ", not " + Tag(root.name));
            return std::move(m_problems);
        }
        Enter(element, root);
        for (std::size_t index = 1; index < m_document.GetElements().size(); ++index)
        {
            Visit(m_document.GetElements()[index]);
        }
        LeaveDownTo(0);
        std::stable_sort(m_problems.begin(), m_problems.end(),
                         [](const auto& left, const auto& right) { return left.line < right.line; });
        return std::move(m_problems);
    }

private:
    struct Occurrences
    {
        std::size_t count = 0;
        std::size_t firstLine = 0;
    };
    struct Open
    {
        const XmlElement* element;
        const ElementRule* rule;
        std::vector<Occurrences> children; ///< one for each child of the rule
    };

    void Visit(const XmlElement& element)
    {
        if (m_unknownDepth != 0 && element.depth > m_unknownDepth)
        {
            return;
        }
        m_unknownDepth = 0;
        LeaveDownTo(element.depth - 1);
        Open& parent = m_open.back();
        const std::size_t index = Find(parent.rule->children, element.name);
        if (index == parent.rule->children.size())
        {
            m_unknownDepth = element.depth;
            ReportUnknown(element.line, "element " + Tag(element.name), parent, element.name,
                          NamesOf(parent.rule->children), Tag);
            return;
        }
        const ElementRule& rule = parent.rule->children[index];
        CountOccurrence(element, rule, parent.children[index]);
        Enter(element, rule);
    }

    void CountOccurrence(const XmlElement& element, const ElementRule& rule, Occurrences& seen)
    {
        ++seen.count;
        seen.firstLine = seen.count == 1 ? element.line : seen.firstLine;
        if (seen.count == rule.maxCount + 1)
        {
            Report(element.line, rule.maxCount == 1
                                     ? Tag(rule.name) + " is there already, on line " + std::to_string(seen.firstLine)
                                     : "more than " + std::to_string(rule.maxCount) + " times " + Tag(rule.name));
        }
    }

    void Enter(const XmlElement& element, const ElementRule& rule)
    {
        m_open.push_back({&element, &rule, std::vector<Occurrences>(rule.children.size())});
        if (element.textLine != 0)
        {
            Report(element.textLine, "text inside " + Tag(element.name) + ", where none belongs");
        }
        std::vector<bool> isThere(rule.attributes.size());
        for (const XmlAttribute& attribute : m_document.GetAttributes(element))
        {
            const std::size_t index = Find(rule.attributes, attribute.name);
            if (index == rule.attributes.size())
            {
                ReportUnknown(attribute.line, "attribute " + Quoted(attribute.name), m_open.back(), attribute.name,
                              NamesOf(rule.attributes), Quoted);
                continue;
            }
            isThere[index] = true;
            CheckValue(element, attribute, rule.attributes[index]);
        }
        ReportMissingAttributes(element, rule, isThere);
    }

    void CheckValue(const XmlElement& element, const XmlAttribute& attribute, const AttributeRule& rule)
    {
        if (const auto fault = rule.value.FindFault(attribute.value))
        {
            Report(attribute.line, "attribute " + Quoted(attribute.name) + " in " + Tag(element.name) + ": " +
                                       Quoted(attribute.value) + " " + *fault);
        }
    }

    void ReportMissingAttributes(const XmlElement& element, const ElementRule& rule, const std::vector<bool>& isThere)
    {
        for (std::size_t index = 0; index < rule.attributes.size(); ++index)
        {
            if (rule.attributes[index].required && !isThere[index])
            {
                Report(element.line,
                       "the attribute " + Quoted(rule.attributes[index].name) + " is missing in " + Tag(element.name));
            }
        }
    }

    /// Ends elements until `depth` of them are open, and reports the children that they miss.
    void LeaveDownTo(std::size_t depth)
    {
        while (m_open.size() > depth)
        {
            const Open& open = m_open.back();
            for (std::size_t index = 0; index < open.children.size(); ++index)
            {
                const ElementRule& rule = open.rule->children[index];
                if (rule.required && open.children[index].count == 0)
                {
                    Report(open.element->line,
                           "the element " + Tag(rule.name) + " is missing in " + Tag(open.rule->name));
                }
            }
            m_open.pop_back();
        }
    }

    template <class Rule>
    std::size_t Find(const std::vector<Rule>& rules, const std::string& name)
    {
        const auto found =
            std::find_if(rules.begin(), rules.end(), [&](const Rule& rule) { return rule.name == name; });
        m_work += rules.size() + 1;
        return static_cast<std::size_t>(found - rules.begin());
    }

    void ReportUnknown(std::size_t line, const std::string& what, const Open& where, const std::string& name,
                       const std::vector<std::string_view>& known, std::string (*display)(std::string_view))
    {
        // A file made to have thousands of unknown names is not helped by a suggestion for each.
        constexpr std::uint64_t kMaxSuggestionWork = 2'000'000;
        std::uint64_t work = 0;
        const std::string_view nearest =
            m_suggestionWork < kMaxSuggestionWork ? detail::FindNearest(name, known, work) : std::string_view();
        m_suggestionWork += work;
        m_work += work;
        Report(line, "unknown " + what + " in " + Tag(where.rule->name) +
                         (nearest.empty() ? "" : "; did you mean " + display(nearest) + "?"));
    }

    void Report(std::size_t line, std::string text) { m_problems.push_back({line, std::move(text)}); }

    const XmlDocument& m_document;
    std::uint64_t& m_work;
    std::size_t m_unknownDepth = 0; ///< of the unknown element that the walk is inside of; 0: of none
    std::uint64_t m_suggestionWork = 0;
    std::vector<Open> m_open;
    std::vector<ConfigProblem> m_problems;
};

} // namespace

ConfigSchema::ConfigSchema(ElementRule root)
    : m_root(std::move(root))
{
}

std::vector<ConfigProblem> ConfigSchema::Check(const XmlDocument& document, std::uint64_t* work) const
{
    std::uint64_t unread = 0;
    return Walk(document, work == nullptr ? unread : *work).Run(m_root);
}

} // namespace ps_ns
