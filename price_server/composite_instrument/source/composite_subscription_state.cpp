#include "composite_instrument/composite_subscription_state.h"

namespace ps_ns
{

CompositeSubscriptionState::CompositeSubscriptionState(const std::array<bool, 3>& components)
    : wantsDirect(components[0])
    , wantsImplied(components[1])
    , wantsAggregated(components[2])
{
}

CompositeSubscriptionState::CompositeSubscriptionState(const CompositeSubscriptionState& other)
    : wantsDirect(other.wantsDirect)
    , wantsImplied(other.wantsImplied)
    , wantsAggregated(other.wantsAggregated)
    , isStale(other.isStale)
    , provider(other.provider)
    , activeScopes(other.activeScopes)
    , waitingScopes(other.waitingScopes)
    , epoch(other.epoch)
    , symbol(other.symbol)
    , isLive(false)
{
}

CompositeSubscriptionState& CompositeSubscriptionState::operator=(const CompositeSubscriptionState& other)
{
    if (this != &other)
    {
        wantsDirect = other.wantsDirect;
        wantsImplied = other.wantsImplied;
        wantsAggregated = other.wantsAggregated;
        isStale = other.isStale;
        provider = other.provider;
        activeScopes = other.activeScopes;
        waitingScopes = other.waitingScopes;
        epoch = other.epoch;
        symbol = other.symbol;
    }
    isLive = false;
    return *this;
}

} // namespace ps_ns
