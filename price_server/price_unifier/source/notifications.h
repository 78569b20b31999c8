#pragma once

/// How flexible observers are called back by the manager: never on its stack, always on the executor of the composite
/// subscription, so that all callbacks of one subscription stay in one ordered stream. `Subscription` needs
/// RunViaExecutor(std::function<void()>). The task holds copies of all it needs and may outlive the subscription.

#include "composite_instrument/i_flexible_price_observer.h"

#include <memory>

namespace ps_ns
{

/// Calls OnSubscribe. The event info and the reserved number given here do not reach the observer on purpose: it always
/// receives a default event info and 0.
template <class Subscription>
void RaiseOnSubscribe(Subscription* subscription, const std::shared_ptr<IFlexiblePriceObserver>& observer,
                      unsigned long subscriptionId, const CompositeInstrumentDef& def, const EventInfo& /*eventInfo*/,
                      ps_messages_ns::SubscriptionResult::Value result, unsigned long /*reserved*/,
                      const PriceFormat& format, CompositeComponentType::Type component,
                      const CompositeSubscriptionState& state)
{
    subscription->RunViaExecutor(
        [observer = observer, subscriptionId, def = def, result, format = format, component, state = state]
        { observer->OnSubscribe(subscriptionId, def, EventInfo{}, result, 0, format, component, state); });
}

/// Calls OnChangeScope.
template <class Subscription>
void RaiseOnChangeScope(Subscription* subscription, const std::shared_ptr<IFlexiblePriceObserver>& observer,
                        unsigned long subscriptionId, const CompositeInstrumentDef& def,
                        ps_messages_ns::SubscriptionResult::Value result)
{
    subscription->RunViaExecutor([observer = observer, subscriptionId, def = def, result]
                                 { observer->OnChangeScope(subscriptionId, def, result); });
}

/// Calls OnUnsubscribe.
template <class Subscription>
void RaiseOnUnsubscribe(Subscription* subscription, const std::shared_ptr<IFlexiblePriceObserver>& observer,
                        unsigned long subscriptionId, const CompositeInstrumentDef& def,
                        ps_messages_ns::SubscriptionResult::Value result, CompositeComponentType::Type component,
                        const CompositeSubscriptionState& state)
{
    subscription->RunViaExecutor([observer = observer, subscriptionId, def = def, result, component, state = state]
                                 { observer->OnUnsubscribe(subscriptionId, def, result, component, state); });
}

} // namespace ps_ns
