#pragma once

#include "config/config_error.h"
#include "config/xml_document.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ps_ns
{

/// What an attribute's value may be. Made by one of the operations below.
class ValueRule
{
public:
    static ValueRule Boolean();
    static ValueRule Unsigned(std::uint64_t min, std::uint64_t max);
    static ValueRule Decimal(double min, double max);
    /// Lengths in bytes.
    static ValueRule Text(std::size_t minLength, std::size_t maxLength);
    static ValueRule OneOf(std::vector<std::string> values);
    /// A path, not empty and no longer than the system takes. Whether there is such a file is not looked at.
    static ValueRule FilePath();

    /// What is wrong with a text, as in: `is not a number from 1 to 10`. Nothing when it fits.
    std::optional<std::string> FindFault(std::string_view text) const;

private:
    enum class Kind
    {
        Boolean,
        Unsigned,
        Decimal,
        Text,
        OneOf
    };
    explicit ValueRule(Kind kind)
        : m_kind(kind)
    {
    }
    std::optional<std::string> FindFaultOfText(std::string_view text) const;
    std::optional<std::string> FindFaultOfChoice(std::string_view text) const;

    Kind m_kind;
    std::uint64_t m_min = 0; ///< of Unsigned, and of the length of Text
    std::uint64_t m_max = 0;
    double m_minDecimal = 0;
    double m_maxDecimal = 0;
    std::vector<std::string> m_values; ///< of OneOf
};

struct AttributeRule
{
    std::string name;
    ValueRule value;
    bool required = false;
};

/// An element that may be where the rule stands in the tree of rules.
struct ElementRule
{
    std::string name;
    std::vector<AttributeRule> attributes{};
    std::vector<ElementRule> children{};
    bool required = false;
    std::size_t maxCount = 1; ///< how often it may be there inside one parent
};

/// The table of what a configuration may have, and the check of a file against it. Constant once made; any thread.
class ConfigSchema
{
public:
    explicit ConfigSchema(ElementRule root);

    /// Everything that is wrong, in the order of lines: unknown names (with the nearest known one), values that do not
    /// fit, what is missing, what is there too often, and text. What is inside an unknown element is not judged, and a
    /// name that is there too often in one parent is reported once there. Never throws but for memory.
    ///
    /// When there are thousands of unknown names, only the first of them come with the nearest known one.
    ///
    /// `work`, when given, is increased by the number of comparisons of names and of characters made: it grows with the
    /// number of elements and attributes times the size of the table, whatever the names are.
    std::vector<ConfigProblem> Check(const XmlDocument& document, std::uint64_t* work = nullptr) const;

private:
    ElementRule m_root;
};

} // namespace ps_ns
