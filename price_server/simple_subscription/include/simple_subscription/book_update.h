#pragma once

#include <cstdint>
#include <vector>

namespace ps_ns
{

enum class BookSideType : std::uint8_t
{
    Bid,
    Ask
};

/// One change of a component's book, as a provider delivers it: the group of levels that the venue changed together.
/// Constant once delivered. Units: fixed_point.h.
struct BookUpdate
{
    struct Change
    {
        std::int64_t price = 0;
        std::int64_t quantity = 0;    ///< the whole quantity now at the price; 0: the level is gone
        std::uint32_t orderCount = 0; ///< 0: not known
        BookSideType side = BookSideType::Bid;

        friend bool operator==(const Change&, const Change&) = default;
    };

    bool isImage = false;    ///< the changes are the whole book, which replaces what was known
    std::uint64_t epoch = 0; ///< grows when the provider starts over (reconnect, loop); only an image may open an epoch
    std::uint64_t sequence = 0;        ///< grows by one with each update of an instrument within an epoch
    std::uint64_t exchangeTime_ns = 0; ///< the venue's clock, ns since 1970 UTC; 0: not known
    std::uint64_t receiveTime_ns = 0;  ///< when it reached the recorder or the server, ns since 1970 UTC
    std::uint64_t venueSequence = 0;   ///< the venue's update id; 0: none
    std::vector<Change> changes;       ///< applied in order
    bool isStale = false; ///< an image of what was known last, while there is no feed; an image without this ends that
};

} // namespace ps_ns
