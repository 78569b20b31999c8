#include "composite_instrument/pending_subscription_id.h"

#include "composite_instrument/hash_combine.h"

#include <utility>

namespace ps_ns
{

PendingSubscriptionID::PendingSubscriptionID(std::int16_t market, std::int16_t submarket, std::string instrumentSymbol)
    : marketId(market)
    , submarketId(submarket)
    , symbol(std::move(instrumentSymbol))
{
}

PendingSubscriptionID::PendingSubscriptionID(const CompositeInstrumentDef& def)
    : PendingSubscriptionID(def.marketId, def.submarketId, def.GetSymbol())
{
}

std::uint64_t HashText(const std::string& text) noexcept
{
    std::uint64_t h = 0;
    for (const char c : text)
    {
        // Explicitly signed: plain char is unsigned on some machines.
        h = HashCombine(h, static_cast<std::uint64_t>(static_cast<signed char>(c)));
    }
    return h;
}

} // namespace ps_ns

std::size_t std::hash<ps_ns::PendingSubscriptionID>::operator()(const ps_ns::PendingSubscriptionID& id) const
{
    std::uint64_t h = 0;
    h = ps_ns::HashCombine(h, static_cast<std::uint64_t>(id.marketId));
    h = ps_ns::HashCombine(h, static_cast<std::uint64_t>(id.submarketId));
    h = ps_ns::HashCombine(h, ps_ns::HashText(id.symbol));
    return h;
}
