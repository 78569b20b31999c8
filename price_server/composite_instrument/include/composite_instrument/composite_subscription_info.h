#pragma once

#include <cstdint>
#include <iosfwd>

namespace ps_ns
{

/// A scope: what a client wants of an instrument.
struct CompositeSubscriptionInfo
{
    static constexpr std::int32_t kDefaultDepth = -2; ///< the market's default depth
    static constexpr std::int32_t kMaxDepth = -1;     ///< the market's maximum depth

    std::int32_t depth = kDefaultDepth;      ///< levels a side, or one of the two above
    std::uint32_t conflationInterval_ms = 0; ///< at most one book in this time; 0: every change
    bool trades = false;                     ///< wants trades
    bool customFields = false;               ///< wants custom fields

    /// True when two scopes ask for the same data: all four fields agree.
    static bool IsSameScope(const CompositeSubscriptionInfo& a, const CompositeSubscriptionInfo& b) noexcept;

    /// The scope that serves both: the larger depth, the smaller interval (0 wins), either's flags.
    static CompositeSubscriptionInfo Merge(const CompositeSubscriptionInfo& a,
                                           const CompositeSubscriptionInfo& b) noexcept;

    friend bool operator==(const CompositeSubscriptionInfo&, const CompositeSubscriptionInfo&) = default;
};

/// One line, like "depth=5 interval=0 trades=0 customFields=1".
std::ostream& operator<<(std::ostream& out, const CompositeSubscriptionInfo& info);

} // namespace ps_ns
