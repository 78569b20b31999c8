#include "utf8.h"

#include <algorithm>

namespace ps_ns::gateway
{
namespace
{

constexpr bool IsContinuation(char c) noexcept
{
    return (static_cast<unsigned char>(c) & 0xC0U) == 0x80U;
}

/// Bytes of the character at the beginning of `text`, which is not empty; 0: it is broken.
std::size_t GetCharacterSize(std::string_view text) noexcept
{
    const auto first = static_cast<unsigned char>(text[0]);
    if (first < 0x80)
    {
        return 1;
    }
    const std::size_t size = first >= 0xF5 ? 0 : first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : first >= 0xC2 ? 2 : 0;
    if (size == 0 || text.size() < size || !std::all_of(text.begin() + 1, text.begin() + size, IsContinuation))
    {
        return 0;
    }
    const auto second = static_cast<unsigned char>(text[1]);
    const bool isOverlong = (first == 0xE0 && second < 0xA0) || (first == 0xF0 && second < 0x90);
    const bool isSurrogate = first == 0xED && second >= 0xA0;
    const bool isTooLarge = first == 0xF4 && second >= 0x90;
    return isOverlong || isSurrogate || isTooLarge ? 0 : size;
}

} // namespace

bool IsUtf8(std::string_view text) noexcept
{
    while (!text.empty())
    {
        const std::size_t size = GetCharacterSize(text);
        if (size == 0)
        {
            return false;
        }
        text.remove_prefix(size);
    }
    return true;
}

std::size_t CountCharacters(std::string_view text) noexcept
{
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) { return !IsContinuation(c); }));
}

std::string_view TakeCharacters(std::string_view text, std::size_t most) noexcept
{
    std::size_t end = 0;
    for (std::size_t taken = 0; end < text.size() && taken < most; ++taken)
    {
        do
        {
            ++end;
        } while (end < text.size() && IsContinuation(text[end]));
    }
    return text.substr(0, end);
}

} // namespace ps_ns::gateway
