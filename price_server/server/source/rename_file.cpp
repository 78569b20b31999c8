#include "server/rename_file.h"

#include "config/config_values.h"
#include "config/detail/bounded_file.h"
#include "config/detail/quoted.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <map>
#include <utility>

namespace ps_ns
{

using detail::Quoted;

namespace
{

constexpr std::uint64_t kNsPerSecond = 1'000'000'000;
constexpr std::array<std::string_view, 5> kColumns{"instrument", "old_symbol", "new_symbol", "last_day_old_symbol",
                                                   "source_file"};
enum Column
{
    OldSymbol = 1,
    NewSymbol = 2,
    LastDay = 3
};

/// A number of exactly so many digits.
std::optional<unsigned> ParseDigits(std::string_view text, std::size_t begin, std::size_t count)
{
    const auto value = ParseUnsigned(text.substr(begin, count));
    return value ? std::optional(static_cast<unsigned>(*value)) : std::nullopt;
}

std::optional<std::chrono::sys_days> ParseDay(std::string_view text)
{
    if (text.size() != 10 || text[4] != '-' || text[7] != '-')
    {
        return std::nullopt;
    }
    const auto year = ParseDigits(text, 0, 4);
    const auto month = ParseDigits(text, 5, 2);
    const auto day = ParseDigits(text, 8, 2);
    if (!year || !month || !day || *year < 1970 || *year > 2499)
    {
        return std::nullopt;
    }
    const std::chrono::year_month_day date(std::chrono::year(static_cast<int>(*year)), std::chrono::month(*month),
                                           std::chrono::day(*day));
    return date.ok() ? std::optional(std::chrono::sys_days(date)) : std::nullopt;
}

std::uint64_t ToNs(std::chrono::sys_days day, unsigned seconds)
{
    const auto sinceEpoch = std::chrono::duration_cast<std::chrono::seconds>(day.time_since_epoch()).count();
    return (static_cast<std::uint64_t>(sinceEpoch) + seconds) * kNsPerSecond;
}

std::vector<std::string_view> Split(std::string_view line)
{
    std::vector<std::string_view> fields;
    for (;;)
    {
        const std::size_t comma = line.find(',');
        fields.push_back(line.substr(0, comma));
        if (comma == std::string_view::npos)
        {
            return fields;
        }
        line.remove_prefix(comma + 1);
    }
}

/// Text of a file, line by line.
class Lines
{
public:
    explicit Lines(std::string_view text)
        : m_rest(text)
    {
        constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
        m_rest.remove_prefix(m_rest.starts_with(kByteOrderMark) ? kByteOrderMark.size() : 0);
    }

    bool Next(std::string_view& line)
    {
        if (m_rest.empty())
        {
            return false;
        }
        const std::size_t end = m_rest.find('\n');
        line = m_rest.substr(0, end);
        m_rest.remove_prefix(end == std::string_view::npos ? m_rest.size() : end + 1);
        line.remove_suffix(line.ends_with('\r') ? 1 : 0);
        ++m_number;
        return true;
    }
    std::size_t GetNumber() const noexcept { return m_number; }

private:
    std::string_view m_rest;
    std::size_t m_number = 0;
};

class FileReader
{
public:
    RenameFile Read(std::string_view text)
    {
        Lines lines(text);
        std::string_view line;
        if (!lines.Next(line) || line != kRenameFileHeader)
        {
            Report(1, "the header is " + Quoted(line) + "; expected is \"" + std::string(kRenameFileHeader) + "\"");
            return std::move(m_file);
        }
        while (lines.Next(line))
        {
            if (!line.empty())
            {
                ReadRow(lines.GetNumber(), line);
            }
        }
        if (m_problemCount > kMaxRenameFileProblems)
        {
            const std::size_t more = m_problemCount - kMaxRenameFileProblems;
            m_file.problems.push_back(
                {m_lastProblemLine, "and " + std::to_string(more) + " more problems up to this line"});
        }
        return std::move(m_file);
    }

private:
    void Report(std::size_t line, std::string text)
    {
        m_lastProblemLine = line;
        if (++m_problemCount <= kMaxRenameFileProblems)
        {
            m_file.problems.push_back({line, std::move(text)});
        }
    }
    void ReportColumn(std::size_t line, Column column, std::string_view value, const std::string& expected)
    {
        Report(line, std::string(kColumns[column]) + " " + Quoted(value) + ": expected is " + expected);
    }

