#pragma once

#include "composite_instrument/price_format.h"
#include "composite_price/trade.h"
#include "simple_subscription/book_update.h"

#include <atomic>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

namespace ps_ns
{

/// An instrument's number within one provider: counts from 0 in the order of IMarketSource::GetInstruments.
using InstrumentIndex = std::uint32_t;
inline constexpr InstrumentIndex kNoInstrument = std::numeric_limits<InstrumentIndex>::max();

/// One message of a venue: a change of one book, or trades, or both. A buffer that is filled again and again; its
/// vectors keep their room.
struct MarketMessage
{
    InstrumentIndex instrument = kNoInstrument;
    std::uint64_t epoch = 0;         ///< grows each time that the source starts over
    std::uint64_t sourceTime_ns = 0; ///< on the source's own time line: what it is paced and merged by
    std::uint64_t receiveTime_ns = 0;
    std::uint64_t exchangeTime_ns = 0;
    std::uint64_t venueSequence = 0;
    bool isImage = false;                    ///< `changes` are the whole book, perhaps an empty one
    std::vector<BookUpdate::Change> changes; ///< in the venue's order
    std::vector<Trade> trades;               ///< in the venue's order; after the changes

    bool HasBook() const noexcept { return isImage || !changes.empty(); }
    void Clear() noexcept
    {
        isImage = false;
        changes.clear();
        trades.clear();
    }
};

/// An instrument that a source has prices of.
struct SourceInstrument
{
    short marketId = -1;
    std::string market; ///< its name
    std::string symbol;
    PriceFormat format;
};

/// When the next message is due.
struct NextMessage
{
    std::uint64_t epoch;
    std::uint64_t sourceTime_ns;
};

/// Where an in-process provider's market data comes from: a replay or a simulation. Has no threads and no clock.
///
/// Threads: Check is the owner's; everything else is called by one thread.
class IMarketSource
{
public:
    virtual ~IMarketSource() = default;

    /// Throws std::runtime_error when there will never be data (a missing file). Quick.
    virtual void Check() {}

    /// The ids of the markets that it may have instruments of, known before Open.
    virtual std::vector<short> GetMarketIds() const = 0;

    /// Finds out which instruments there are; may take long, and returns early, with what it has, once `stop` is true.
    virtual void Open(const std::atomic<bool>& stop) = 0;

    /// Constant after Open.
    virtual const std::vector<SourceInstrument>& GetInstruments() const = 0;

    /// When the next message is due; nothing at the end.
    virtual std::optional<NextMessage> Peek() = 0;

    /// Some of the data was damaged and is missing; constant after Open.
    virtual bool IsDamaged() const { return false; }

    /// Puts the next message into `message`, whose vectors are used again; false at the end. The first message of an
    /// instrument in a new epoch is an image.
    virtual bool Next(MarketMessage& message) = 0;
};

} // namespace ps_ns
