#pragma once

#include "composite_instrument/price_format.h"
#include "composite_price/price.h"
#include "composite_price/stat_ids.h"

#include <map>
#include <memory>
#include <vector>

namespace ps_ns
{

class CustomFields;
class LastTradeVolume;
class MergedOrderBook;
class OrderBook;
class Trade;

// No virtual destructor on purpose: the interface's layout is shared with users that expect the nine operations and
// nothing before them. Make a factory with std::make_shared of its own class: the shared pointer then destroys it as
// that.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

/// Makes the price objects that composite subscriptions fill and deliver.
///
/// Threads: the operations are called from executors, several at once.
/// Failure: allocation only.
class ICompositePriceFactory
{
public:
    using PriceMap = std::map<ps_messages_ns::StatPriceID::Value, sbe_common_ns::Price>;
    using DoublePriceMap = std::map<ps_messages_ns::StatPriceID::Value, double>;
    using QuantityMap = std::map<ps_messages_ns::StatQtyID::Value, double>;
    using TimeMap = std::map<ps_messages_ns::StatTimeID::Value, unsigned long>;

    virtual std::shared_ptr<LastTradeVolume> CreateLastTradeVolumeObject(double price, double quantity,
                                                                         double netChange, unsigned long volume,
                                                                         unsigned long time_ns) = 0;
    virtual std::shared_ptr<LastTradeVolume> CreateLastTradeVolumeObject(const Trade& trade, unsigned long volume) = 0;

    /// Empty books with room for `depth` levels on each side; a zero argument counts as 1. `size` is only recorded.
    virtual std::shared_ptr<OrderBook> CreateOrderBookObject(unsigned int depth, unsigned int size) = 0;
    virtual std::shared_ptr<MergedOrderBook> CreateMergedOrderBookObject(unsigned int depth, unsigned int size) = 0;

    virtual std::shared_ptr<CustomFields> CreateCustomFieldsObject() = 0;
    virtual std::shared_ptr<CustomFields> CreateCustomFieldsObject(const CustomFields& fields) = 0;
    /// From raw prices: each is divided by the format's denominator, except the null price. A denominator of 0 gives
    /// infinite or NaN prices.
    virtual std::shared_ptr<CustomFields> CreateCustomFieldsObject(const PriceMap& prices,
                                                                   const QuantityMap& quantities, const TimeMap& times,
                                                                   const PriceFormat& format) = 0;
    /// From prices that need no division.
    virtual std::shared_ptr<CustomFields> CreateCustomFieldsObject(const DoublePriceMap& prices,
                                                                   const QuantityMap& quantities, const TimeMap& times,
                                                                   const PriceFormat& format) = 0;

    virtual std::shared_ptr<std::vector<Trade>> CreateTradesObject() = 0;

protected:
    ~ICompositePriceFactory() = default;
};

#pragma GCC diagnostic pop

} // namespace ps_ns
