#pragma once

#include <cstddef>
#include <string_view>

/// The little of UTF-8 that the gateway needs: what it sends must be UTF-8, and texts are measured in characters.
namespace ps_ns::gateway
{

/// True for well-formed UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF.
bool IsUtf8(std::string_view text) noexcept;

/// Characters (code points) of a text that is UTF-8.
std::size_t CountCharacters(std::string_view text) noexcept;

/// The first characters of a text that is UTF-8: at most `most`.
std::string_view TakeCharacters(std::string_view text, std::size_t most) noexcept;

} // namespace ps_ns::gateway
