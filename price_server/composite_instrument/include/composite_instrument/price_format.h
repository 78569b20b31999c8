#pragma once

#include <cstdint>

namespace ps_ns
{

/// How an instrument's raw prices are to be read and shown: price = raw / denominator.
struct PriceFormat
{
    std::uint32_t denominator = 0;    ///< raw units in one whole price unit; 0: not known
    bool isFractional = false;        ///< quoted in fractions (halves, 32nds) rather than decimals
    std::uint32_t fractionDigits = 0; ///< digits to show after the point; 0: not known
    char displayFormat = 'D';         ///< 'D' decimal
    std::uint32_t tickSize = 1;       ///< smallest price step, in raw units

    friend bool operator==(const PriceFormat&, const PriceFormat&) = default;
};

} // namespace ps_ns
