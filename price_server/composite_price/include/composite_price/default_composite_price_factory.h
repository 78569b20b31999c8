#pragma once

#include "composite_price/i_composite_price_factory.h"

namespace ps_ns
{

/// The standard factory: one fresh object for each call, in one allocation with its reference count. It has no state.
class DefaultCompositePriceFactory final : public ICompositePriceFactory
{
public:
    std::shared_ptr<LastTradeVolume> CreateLastTradeVolumeObject(double price, double quantity, double netChange,
                                                                 unsigned long volume, unsigned long time_ns) override;
    std::shared_ptr<LastTradeVolume> CreateLastTradeVolumeObject(const Trade& trade, unsigned long volume) override;
    std::shared_ptr<OrderBook> CreateOrderBookObject(unsigned int depth, unsigned int size) override;
    std::shared_ptr<MergedOrderBook> CreateMergedOrderBookObject(unsigned int depth, unsigned int size) override;
    std::shared_ptr<CustomFields> CreateCustomFieldsObject() override;
    std::shared_ptr<CustomFields> CreateCustomFieldsObject(const CustomFields& fields) override;
    std::shared_ptr<CustomFields> CreateCustomFieldsObject(const PriceMap& prices, const QuantityMap& quantities,
                                                           const TimeMap& times, const PriceFormat& format) override;
    std::shared_ptr<CustomFields> CreateCustomFieldsObject(const DoublePriceMap& prices, const QuantityMap& quantities,
                                                           const TimeMap& times, const PriceFormat& format) override;
    std::shared_ptr<std::vector<Trade>> CreateTradesObject() override;
};

} // namespace ps_ns
