#pragma once

#include <cstdint>

namespace sbe_common_ns
{

/// A raw price: a whole number of units, of which a PriceFormat's denominator make one.
struct Price
{
    std::int64_t raw = 0;

    friend bool operator==(const Price&, const Price&) = default;
};

/// The raw value that stands for "no price": 0xfffffffff0000000.
inline constexpr std::int64_t kNullRawPrice = -268435456;

/// The same as a double. It keeps the raw value's magnitude: it is never divided by a denominator.
inline constexpr double kNullPrice = -268435456.0;

} // namespace sbe_common_ns
