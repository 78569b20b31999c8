#pragma once

#include <cstddef>
#include <string_view>

namespace ps_ns::detail
{

/// Length in bytes of the UTF-8 character that `text` begins with; 0 when it begins with none (also when empty, and for
/// overlong forms, surrogates and code points above U+10FFFF).
inline std::size_t Utf8CharacterLength(std::string_view text)
{
    const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(text[at]); };
    const auto continues = [&](std::size_t at, unsigned low = 0x80, unsigned high = 0xBF)
    { return at < text.size() && byte(at) >= low && byte(at) <= high; };
    if (text.empty() || (byte(0) >= 0x80 && byte(0) < 0xC2) || byte(0) > 0xF4)
    {
        return 0;
    }
    const unsigned lead = byte(0);
    if (lead < 0x80)
    {
        return 1;
    }
    if (lead < 0xE0)
    {
        return continues(1) ? 2 : 0;
    }
    if (lead < 0xF0)
    {
        return continues(1, lead == 0xE0 ? 0xA0 : 0x80, lead == 0xED ? 0x9F : 0xBF) && continues(2) ? 3 : 0;
    }
    return continues(1, lead == 0xF0 ? 0x90 : 0x80, lead == 0xF4 ? 0x8F : 0xBF) && continues(2) && continues(3) ? 4 : 0;
}

} // namespace ps_ns::detail
