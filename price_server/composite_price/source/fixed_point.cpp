#include "composite_price/fixed_point.h"

#include <limits>

namespace ps_ns
{
namespace
{

constexpr bool IsDigit(char c) noexcept
{
    return c >= '0' && c <= '9';
}

/// value * 10 + digit; false when that is more than `limit`.
constexpr bool Append(std::uint64_t& value, unsigned digit, std::uint64_t limit) noexcept
{
    if (value > (limit - digit) / 10)
    {
        return false;
    }
    value = value * 10 + digit;
    return true;
}

} // namespace

std::optional<std::int64_t> ParseFixed(std::string_view text, int decimals) noexcept
{
    const bool negative = !text.empty() && text.front() == '-';
    if (negative)
    {
        text.remove_prefix(1);
    }
    constexpr std::uint64_t kLimit = std::numeric_limits<std::int64_t>::max();

    std::uint64_t value = 0;
    std::size_t at = 0;
    for (; at < text.size() && IsDigit(text[at]); ++at)
    {
        if (!Append(value, static_cast<unsigned>(text[at] - '0'), kLimit))
        {
            return std::nullopt;
        }
    }
    if (at == 0)
    {
        return std::nullopt; // no digit before the point
    }

    int missing = decimals;
    if (at < text.size() && text[at] == '.')
    {
        ++at;
        const std::size_t firstDecimal = at;
        for (; at < text.size() && IsDigit(text[at]); ++at)
        {
            const unsigned digit = static_cast<unsigned>(text[at] - '0');
            if (missing == 0)
            {
                if (digit != 0)
                {
                    return std::nullopt; // would have to be rounded
                }
                continue;
            }
            if (!Append(value, digit, kLimit))
            {
                return std::nullopt;
            }
            --missing;
        }
        if (at == firstDecimal)
        {
            return std::nullopt; // no digit behind the point
        }
    }
    if (at != text.size())
    {
        return std::nullopt;
    }
    for (; missing > 0; --missing)
    {
        if (!Append(value, 0, kLimit))
        {
            return std::nullopt;
        }
    }
    const auto units = static_cast<std::int64_t>(value);
    return negative ? -units : units;
}

std::string FormatFixed(std::int64_t units, int decimals)
{
    const bool negative = units < 0;
    // Negated as unsigned, so that the smallest value has a magnitude too.
    std::uint64_t magnitude = negative ? 0 - static_cast<std::uint64_t>(units) : static_cast<std::uint64_t>(units);

    // Digits from the right: decimals without their trailing zeros, the point, the whole part.
    char buffer[48];
    char* begin = buffer + sizeof(buffer);
    bool significant = false;
    for (int i = 0; i < decimals; ++i)
    {
        const auto digit = static_cast<char>('0' + magnitude % 10);
        magnitude /= 10;
        significant = significant || digit != '0';
        if (significant)
        {
            *--begin = digit;
        }
    }
    if (significant)
    {
        *--begin = '.';
    }
    do
    {
        *--begin = static_cast<char>('0' + magnitude % 10);
        magnitude /= 10;
    } while (magnitude != 0);
    if (negative)
    {
        *--begin = '-';
    }
    return {begin, buffer + sizeof(buffer)};
}

} // namespace ps_ns
