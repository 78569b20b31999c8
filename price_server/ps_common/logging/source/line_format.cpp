#include "line_format.h"

#include <boost/json/object.hpp>
#include <boost/json/serialize.hpp>
#include <spdlog/fmt/fmt.h>

#include <cstddef>
#include <iterator>

namespace zel::logging::detail
{
namespace
{

constexpr std::string_view kReplacement = "\xEF\xBF\xBD"; // U+FFFD

unsigned char ByteAt(std::string_view text, std::size_t at) noexcept
{
    return static_cast<unsigned char>(text[at]);
}

struct LeadByte
{
    std::size_t length; ///< bytes of the character; 0 when no character starts like this
    unsigned char secondMin;
    unsigned char secondMax;
};

/// The bounds of the second byte keep out overlong forms, the surrogates, and what lies above U+10FFFF.
LeadByte ReadLeadByte(unsigned char lead) noexcept
{
    if (lead < 0x80)
    {
        return {1, 0, 0};
    }
    if (lead < 0xC2 || lead > 0xF4)
    {
        return {0, 0, 0};
    }
    if (lead < 0xE0)
    {
        return {2, 0x80, 0xBF};
    }
    if (lead < 0xF0)
    {
        return {3, static_cast<unsigned char>(lead == 0xE0 ? 0xA0 : 0x80),
                static_cast<unsigned char>(lead == 0xED ? 0x9F : 0xBF)};
    }
    return {4, static_cast<unsigned char>(lead == 0xF0 ? 0x90 : 0x80),
            static_cast<unsigned char>(lead == 0xF4 ? 0x8F : 0xBF)};
}

/// Bytes of the UTF-8 character that starts at `at`; 0 when there is none.
std::size_t GetCharacterLength(std::string_view text, std::size_t at) noexcept
{
    const LeadByte lead = ReadLeadByte(ByteAt(text, at));
    if (lead.length <= 1)
    {
        return lead.length;
    }
    if (text.size() - at < lead.length || ByteAt(text, at + 1) < lead.secondMin ||
        ByteAt(text, at + 1) > lead.secondMax)
    {
        return 0;
    }
    for (std::size_t i = at + 2; i < at + lead.length; ++i)
    {
        if ((ByteAt(text, i) & 0xC0) != 0x80)
        {
            return 0;
        }
    }
    return lead.length;
}

std::string MakeUtf8(std::string_view text)
{
    std::string valid;
    valid.reserve(text.size());
    for (std::size_t at = 0; at < text.size();)
    {
        const std::size_t length = GetCharacterLength(text, at);
        valid.append(length == 0 ? kReplacement : text.substr(at, length));
        at += length == 0 ? 1 : length;
    }
    return valid;
}

void AppendEscaped(std::string& line, std::string_view text)
{
    for (const char character : text)
    {
        const auto code = static_cast<unsigned char>(character);
        if (character == '\n')
        {
            line += "\\n";
        }
        else if (character == '\r')
        {
            line += "\\r";
        }
        else if ((code < 0x20 && character != '\t') || code == 0x7F)
        {
            fmt::format_to(std::back_inserter(line), "\\x{:02x}", code);
        }
        else
        {
            line += character;
        }
    }
}

/// 2026-01-31T12:00:00.123456Z
std::string FormatTime(std::chrono::system_clock::time_point time)
{
    const auto day = std::chrono::floor<std::chrono::days>(time);
    const std::chrono::year_month_day date(day);
    const std::chrono::hh_mm_ss clock(std::chrono::floor<std::chrono::microseconds>(time - day));
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:06}Z", static_cast<int>(date.year()),
                       static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()), clock.hours().count(),
                       clock.minutes().count(), clock.seconds().count(), clock.subseconds().count());
}

} // namespace

std::string_view GetLevelName(int level) noexcept
{
    if (level < 10)
    {
        return "DEBUG";
    }
    if (level < 20)
    {
        return "INFO";
    }
    return level < 30 ? "WARN" : "ERROR";
}

std::string FormatText(const Record& record)
{
    std::string line = fmt::format("{} {:<5} [", FormatTime(record.time), GetLevelName(record.level));
    AppendEscaped(line, record.source->GetName());
    line += "] ";
    AppendEscaped(line, record.text);
    line += " (";
    AppendEscaped(line, record.file);
    fmt::format_to(std::back_inserter(line), ":{} tag={})", record.line, record.tag);
    return line;
}

std::string FormatJson(const Record& record)
{
    boost::json::object object;
    object["time"] = FormatTime(record.time);
    object["level"] = record.level;
    object["severity"] = boost::json::string_view(GetLevelName(record.level));
    object["tag"] = record.tag;
    object["decode_type"] = record.decodeType;
    object["source"] = MakeUtf8(record.source->GetName());
    object["file"] = MakeUtf8(record.file);
    object["line"] = record.line;
    object["thread"] = record.thread;
    object["text"] = MakeUtf8(record.text);
    return boost::json::serialize(object);
}

} // namespace zel::logging::detail
