#pragma once

#include <cstdint>

namespace ps_ns
{

/// When and where an event happened, as subscribe notifications carry it. The manager sends all fields zero.
struct EventInfo
{
    std::uint64_t exchangeTime_ns = 0; ///< the venue's clock, ns since 1970 UTC
    std::uint64_t receiveTime_ns = 0;  ///< the server's clock, ns since 1970 UTC
    std::uint64_t sequence = 0;

    friend bool operator==(const EventInfo&, const EventInfo&) = default;
};

} // namespace ps_ns
