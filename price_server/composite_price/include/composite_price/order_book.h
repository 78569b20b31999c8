#pragma once

#include "composite_price/book_side.h"

#include <cstdint>

namespace ps_ns
{

/// The book of one source, best level first on both sides. Units: fixed_point.h.
class OrderBook
{
public:
    struct Level
    {
        std::int64_t price = 0;
        std::int64_t quantity = 0;
        std::uint32_t orderCount = 0; ///< 0: not known

        friend bool operator==(const Level&, const Level&) = default;
    };

    /// Both sides have room for `levels` levels; `size` is only recorded.
    OrderBook(std::uint32_t levels, std::uint32_t size)
        : bids(levels, size)
        , asks(levels, size)
    {
    }

    std::uint64_t epoch = 0;           ///< grows with each full image
    std::uint64_t sequence = 0;        ///< of the last update within the epoch
    std::uint64_t exchangeTime_ns = 0; ///< the venue's clock, ns since 1970 UTC; 0: not known
    BookSide<Level> bids;
    BookSide<Level> asks;
    std::uint64_t receiveTime_ns = 0; ///< ns since 1970 UTC
    std::uint64_t firstVenueSequence = 0;
    std::uint64_t lastVenueSequence = 0;
    std::uint64_t updateCount = 0;
    std::uint64_t status = 0;
    std::uint64_t reserved = 0;
};

} // namespace ps_ns
