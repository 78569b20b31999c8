#include "mds/recording_row.h"

#include "composite_price/fixed_point.h"

#include <array>
#include <charconv>
#include <cstring>
#include <limits>

namespace ps_ns
{
namespace
{

/// Behind the times and the names.
enum Field : std::size_t
{
    kEvent,
    kSide,
    kLevel,
    kPrice,
    kQuantity,
    kSequence,
    kLast,
    kFieldCount
};
using Fields = std::array<std::string_view, kFieldCount>;

bool Split(std::string_view line, Fields& fields) noexcept
{
    const char* at = line.data();
    const char* const end = at + line.size();
    for (std::size_t field = 0; field + 1 < kFieldCount; ++field)
    {
        const char* const begin = at;
        while (at != end && *at != ',')
        {
            ++at;
        }
        if (at == end)
        {
            return false;
        }
        fields[field] = {begin, static_cast<std::size_t>(at - begin)};
        ++at;
    }
    fields[kLast] = {at, static_cast<std::size_t>(end - at)};
    return std::memchr(at, ',', fields[kLast].size()) == nullptr;
}

bool ParseUnsigned(std::string_view text, std::uint64_t& value) noexcept
{
    constexpr std::size_t kSafeLength = 19; // digits that cannot overflow: no check for each of them
    if (text.empty() || text.size() > kSafeLength)
    {
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
        return error == std::errc() && end == text.data() + text.size();
    }
    std::uint64_t sum = 0;
    for (const char each : text)
    {
        const auto digit = static_cast<unsigned>(each - '0');
        if (digit > 9)
        {
            return false;
        }
        sum = sum * 10 + digit;
    }
    value = sum;
    return true;
}

bool ParseOptional(std::string_view text, std::uint64_t& value) noexcept
{
    value = 0;
    return text.empty() || ParseUnsigned(text, value);
}

constexpr std::array<std::int64_t, 11> kPowersOfTen{
    1, 10, 100, 1'000, 10'000, 100'000, 1'000'000, 10'000'000, 100'000'000, 1'000'000'000, 10'000'000'000};

bool IsPlainDecimal(std::string_view text) noexcept
{
    if (text.starts_with('-'))
    {
        text.remove_prefix(1);
    }
    const std::size_t point = text.find('.');
    const std::string_view whole = text.substr(0, point);
    const std::string_view decimals = point == std::string_view::npos ? "0" : text.substr(point + 1);
    constexpr std::string_view kDigits = "0123456789";
    return !whole.empty() && !decimals.empty() && whole.find_first_not_of(kDigits) == std::string_view::npos &&
           decimals.find_first_not_of(kDigits) == std::string_view::npos;
}

/// The rare spellings: many digits, and what is no number.
ProblemKind ParseUnusualDecimal(std::string_view text, int decimals, std::int64_t& units, unsigned& seen) noexcept
{
    const auto parsed = ParseFixed(text, decimals);
    if (!parsed)
    {
        return IsPlainDecimal(text) ? ProblemKind::OutOfRange : ProblemKind::BadNumber;
    }
    units = *parsed;
    const std::size_t point = text.find('.');
    const std::size_t significant = text.find_last_not_of('0');
    seen = point == std::string_view::npos || significant <= point ? 0 : static_cast<unsigned>(significant - point);
    return ProblemKind::None;
}

/// As ParseFixed, and `seen` digits stood behind the point. Up to 18 digits cannot overflow on the way: no check for
/// each of them.
ProblemKind ParseDecimal(std::string_view text, int decimals, std::int64_t& units, unsigned& seen) noexcept
{
    const char* at = text.data();
    const char* const end = at + text.size();
    const bool isNegative = at != end && *at == '-';
    at += isNegative ? 1 : 0;
    constexpr std::ptrdiff_t kSafeLength = 19; // 18 digits and the point
    if (at == end || end - at > kSafeLength || *at == '.' || end[-1] == '.')
    {
        return ParseUnusualDecimal(text, decimals, units, seen);
    }
    std::int64_t value = 0;
    const char* point = nullptr;
    for (; at != end; ++at)
    {
        const auto digit = static_cast<unsigned>(*at - '0');
        if (digit <= 9)
        {
            value = value * 10 + static_cast<std::int64_t>(digit);
        }
        else if (*at == '.' && point == nullptr)
        {
            point = at;
        }
        else
        {
            return ProblemKind::BadNumber;
        }
    }
    const std::ptrdiff_t behind = point == nullptr ? 0 : end - point - 1;
    if (behind > decimals || (point == nullptr && text.size() > kSafeLength - 1))
    {
        return ParseUnusualDecimal(text, decimals, units, seen);
    }
    if (__builtin_mul_overflow(value, kPowersOfTen[static_cast<std::size_t>(decimals - behind)], &units))
    {
        return ProblemKind::OutOfRange;
    }
    units = isNegative ? -units : units;
    seen = static_cast<unsigned>(behind);
    return ProblemKind::None;
}

ProblemKind ParseEventAndSide(const Fields& fields, RecordingRow& row) noexcept
{
    const std::string_view event = fields[kEvent];
    if (event == "book")
    {
        row.event = RowEvent::Book;
    }
    else if (event == "snap")
    {
        row.event = RowEvent::Snap;
    }
    else if (event == "trade")
    {
        row.event = RowEvent::Trade;
    }
    else
    {
        return ProblemKind::UnknownEvent;
    }
    const std::string_view side = fields[kSide];
    const bool isSide = side.size() == 1 && (side[0] == 'B' || side[0] == 'S');
    if (!isSide && !(side.empty() && row.event == RowEvent::Trade))
    {
        return ProblemKind::UnknownSide;
    }
    row.side = isSide ? side[0] : '\0';
    return ProblemKind::None;
}

ProblemKind ParseLevel(std::string_view level, RowEvent event) noexcept
{
    if (event != RowEvent::Snap)
    {
        return level.empty() ? ProblemKind::None : ProblemKind::LevelOutsideImage;
    }
    std::uint64_t ignored = 0; // the order follows from the prices
    return ParseUnsigned(level, ignored) ? ProblemKind::None : ProblemKind::BadNumber;
}

ProblemKind ParsePriceAndQuantity(const Fields& fields, RecordingRow& row) noexcept
{
    ProblemKind problem = ParseDecimal(fields[kPrice], kPriceDecimals, row.price, row.priceDecimals);
    if (problem != ProblemKind::None)
    {
        return problem;
    }
    unsigned ignored = 0;
    problem = ParseDecimal(fields[kQuantity], kQuantityDecimals, row.quantity, ignored);
    if (problem != ProblemKind::None)
    {
        return problem;
    }
    const bool mustBePositive = row.event == RowEvent::Snap; // a level of an image that is not there is none
    return row.quantity < 0 || (mustBePositive && row.quantity == 0) ? ProblemKind::BadNumber : ProblemKind::None;
}

bool ParseSequenceAndFlag(const Fields& fields, RecordingRow& row) noexcept
{
    const std::string_view last = fields[kLast];
    row.isLast = last == "1";
    return ParseOptional(fields[kSequence], row.venueSequence) && (row.isLast || last == "0");
}

} // namespace

bool RowParser::BeginsAsBefore(std::string_view line) const noexcept
{
    return m_head.size != 0 && line.size() > m_head.size && std::memcmp(line.data(), m_text.data(), m_head.size) == 0;
}

bool RowParser::SplitHead(std::string_view line, Head& head) noexcept
{
    const std::size_t exchangeTimeAt = line.find(',') + 1; // 0: none
    head.marketAt = exchangeTimeAt == 0 ? 0 : line.find(',', exchangeTimeAt) + 1;
    head.symbolAt = head.marketAt == 0 ? 0 : line.find(',', head.marketAt) + 1;
    head.size = head.symbolAt == 0 ? 0 : line.find(',', head.symbolAt) + 1;
    return head.size != 0;
}

bool RowParser::ParseTimes(std::string_view line, Head& head) noexcept
{
    constexpr std::uint64_t kNsPerMs = 1'000'000;
    const std::string_view times = line.substr(0, head.marketAt - 1);
    const std::size_t comma = times.find(',');
    std::uint64_t exchangeTime_ms = 0;
    return ParseUnsigned(times.substr(0, comma), head.receiveTime_ns) &&
           ParseOptional(times.substr(comma + 1), exchangeTime_ms) &&
           !__builtin_mul_overflow(exchangeTime_ms, kNsPerMs, &head.exchangeTime_ns);
}

void RowParser::Remember(std::string_view line, const Head& head) noexcept
{
    m_head = head;
    if (head.size > kLongestHead)
    {
        m_head.size = 0;
        return;
    }
    std::memcpy(m_text.data(), line.data(), head.size);
}

ProblemKind RowParser::Parse(std::string_view line, RecordingRow& row) noexcept
{
    row.isAlike = false;
    const bool isKnown = BeginsAsBefore(line);
    Head head = m_head;
    Fields fields;
    if ((!isKnown && !SplitHead(line, head)) || !Split(line.substr(head.size), fields))
    {
        return ProblemKind::FieldCount;
    }
    row.market = line.substr(head.marketAt, head.symbolAt - head.marketAt - 1);
    row.symbol = line.substr(head.symbolAt, head.size - head.symbolAt - 1);
    row.instrument = line.substr(head.marketAt, head.size - head.marketAt - 1);
    if (row.market.empty() || row.symbol.empty())
    {
        return ProblemKind::NoName;
    }
    if (const ProblemKind problem = ParseEventAndSide(fields, row); problem != ProblemKind::None)
    {
        return problem;
    }
    if (const ProblemKind problem = ParseLevel(fields[kLevel], row.event); problem != ProblemKind::None)
    {
        return problem;
    }
    if ((!isKnown && !ParseTimes(line, head)) || !ParseSequenceAndFlag(fields, row))
    {
        return ProblemKind::BadNumber;
    }
    row.receiveTime_ns = head.receiveTime_ns;
    row.exchangeTime_ns = head.exchangeTime_ns;
    const ProblemKind problem = ParsePriceAndQuantity(fields, row);
    if (problem == ProblemKind::None)
    {
        if (!isKnown)
        {
            Remember(line, head);
        }
        RememberTail(fields[kSequence], row.venueSequence);
    }
    return problem;
}

} // namespace ps_ns
