#pragma once

#include "composite_instrument/composite_instrument_def.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace ps_ns
{

/// What a provider is chosen for: the key of the subscriptions whose provider is not decided yet.
struct PendingSubscriptionID
{
    PendingSubscriptionID(std::int16_t market, std::int16_t submarket, std::string instrumentSymbol);
    explicit PendingSubscriptionID(const CompositeInstrumentDef& def);

    std::int16_t marketId;
    std::int16_t submarketId;
    std::string symbol;

    friend bool operator==(const PendingSubscriptionID&, const PendingSubscriptionID&) = default;
};

/// Hash of a text: its characters in order, as signed chars extended to 64 bits; 0 for an empty text.
std::uint64_t HashText(const std::string& text) noexcept;

} // namespace ps_ns

template <>
struct std::hash<ps_ns::PendingSubscriptionID>
{
    std::size_t operator()(const ps_ns::PendingSubscriptionID& id) const;
};
