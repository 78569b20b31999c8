#pragma once

#include "composite_instrument/composite_component_type.h"
#include "composite_price/book_side.h"
#include "composite_price/price.h"

#include <cstdint>
#include <memory>
#include <unordered_map>
#include <unordered_set>

namespace ps_ns
{

/// The book of a composite instrument: the books of its components merged by price, best level first on both sides. A
/// crossed or locked book is kept as the components make it. Units: fixed_point.h.
///
/// Once delivered it is constant and shared by all who receive it.
class MergedOrderBook
{
public:
    struct Level
    {
        std::int64_t price = 0;
        std::int64_t directQuantity = 0;  ///< of the venue's own book and of the same asset on other venues
        std::int64_t impliedQuantity = 0; ///< worked out from related books
        std::uint32_t orderCount = 0;     ///< 0: not known

        friend bool operator==(const Level&, const Level&) = default;
    };

    /// Both sides have room for `levels` levels; `size` is only recorded.
    MergedOrderBook(std::uint32_t levels, std::uint32_t size)
        : bids(levels, size)
        , asks(levels, size)
    {
    }
    virtual ~MergedOrderBook();
    MergedOrderBook(const MergedOrderBook&) = delete;
    MergedOrderBook& operator=(const MergedOrderBook&) = delete;

    BookSide<Level> bids;
    BookSide<Level> asks;

    /// Wanted components that have not delivered an image yet; empty in a complete book.
    std::unordered_set<CompositeComponentType::Type> missingComponents;
    /// Components that have been silent for too long, or whose provider has lost the feed, and since when (ns since
    /// 1970 UTC); empty in a fresh book.
    std::unordered_map<CompositeComponentType::Type, std::uint64_t> staleComponents;

    double lastTradePrice = sbe_common_ns::kNullPrice; ///< of the direct component; null: no trade seen

    std::uint64_t epoch = 0;    ///< grows with each subscribe of the components: first, switch, rename
    std::uint64_t sequence = 0; ///< counts the merged books of one subscription; what a client is spared shows as a gap
    std::uint64_t exchangeTime_ns = 0; ///< the venue's clock, ns since 1970 UTC; 0: not known
    std::uint64_t receiveTime_ns = 0;  ///< when the newest update in it reached the provider, ns since 1970 UTC
    std::uint64_t venueSequence = 0;   ///< the venue's id of that update; 0: none
    std::uint32_t snapshotReason = 0;  ///< a GenerateSnapshotReason when it was asked for; 0: something changed

    /// A copy with at most `levels` levels a side, and room for no more; 0 counts as 1. Everything else is the same.
    std::shared_ptr<MergedOrderBook> Cut(std::uint32_t levels) const;

    /// True when both books show the same levels, the same components as missing, and the same as stale since the same
    /// time, whatever the books' own times, sequences and last trades are.
    bool ShowsSameAs(const MergedOrderBook& other) const;
};

} // namespace ps_ns
