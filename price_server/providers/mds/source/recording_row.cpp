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

enum Field : std::size_t
{
    kTime,
    kExchangeTime,
    kMarket,
    kSymbol,
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
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() && end == text.data() + text.size();
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

bool ParseTimesAndFlag(const Fields& fields, RecordingRow& row) noexcept
{
    constexpr std::uint64_t kNsPerMs = 1'000'000;
    std::uint64_t exchangeTime_ms = 0;
    if (!ParseUnsigned(fields[kTime], row.receiveTime_ns) || !ParseOptional(fields[kExchangeTime], exchangeTime_ms) ||
        !ParseOptional(fields[kSequence], row.venueSequence) ||
        __builtin_mul_overflow(exchangeTime_ms, kNsPerMs, &row.exchangeTime_ns))
    {
        return false;
    }
    const std::string_view last = fields[kLast];
    row.isLast = last == "1";
    return row.isLast || last == "0";
}

} // namespace

ProblemKind ParseRow(std::string_view line, RecordingRow& row) noexcept
{
    Fields fields;
    if (!Split(line, fields))
    {
        return ProblemKind::FieldCount;
    }
    row.market = fields[kMarket];
    row.symbol = fields[kSymbol];
    if (row.market.empty() || row.symbol.empty())
    {
        return ProblemKind::NoName;
    }
    row.instrument = {row.market.data(), row.market.size() + 1 + row.symbol.size()};
    if (const ProblemKind problem = ParseEventAndSide(fields, row); problem != ProblemKind::None)
    {
        return problem;
    }
    if (const ProblemKind problem = ParseLevel(fields[kLevel], row.event); problem != ProblemKind::None)
    {
        return problem;
    }
    if (!ParseTimesAndFlag(fields, row))
    {
        return ProblemKind::BadNumber;
    }
    return ParsePriceAndQuantity(fields, row);
}

} // namespace ps_ns
