#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace ps_ns
{

/// Writes any text as one token of a broker's subject: ASCII letters, digits, '_' and '-' stand for themselves, every
/// other byte is '=' and two upper-case hexadecimal digits ("BTC/USD" is "BTC=2FUSD"). An empty text is "=".
///
/// Different texts have different tokens, and a token never contains what a subject gives a meaning: '.', '*', '>',
/// blanks.
std::string EscapeToken(std::string_view text);

/// The text; nothing when EscapeToken does not write such a token.
std::optional<std::string> UnescapeToken(std::string_view token);

} // namespace ps_ns
