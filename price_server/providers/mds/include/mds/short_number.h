#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

namespace ps_ns
{

/// Eight characters as one number, the first in the lowest byte on the machines that ReadShortNumber is for.
inline std::uint64_t LoadEight(const char* at) noexcept
{
    std::uint64_t word = 0;
    std::memcpy(&word, at, sizeof(word));
    return word;
}

/// A plain number of up to eight characters, the point among them, as it stands before a comma.
struct ShortNumber
{
    std::uint64_t digits = 0;    ///< all of them, as if there were no point
    unsigned behind = 0;         ///< how many stood behind the point
    const char* comma = nullptr; ///< null: this is no such number
};

/// Reads a short number without a branch for each character: lengths and points are what no processor can foresee. No
/// sign, and digits on both sides of a point. Nine characters from `at` on must be readable.
inline ShortNumber ReadShortNumber(const char* at) noexcept
{
    constexpr std::uint64_t kEach = 0x0101'0101'0101'0101;
    constexpr unsigned kBits = 8;
    const std::uint64_t word = LoadEight(at) ^ kEach * '0'; // digits are 0 to 9 now, and nothing else is
    // The highest bit of each byte that is no digit; no byte carries over into the next.
    const std::uint64_t others = (((word & kEach * 0x7f) + kEach * (0x7f - 9)) | word) & kEach * 0x80;
    const auto first = static_cast<unsigned>(std::countr_zero(others)) / kBits; // 8: eight digits
    const auto second = static_cast<unsigned>(std::countr_zero(others & (others - 1))) / kBits;
    const unsigned hasPoint = at[first] == '.' ? 1 : 0;
    const unsigned end = hasPoint != 0 ? second : first;
    const unsigned behind = hasPoint != 0 ? second - first - 1 : 0;
    if (at[end] != ',' || first == 0 || behind < hasPoint)
    {
        return {};
    }
    // Closes the gap of the point, if any: what is behind it moves one place down.
    const std::uint64_t whole = ~std::uint64_t{0} >> (kBits * (kBits - first));
    const std::uint64_t closed = hasPoint != 0 ? (word & whole) | ((word >> kBits) & ~whole) : word;
    // The last digit into the highest byte, zeros before the first; then pairs, fours and all eight are added up.
    std::uint64_t sum = closed << (kBits * (kBits - (end - hasPoint)));
    sum = sum * 10 + (sum >> kBits);
    constexpr std::uint64_t kPairs = 0x0000'00ff'0000'00ff;
    sum = ((sum & kPairs) * ((std::uint64_t{1'000'000} << 32) + 100) +
           ((sum >> 16) & kPairs) * ((std::uint64_t{10'000} << 32) + 1)) >>
          32;
    return {sum, behind, at + end};
}

} // namespace ps_ns
