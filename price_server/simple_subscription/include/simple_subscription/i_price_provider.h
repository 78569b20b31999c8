#pragma once

#include "composite_instrument/composite_component_type.h"
#include "composite_instrument/composite_subscription_info.h"
#include "composite_instrument/provider_type.h"
#include "composite_instrument/submarket.h"
#include "simple_subscription/i_component_listener.h"
#include "simple_subscription/instrument_directory.h"

#include <memory>
#include <string>

namespace ps_ns
{

/// What a composite subscription asks of a provider for one of its components.
struct ComponentRequest
{
    CompositeComponentType::Type component = CompositeComponentType::Direct;
    Submarket submarket;
    std::string symbol; ///< with the component's prefix: "IM_" implied, "AI_" aggregated
    CompositeSubscriptionInfo scope;
};

/// What IPriceProvider::Subscribe answers at once. Other values are handed on and mean nothing to do.
struct SubscribeStatus
{
    enum Value : int
    {
        Subscribed = 0, ///< the listener will hear
        Failed = 1,     ///< it will not
        Pending = 2     ///< it will, but which provider serves the symbol is not decided yet
    };
};

/// A source of prices.
///
/// Threads: Start and Stop are the owner's; the rest is called on the data-queue thread. No call blocks on the
/// provider's own work.
///
/// Ownership: a provider holds a listener from a successful Subscribe until it has called OnUnsubscribed, or until
/// Stop.
class IPriceProvider
{
public:
    virtual ~IPriceProvider() = default;

    virtual ProviderType::Value GetType() const = 0;

    /// The instruments it knows. Lives as long as the provider; safe to read from any thread.
    virtual const InstrumentDirectory& GetDirectory() const = 0;

    /// Begins to read its directory and to serve. Throws std::runtime_error when it never can (a missing file).
    virtual void Start() = 0;

    /// Calls no listener after it has returned, and holds none. What is still owed is dropped. Idempotent.
    virtual void Stop() = 0;

    /// Returns a SubscribeStatus::Value; the result proper comes through the listener. May throw SubscriptionEx, which
    /// says why it cannot; the listener is then not held.
    virtual int Subscribe(const ComponentRequest& request, const std::shared_ptr<IComponentListener>& listener) = 0;

    /// Serves the listener with another scope from now on. A listener it does not know is ignored.
    virtual void ChangeScope(const std::shared_ptr<IComponentListener>& listener,
                             const CompositeSubscriptionInfo& scope) = 0;

    /// Ends a subscription; the listener is told OnUnsubscribed exactly once, perhaps before this returns. A listener
    /// it does not know is told true.
    virtual void Unsubscribe(const std::shared_ptr<IComponentListener>& listener) = 0;
};

} // namespace ps_ns
