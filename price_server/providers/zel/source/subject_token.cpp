#include "zel/subject_token.h"

namespace ps_ns
{
namespace
{

constexpr char kEscape = '=';
constexpr std::string_view kDigits = "0123456789ABCDEF";

bool IsPlain(char c) noexcept
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-';
}

} // namespace

std::string EscapeToken(std::string_view text)
{
    std::string token;
    for (const char c : text)
    {
        if (IsPlain(c))
        {
            token += c;
            continue;
        }
        const auto byte = static_cast<unsigned char>(c);
        token += kEscape;
        token += kDigits[byte / 16];
        token += kDigits[byte % 16];
    }
    return token.empty() ? std::string(1, kEscape) : token;
}

std::optional<std::string> UnescapeToken(std::string_view token)
{
    if (token.size() == 1 && token.front() == kEscape)
    {
        return std::string();
    }
    std::string text;
    for (std::size_t i = 0; i < token.size(); ++i)
    {
        if (IsPlain(token[i]))
        {
            text += token[i];
            continue;
        }
        if (token[i] != kEscape || i + 2 >= token.size())
        {
            return std::nullopt;
        }
        const std::size_t high = kDigits.find(token[i + 1]);
        const std::size_t low = kDigits.find(token[i + 2]);
        if (high == std::string_view::npos || low == std::string_view::npos ||
            IsPlain(static_cast<char>(16 * high + low)))
        {
            return std::nullopt;
        }
        text += static_cast<char>(16 * high + low);
        i += 2;
    }
    return token.empty() ? std::nullopt : std::optional(std::move(text));
}

} // namespace ps_ns
