#include "composite_instrument/composite_subscription_info.h"

#include <algorithm>
#include <ostream>

namespace ps_ns
{

bool CompositeSubscriptionInfo::IsSameScope(const CompositeSubscriptionInfo& a,
                                            const CompositeSubscriptionInfo& b) noexcept
{
    return a == b;
}

CompositeSubscriptionInfo CompositeSubscriptionInfo::Merge(const CompositeSubscriptionInfo& a,
                                                           const CompositeSubscriptionInfo& b) noexcept
{
    return {std::max(a.depth, b.depth), std::min(a.conflationInterval_ms, b.conflationInterval_ms),
            a.trades || b.trades, a.customFields || b.customFields};
}

std::ostream& operator<<(std::ostream& out, const CompositeSubscriptionInfo& info)
{
    return out << "depth=" << info.depth << " interval=" << info.conflationInterval_ms
               << " trades=" << (info.trades ? 1 : 0) << " customFields=" << (info.customFields ? 1 : 0);
}

} // namespace ps_ns
