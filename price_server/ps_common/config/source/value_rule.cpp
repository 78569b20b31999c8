#include "config/config_schema.h"
#include "config/config_values.h"
#include "config/detail/nearest_name.h"
#include "config/detail/quoted.h"

#include <algorithm>
#include <climits>
#include <sstream>
#include <utility>

namespace ps_ns
{

namespace
{

std::string ToText(double value)
{
    std::ostringstream text;
    text.imbue(std::locale::classic());
    text << value;
    return text.str();
}

} // namespace

ValueRule ValueRule::Boolean()
{
    return ValueRule(Kind::Boolean);
}

ValueRule ValueRule::Unsigned(std::uint64_t min, std::uint64_t max)
{
    ValueRule rule(Kind::Unsigned);
    rule.m_min = min;
    rule.m_max = max;
    return rule;
}

ValueRule ValueRule::Decimal(double min, double max)
{
    ValueRule rule(Kind::Decimal);
    rule.m_minDecimal = min;
    rule.m_maxDecimal = max;
    return rule;
}

ValueRule ValueRule::Text(std::size_t minLength, std::size_t maxLength)
{
    ValueRule rule(Kind::Text);
    rule.m_min = minLength;
    rule.m_max = maxLength;
    return rule;
}

ValueRule ValueRule::OneOf(std::vector<std::string> values)
{
    ValueRule rule(Kind::OneOf);
    rule.m_values = std::move(values);
    return rule;
}

ValueRule ValueRule::FilePath()
{
    return Text(1, PATH_MAX - 1);
}

std::optional<std::string> ValueRule::FindFault(std::string_view text) const
{
    constexpr std::size_t kMaxValueBytes = 64; // of what is not text: longer is wrong without a look at it
    if (m_kind == Kind::Text)
    {
        return FindFaultOfText(text);
    }
    const std::string_view looked = text.size() > kMaxValueBytes ? std::string_view("too long") : text;
    if (m_kind == Kind::Boolean)
    {
        return ParseBoolean(ToUpper(std::string(looked))) ? std::nullopt
                                                          : std::optional<std::string>("is not yes or no");
    }
    if (m_kind == Kind::OneOf)
    {
        return FindFaultOfChoice(looked);
    }
    if (m_kind == Kind::Unsigned)
    {
        const auto value = ParseUnsigned(looked);
        const bool fits = value && *value >= m_min && *value <= m_max;
        return fits ? std::nullopt
                    : std::optional("is not a whole number from " + std::to_string(m_min) + " to " +
                                    std::to_string(m_max));
    }
    const auto value = ParseDecimal(looked);
    const bool fits = value && *value >= m_minDecimal && *value <= m_maxDecimal;
    return fits ? std::nullopt
                : std::optional("is not a number from " + ToText(m_minDecimal) + " to " + ToText(m_maxDecimal));
}

std::optional<std::string> ValueRule::FindFaultOfText(std::string_view text) const
{
    if (text.size() < m_min)
    {
        return m_min == 1 ? "is empty" : "is shorter than " + std::to_string(m_min) + " bytes";
    }
    if (text.size() > m_max)
    {
        return "is longer than " + std::to_string(m_max) + " bytes";
    }
    return std::nullopt;
}

std::optional<std::string> ValueRule::FindFaultOfChoice(std::string_view text) const
{
    if (std::find(m_values.begin(), m_values.end(), text) != m_values.end())
    {
        return std::nullopt;
    }
    std::string fault = "is none of ";
    for (const std::string& value : m_values)
    {
        fault += (&value == &m_values.front() ? "" : ", ") + value;
    }
    std::uint64_t work = 0;
    const std::vector<std::string_view> known(m_values.begin(), m_values.end());
    const std::string_view nearest = detail::FindNearest(text, known, work);
    return nearest.empty() ? fault : fault + "; did you mean " + detail::Quoted(nearest) + "?";
}

} // namespace ps_ns
