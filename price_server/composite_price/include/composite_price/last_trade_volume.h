#pragma once

#include <cstdint>

namespace ps_ns
{

class Trade;

/// The last trade together with the volume traded so far.
class LastTradeVolume
{
public:
    static constexpr std::uint32_t kNotKnown = 255;

    LastTradeVolume(double tradePrice, double tradeQuantity, double netPriceChange, std::uint64_t volume,
                    std::uint64_t tradeTime_ns);

    /// Price and quantity in whole units, time and id of the trade; the net change is not known from one trade, and 0.
    LastTradeVolume(const Trade& trade, std::uint64_t volume);

    double price;
    double quantity;
    double netChange; ///< against the previous session
    double totalVolume;
    std::uint64_t time_ns;     ///< ns since 1970 UTC
    std::uint64_t venueId = 0; ///< the venue's trade id; 0: none
    std::uint64_t sequence = 0;
    std::uint32_t flags = 0;
    std::uint32_t aggressor = kNotKnown; ///< a Trade::Aggressor
    std::uint32_t condition = kNotKnown;
    std::uint32_t phase = kNotKnown;
};

} // namespace ps_ns
