#pragma once

#include <compare>
#include <cstddef>
#include <functional>

namespace ps_ns
{

/// A market and a part of it; -1 means unknown.
struct Submarket
{
    short marketId = -1;
    short submarketId = -1;

    friend bool operator==(const Submarket&, const Submarket&) = default;
    friend auto operator<=>(const Submarket&, const Submarket&) = default;
};

} // namespace ps_ns

template <>
struct std::hash<ps_ns::Submarket>
{
    std::size_t operator()(const ps_ns::Submarket& key) const
    {
        return std::hash<int>()((static_cast<int>(key.marketId) << 16) ^ static_cast<int>(key.submarketId));
    }
};
