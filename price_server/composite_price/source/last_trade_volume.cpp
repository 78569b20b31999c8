#include "composite_price/last_trade_volume.h"

#include "composite_price/fixed_point.h"
#include "composite_price/trade.h"

namespace ps_ns
{

LastTradeVolume::LastTradeVolume(double tradePrice, double tradeQuantity, double netPriceChange, std::uint64_t volume,
                                 std::uint64_t tradeTime_ns)
    : price(tradePrice)
    , quantity(tradeQuantity)
    , netChange(netPriceChange)
    , totalVolume(static_cast<double>(volume))
    , time_ns(tradeTime_ns)
{
}

LastTradeVolume::LastTradeVolume(const Trade& trade, std::uint64_t volume)
    : LastTradeVolume(static_cast<double>(trade.price) / static_cast<double>(kPriceUnitsPerOne),
                      static_cast<double>(trade.quantity) / static_cast<double>(kQuantityUnitsPerOne), 0.0, volume,
                      trade.exchangeTime_ns)
{
    venueId = trade.venueId;
    aggressor = static_cast<std::uint32_t>(trade.aggressor);
}

} // namespace ps_ns
