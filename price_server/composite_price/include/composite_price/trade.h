#pragma once

#include <cstdint>

namespace ps_ns
{

/// One trade. Units: fixed_point.h.
class Trade
{
public:
    enum class Aggressor : std::uint8_t
    {
        Unknown,
        Buyer,
        Seller
    };

    std::int64_t price = 0;
    std::int64_t quantity = 0;
    std::uint64_t exchangeTime_ns = 0; ///< the venue's clock, ns since 1970 UTC; 0: not known
    std::uint64_t receiveTime_ns = 0;  ///< ns since 1970 UTC
    std::uint64_t venueId = 0;         ///< the venue's trade id; 0: none
    Aggressor aggressor = Aggressor::Unknown;

    friend bool operator==(const Trade&, const Trade&) = default;
};

} // namespace ps_ns
