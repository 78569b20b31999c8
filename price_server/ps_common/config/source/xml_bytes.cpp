#include "xml_bytes.h"

#include "config/xml_document.h"
#include "utf8.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <utility>

namespace ps_ns::detail
{

namespace
{

std::string HexByte(char character)
{
    static constexpr char kDigits[] = "0123456789ABCDEF";
    const auto byte = static_cast<unsigned char>(character);
    return {'0', 'x', kDigits[byte >> 4U], kDigits[byte & 0xFU]};
}

bool IsControl(unsigned long code)
{
    return code < 0x20 && code != '\t' && code != '\n' && code != '\r';
}

std::size_t CountLines(std::string_view text)
{
    return 1 + static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

bool IsXmlCharacter(unsigned long code)
{
    return !IsControl(code) && code <= 0x10FFFF && !(code >= 0xD800 && code <= 0xDFFF) && code != 0xFFFE &&
           code != 0xFFFF;
}

void AppendUtf8(std::string& out, unsigned long code)
{
    const auto put = [&out](unsigned long byte) { out += static_cast<char>(static_cast<unsigned char>(byte)); };
    if (code < 0x80)
    {
        put(code);
        return;
    }
    if (code < 0x800)
    {
        put(0xC0U | (code >> 6U));
    }
    else if (code < 0x10000)
    {
        put(0xE0U | (code >> 12U));
        put(0x80U | ((code >> 6U) & 0x3FU));
    }
    else
    {
        put(0xF0U | (code >> 18U));
        put(0x80U | ((code >> 12U) & 0x3FU));
        put(0x80U | ((code >> 6U) & 0x3FU));
    }
    put(0x80U | (code & 0x3FU));
}

} // namespace

std::optional<ConfigProblem> FindUnfitByte(std::string_view text)
{
    if (text.size() > XmlLimits::kMaxBytes)
    {
        return ConfigProblem{CountLines(text.substr(0, XmlLimits::kMaxBytes)), "the file is larger than 1 MiB"};
    }
    if (text.starts_with("\xFF\xFE") || text.starts_with("\xFE\xFF"))
    {
        return ConfigProblem{1, "the file begins with the mark of UTF-16 or UTF-32; only UTF-8 is read"};
    }
    std::size_t line = 1;
    for (std::size_t at = 0; at < text.size();)
    {
        const std::size_t length = Utf8CharacterLength(text.substr(at, 4));
        if (length == 0)
        {
            return ConfigProblem{line, "the byte " + HexByte(text[at]) + " is not UTF-8"};
        }
        if (IsControl(static_cast<unsigned char>(text[at])))
        {
            const bool isNul = text[at] == '\0';
            return ConfigProblem{line, isNul ? "a NUL byte" : "the control character " + HexByte(text[at])};
        }
        line += text[at] == '\n' ? 1U : 0U;
        at += length;
    }
    return std::nullopt;
}

bool AppendReference(std::string& out, std::string_view reference)
{
    static constexpr std::array<std::pair<std::string_view, char>, 5> kNamed{
        {{"lt", '<'}, {"gt", '>'}, {"amp", '&'}, {"apos", '\''}, {"quot", '"'}}};
    const auto named =
        std::find_if(kNamed.begin(), kNamed.end(), [&](const auto& candidate) { return candidate.first == reference; });
    if (named != kNamed.end())
    {
        out += named->second;
        return true;
    }
    if (!reference.starts_with('#'))
    {
        return false;
    }
    const bool isHex = reference.starts_with("#x");
    reference.remove_prefix(isHex ? 2 : 1);
    unsigned long code = 0;
    const char* const end = reference.data() + reference.size();
    const auto parsed = std::from_chars(reference.data(), end, code, isHex ? 16 : 10);
    if (parsed.ec != std::errc() || parsed.ptr != end || !IsXmlCharacter(code))
    {
        return false;
    }
    AppendUtf8(out, code);
    return true;
}

} // namespace ps_ns::detail
