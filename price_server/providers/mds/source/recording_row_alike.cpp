#include "composite_price/fixed_point.h"
#include "mds/recording_row.h"
#include "mds/short_number.h"

#include <array>
#include <bit>
#include <cstring>

namespace ps_ns
{
namespace
{

constexpr std::size_t kWord = sizeof(std::uint64_t);

/// As LoadEight of these eight characters.
constexpr std::uint64_t ToWord(const char (&text)[kWord + 1]) noexcept
{
    std::uint64_t word = 0;
    for (std::size_t at = kWord; at-- != 0;)
    {
        word = word << 8 | static_cast<unsigned char>(text[at]);
    }
    return word;
}

/// What stands between the names and the price in a change of a book: two kinds.
constexpr std::uint64_t kBid = ToWord("book,B,,");
constexpr std::uint64_t kAsk = ToWord("book,S,,");

/// At least one word.
bool AreEqual(const char* a, const char* b, std::size_t size) noexcept
{
    std::uint64_t differences = LoadEight(a + size - kWord) ^ LoadEight(b + size - kWord);
    for (std::size_t at = 0; at < size - kWord; at += kWord)
    {
        differences |= LoadEight(a + at) ^ LoadEight(b + at);
    }
    return differences == 0;
}

template <std::size_t kDecimals>
std::int64_t ToUnits(const ShortNumber& number) noexcept
{
    constexpr auto kPowers = []
    {
        std::array<std::int64_t, kDecimals + 1> powers{};
        std::int64_t power = 1;
        for (std::size_t behind = kDecimals + 1; behind-- != 0; power *= 10)
        {
            powers[behind] = power;
        }
        return powers;
    }();
    static_assert(kDecimals >= 7, "a short number has up to seven digits behind the point");
    static_assert(kDecimals <= 10, "and eight digits in all, which must not overflow");
    return static_cast<std::int64_t>(number.digits) * kPowers[number.behind];
}

} // namespace

void RowParser::RememberTail(std::string_view sequence, std::uint64_t venueSequence) noexcept
{
    const std::size_t size = sequence.size() + 1;
    m_tailSize = 0;
    if (size > kTailWords * kWord)
    {
        return; // leading zeros
    }
    std::array<char, kTailWords * kWord> text{};
    std::array<char, kTailWords * kWord> mask{};
    std::memcpy(text.data(), sequence.data(), sequence.size());
    text[size - 1] = ',';
    std::memset(mask.data(), 0xff, size);
    std::memcpy(m_tail.data(), text.data(), text.size());
    std::memcpy(m_tailMask.data(), mask.data(), mask.size());
    m_tailSize = size;
    m_venueSequence = venueSequence;
}

const char* RowParser::ParseAlike(const char* at, AlikeRow& row) const noexcept
{
    static_assert(kLongestHead + kWord + 2 * (kWord + 1) + (kTailWords + 1) * kWord + 2 <= kLookAhead);
    if (std::endian::native != std::endian::little || m_tailSize == 0 || m_head.size < kWord ||
        !AreEqual(at, m_text.data(), m_head.size))
    {
        return nullptr;
    }
    at += m_head.size;
    const std::uint64_t eventAndSide = LoadEight(at);
    const ShortNumber price = ReadShortNumber(at + kWord);
    if ((eventAndSide != kBid && eventAndSide != kAsk) || price.comma == nullptr)
    {
        return nullptr;
    }
    const ShortNumber quantity = ReadShortNumber(price.comma + 1);
    if (quantity.comma == nullptr)
    {
        return nullptr;
    }
    at = quantity.comma + 1;
    std::uint64_t differences = 0;
    for (std::size_t word = 0; word < kTailWords; ++word)
    {
        differences |= (LoadEight(at + word * kWord) ^ m_tail[word]) & m_tailMask[word];
    }
    at += m_tailSize;
    if (differences != 0 || (*at != '0' && *at != '1') || at[1] != '\n')
    {
        return nullptr;
    }
    row.price = ToUnits<kPriceDecimals>(price);
    row.quantity = ToUnits<kQuantityDecimals>(quantity);
    row.priceDecimals = price.behind;
    row.side = eventAndSide == kBid ? 'B' : 'S';
    row.isLast = *at == '1';
    return at + 2;
}

void RowParser::Complete(const char* at, const AlikeRow& alike, RecordingRow& row) const noexcept
{
    const char* const names = at + m_head.marketAt;
    const std::size_t marketSize = m_head.symbolAt - m_head.marketAt - 1;
    const std::size_t namesSize = m_head.size - m_head.marketAt - 1;
    row.receiveTime_ns = m_head.receiveTime_ns;
    row.exchangeTime_ns = m_head.exchangeTime_ns;
    row.instrument = {names, namesSize};
    row.market = {names, marketSize};
    row.symbol = {names + marketSize + 1, namesSize - marketSize - 1};
    row.price = alike.price;
    row.quantity = alike.quantity;
    row.venueSequence = m_venueSequence;
    row.priceDecimals = alike.priceDecimals;
    row.event = RowEvent::Book;
    row.side = alike.side;
    row.isLast = alike.isLast;
    row.isAlike = true;
}

} // namespace ps_ns
