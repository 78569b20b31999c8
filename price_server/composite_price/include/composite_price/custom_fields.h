#pragma once

#include "composite_instrument/price_format.h"
#include "composite_price/stat_ids.h"

#include <cstdint>
#include <map>

namespace ps_ns
{

/// Statistics of an instrument's session.
class CustomFields
{
public:
    std::uint64_t receiveTime_ns = 0; ///< ns since 1970 UTC
    std::uint64_t sequence = 0;
    std::map<ps_messages_ns::StatPriceID::Value, double> prices; ///< in whole price units; kNullPrice: none
    std::map<ps_messages_ns::StatQtyID::Value, double> quantities;
    std::map<ps_messages_ns::StatTimeID::Value, unsigned long> times;        ///< the venue's, ns since 1970 UTC
    std::map<ps_messages_ns::StatTimeID::Value, unsigned long> receiveTimes; ///< the server's, ns since 1970 UTC
    PriceFormat priceFormat;

    friend bool operator==(const CustomFields&, const CustomFields&) = default;
};

} // namespace ps_ns
