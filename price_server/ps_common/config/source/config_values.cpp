#include "config/config_values.h"

#include <algorithm>
#include <cctype>
#include <charconv>

namespace ps_ns
{

namespace
{

template <class T, class... Format>
std::optional<T> ParseWhole(std::string_view text, Format... format)
{
    T value{};
    const char* const end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, value, format...);
    return parsed.ec == std::errc() && parsed.ptr == end ? std::optional(value) : std::nullopt;
}

bool IsDigit(char character)
{
    return character >= '0' && character <= '9';
}

} // namespace

std::string ToUpper(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](char character)
                   { return static_cast<char>(std::toupper(static_cast<unsigned char>(character))); });
    return text;
}

std::optional<bool> ParseBoolean(std::string_view upperCaseText)
{
    for (const std::string_view yes : {"1", "TRUE", "YES", "T"})
    {
        if (upperCaseText == yes)
        {
            return true;
        }
    }
    for (const std::string_view no : {"0", "FALSE", "NO", "F"})
    {
        if (upperCaseText == no)
        {
            return false;
        }
    }
    return std::nullopt;
}

std::optional<std::uint64_t> ParseUnsigned(std::string_view text)
{
    return ParseWhole<std::uint64_t>(text);
}

std::optional<double> ParseDecimal(std::string_view text)
{
    const bool isPlain =
        std::all_of(text.begin(), text.end(), [](char character) { return IsDigit(character) || character == '.'; });
    return isPlain ? ParseWhole<double>(text, std::chars_format::fixed) : std::nullopt;
}

} // namespace ps_ns