    void ReadRow(std::size_t line, std::string_view text)
    {
        const std::vector<std::string_view> fields = Split(text);
        if (fields.size() != kColumns.size())
        {
            Report(line, "the line " + Quoted(text) + " has " + std::to_string(fields.size()) +
                             (fields.size() == 1 ? " field" : " fields") +
                             "; expected are 5: " + std::string(kRenameFileHeader));
            return;
        }
        const std::optional<std::uint64_t> time_ns = ParseLastDay(fields[LastDay]);
        bool isGood = CheckSymbol(line, OldSymbol, fields[OldSymbol]);
        isGood = CheckSymbol(line, NewSymbol, fields[NewSymbol]) && isGood;
        if (isGood && fields[OldSymbol] == fields[NewSymbol])
        {
            ReportColumn(line, NewSymbol, fields[NewSymbol], "another symbol than old_symbol");
            isGood = false;
        }
        if (!time_ns)
        {
            ReportColumn(line, LastDay, fields[LastDay], std::string(kExpectedLastDay));
        }
        else if (isGood)
        {
            Keep({line, std::string(fields[OldSymbol]), std::string(fields[NewSymbol]), *time_ns});
        }
    }

    bool CheckSymbol(std::size_t line, Column column, std::string_view symbol)
    {
        const bool isPlain = std::none_of(symbol.begin(), symbol.end(),
                                          [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == '"'; });
        if (symbol.empty() || symbol.size() > kMaxSymbolBytes || !isPlain)
        {
            ReportColumn(line, column, symbol, "a symbol of 1 to 64 bytes, without quotes and control characters");
            return false;
        }
        return true;
    }

    /// One symbol becomes one other on a day, and nobody else becomes that one.
    void Keep(RenameFile::Row row)
    {
        const auto [taken, isFirstOfOld] = m_byOldSymbol.try_emplace({row.time_ns, row.oldSymbol}, m_file.rows.size());
        if (!isFirstOfOld)
        {
            const RenameFile::Row& first = m_file.rows[taken->second];
            if (first.newSymbol != row.newSymbol)
            {
                ReportColumn(row.line, NewSymbol, row.newSymbol,
                             Quoted(first.newSymbol) + ", which line " + std::to_string(first.line) + " makes of " +
                                 Quoted(row.oldSymbol) + " on that day");
            }
            return;
        }
        const auto [given, isFirstOfNew] = m_byNewSymbol.try_emplace({row.time_ns, row.newSymbol}, row.line);
        if (!isFirstOfNew)
        {
            m_byOldSymbol.erase(taken);
            ReportColumn(row.line, NewSymbol, row.newSymbol,
                         "a symbol that no other line gives on that day, as line " + std::to_string(given->second) +
                             " does");
            return;
        }
        m_file.rows.push_back(std::move(row));
    }

    using Key = std::pair<std::uint64_t, std::string>; // time and symbol
    RenameFile m_file;
    std::map<Key, std::size_t> m_byOldSymbol; ///< index in rows
    std::map<Key, std::size_t> m_byNewSymbol; ///< line
    std::size_t m_problemCount = 0;
    std::size_t m_lastProblemLine = 0;
};

} // namespace

std::optional<std::uint64_t> ParseLastDay(std::string_view text)
{
    const auto day = ParseDay(text);
    return day ? std::optional(ToNs(*day + std::chrono::days(1), 0)) : std::nullopt;
}

std::optional<std::uint64_t> ParseUtcTime(std::string_view text)
{
    if (text.size() != 20 || text[10] != 'T' || text[13] != ':' || text[16] != ':' || text[19] != 'Z')
    {
        return std::nullopt;
    }
    const auto day = ParseDay(text.substr(0, 10));
    const auto hour = ParseDigits(text, 11, 2);
    const auto minute = ParseDigits(text, 14, 2);
    const auto second = ParseDigits(text, 17, 2);
    if (!day || !hour || !minute || !second || *hour > 23 || *minute > 59 || *second > 59)
    {
        return std::nullopt;
    }
    return ToNs(*day, (*hour * 60 + *minute) * 60 + *second);
}

RenameFile ReadRenameFile(const std::string& path)
{
    try
    {
        const std::string text = detail::ReadBounded(path, kMaxRenameFileBytes + 1);
        if (text.size() > kMaxRenameFileBytes)
        {
            return {{}, {{1, "the file is longer than " + std::to_string(kMaxRenameFileBytes) + " bytes"}}};
        }
        return FileReader().Read(text);
    }
    catch (const ConfigError& error)
    {
        return {{}, error.GetProblems()};
    }
}

} // namespace ps_ns
