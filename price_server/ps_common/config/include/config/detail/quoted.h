#pragma once

#include <string>
#include <string_view>

namespace ps_ns::detail
{

/// What messages quote of a file: at most this many bytes of it.
inline constexpr std::size_t kMaxQuotedBytes = 60;

/// Cut to kMaxQuotedBytes (with "..." where something is missing), control characters and bytes that are not UTF-8's
/// shown as \xNN: one printable line whatever the text is.
std::string Printable(std::string_view text);

/// Printable, in double quotes.
std::string Quoted(std::string_view text);

/// Printable, as a start tag: <name>.
std::string Tag(std::string_view name);

} // namespace ps_ns::detail
