#pragma once

/// Prices and quantities of books are whole numbers of a fixed unit, so that equal prices are equal keys.
///
/// | value | unit | largest |
/// |---|---|---|
/// | price | 10^-10 | about 922 million |
/// | quantity | 10^-8 | about 92 thousand million |

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace ps_ns
{

inline constexpr int kPriceDecimals = 10;
inline constexpr int kQuantityDecimals = 8;
inline constexpr std::int64_t kPriceUnitsPerOne = 10'000'000'000;
inline constexpr std::int64_t kQuantityUnitsPerOne = 100'000'000;

/// Reads a plain decimal ("-12.5", "0.00001814"; no exponent, no blanks, no '+') as units of 10^-decimals. Nothing when
/// the text is not such a number, has more significant decimals than fit, or is out of range: a value is never rounded.
/// The range is symmetric: the smallest 64-bit value has no positive counterpart, and is out of range.
std::optional<std::int64_t> ParseFixed(std::string_view text, int decimals) noexcept;

inline std::optional<std::int64_t> ParsePrice(std::string_view text) noexcept
{
    return ParseFixed(text, kPriceDecimals);
}
inline std::optional<std::int64_t> ParseQuantity(std::string_view text) noexcept
{
    return ParseFixed(text, kQuantityDecimals);
}

/// Writes units of 10^-decimals as a plain decimal without trailing zeros: "12.5", "3", "-0.01".
std::string FormatFixed(std::int64_t units, int decimals);

inline std::string FormatPrice(std::int64_t units)
{
    return FormatFixed(units, kPriceDecimals);
}
inline std::string FormatQuantity(std::int64_t units)
{
    return FormatFixed(units, kQuantityDecimals);
}

} // namespace ps_ns
