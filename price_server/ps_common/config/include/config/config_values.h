#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// Texts of attributes as values. Nothing here depends on the locale but ToUpper, and nothing trims: a blank before or
/// after is not part of any value.
namespace ps_ns
{

/// Character by character, with toupper.
std::string ToUpper(std::string text);

/// 1, TRUE, YES, T and 0, FALSE, NO, F. The text is compared as it is: see ToUpper.
std::optional<bool> ParseBoolean(std::string_view upperCaseText);

/// Decimal digits only: no sign.
std::optional<std::uint64_t> ParseUnsigned(std::string_view text);

/// Digits with perhaps a '.' among or around them ("2", "0.5"): no sign, no exponent.
std::optional<double> ParseDecimal(std::string_view text);

} // namespace ps_ns
