#pragma once

#include "composite_instrument/composite_subscription_info.h"

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <tuple>
#include <unordered_map>

namespace ps_ns
{

class IFlexiblePriceObserver;

/// What a composite subscription tells about itself with every subscribe and unsubscribe notification.
///
/// Copying copies everything except isLive, which only the subscription's own record ever has set: a copy describes a
/// moment, and is never live. There is no move on purpose: what looks like one copies, and clears the flag too.
class CompositeSubscriptionState
{
public:
    using ScopeById =
        std::unordered_map<std::uint64_t,
                           std::tuple<CompositeSubscriptionInfo, std::shared_ptr<IFlexiblePriceObserver>>>;

    CompositeSubscriptionState() = default;
    /// `components`: which of the direct, implied and aggregated components are wanted.
    explicit CompositeSubscriptionState(const std::array<bool, 3>& components);
    CompositeSubscriptionState(const CompositeSubscriptionState& other);
    CompositeSubscriptionState& operator=(const CompositeSubscriptionState& other);
    ~CompositeSubscriptionState() = default;

    bool wantsDirect = false;
    bool wantsImplied = false;
    bool wantsAggregated = false;
    bool isStale = false;      ///< a live component has been silent for too long, or its provider has lost the feed
    std::int32_t provider = 0; ///< a ProviderType::Value

    // A collaborator that wants to hand its clients on with a state files them here. The composite subscription of this
    // server leaves both empty: a copy of the state rides on each notification, and must hold nobody's observer.
    ScopeById activeScopes;
    ScopeById waitingScopes;

    std::uint64_t epoch = 0; ///< grows by one with each subscribe of the components: first, switch, rename
    std::string symbol;      ///< the symbol now subscribed, which a rename changes; empty: the definition's

    bool isLive = false; ///< never copied
};

} // namespace ps_ns
