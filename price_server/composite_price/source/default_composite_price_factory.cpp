#include "composite_price/default_composite_price_factory.h"

#include "composite_price/custom_fields.h"
#include "composite_price/last_trade_volume.h"
#include "composite_price/merged_order_book.h"
#include "composite_price/order_book.h"
#include "composite_price/trade.h"

#include <algorithm>

namespace ps_ns
{
namespace
{

/// Both level arrays are sized by the first argument; the second is only recorded. Each zero becomes 1 by itself.
template <class Book>
std::shared_ptr<Book> MakeBook(unsigned int depth, unsigned int size)
{
    return std::make_shared<Book>(std::max(depth, 1U), std::max(size, 1U));
}

double ToDouble(const sbe_common_ns::Price& price, const PriceFormat& format)
{
    if (price.raw == sbe_common_ns::kNullRawPrice)
    {
        return sbe_common_ns::kNullPrice;
    }
    return static_cast<double>(price.raw) / static_cast<double>(format.denominator);
}

} // namespace

std::shared_ptr<LastTradeVolume>
DefaultCompositePriceFactory::CreateLastTradeVolumeObject(double price, double quantity, double netChange,
                                                          unsigned long volume, unsigned long time_ns)
{
    return std::make_shared<LastTradeVolume>(price, quantity, netChange, volume, time_ns);
}

std::shared_ptr<LastTradeVolume> DefaultCompositePriceFactory::CreateLastTradeVolumeObject(const Trade& trade,
                                                                                           unsigned long volume)
{
    return std::make_shared<LastTradeVolume>(trade, volume);
}

std::shared_ptr<OrderBook> DefaultCompositePriceFactory::CreateOrderBookObject(unsigned int depth, unsigned int size)
{
    return MakeBook<OrderBook>(depth, size);
}

std::shared_ptr<MergedOrderBook> DefaultCompositePriceFactory::CreateMergedOrderBookObject(unsigned int depth,
                                                                                           unsigned int size)
{
    return MakeBook<MergedOrderBook>(depth, size);
}

std::shared_ptr<CustomFields> DefaultCompositePriceFactory::CreateCustomFieldsObject()
{
    return std::make_shared<CustomFields>();
}

std::shared_ptr<CustomFields> DefaultCompositePriceFactory::CreateCustomFieldsObject(const CustomFields& fields)
{
    return std::make_shared<CustomFields>(fields);
}

std::shared_ptr<CustomFields> DefaultCompositePriceFactory::CreateCustomFieldsObject(const PriceMap& prices,
                                                                                     const QuantityMap& quantities,
                                                                                     const TimeMap& times,
                                                                                     const PriceFormat& format)
{
    auto fields = std::make_shared<CustomFields>();
    fields->quantities = quantities;
    fields->times = times;
    fields->priceFormat = format;
    for (const auto& [id, price] : prices)
    {
        fields->prices.emplace_hint(fields->prices.end(), id, ToDouble(price, format));
    }
    return fields;
}

std::shared_ptr<CustomFields> DefaultCompositePriceFactory::CreateCustomFieldsObject(const DoublePriceMap& prices,
                                                                                     const QuantityMap& quantities,
                                                                                     const TimeMap& times,
                                                                                     const PriceFormat& format)
{
    auto fields = std::make_shared<CustomFields>();
    fields->prices = prices;
    fields->quantities = quantities;
    fields->times = times;
    fields->priceFormat = format;
    return fields;
}

std::shared_ptr<std::vector<Trade>> DefaultCompositePriceFactory::CreateTradesObject()
{
    return std::make_shared<std::vector<Trade>>();
}

} // namespace ps_ns
