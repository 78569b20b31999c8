#include "config/detail/quoted.h"

#include "utf8.h"

namespace ps_ns::detail
{

namespace
{

void AppendEscaped(std::string& out, char character)
{
    static constexpr char kDigits[] = "0123456789ABCDEF";
    const auto byte = static_cast<unsigned char>(character);
    out += "\\x";
    out += kDigits[byte >> 4U];
    out += kDigits[byte & 0xFU];
}

/// `character` is one of UTF-8. Those from U+0080 to U+009F can command a terminal, too.
bool IsControl(std::string_view character)
{
    const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(character[at]); };
    return byte(0) < 0x20 || byte(0) == 0x7F || (byte(0) == 0xC2 && byte(1) < 0xA0);
}

} // namespace

std::string Printable(std::string_view text)
{
    std::string out;
    std::size_t at = 0;
    while (at < text.size() && at < kMaxQuotedBytes)
    {
        const std::size_t length = Utf8CharacterLength(text.substr(at, 4));
        if (length == 0 || IsControl(text.substr(at, length)))
        {
            AppendEscaped(out, text[at]);
            ++at;
        }
        else
        {
            out += text.substr(at, length);
            at += length;
        }
    }
    return at < text.size() ? out + "..." : out;
}

std::string Quoted(std::string_view text)
{
    return '"' + Printable(text) + '"';
}

std::string Tag(std::string_view name)
{
    return '<' + Printable(name) + '>';
}

} // namespace ps_ns::detail
