#pragma once

#include "mds/instrument_feed.h"
#include "mds/text_hash.h"
#include "zel/wire_format.h"
#include "zel/zel_provider.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace ps_ns
{

/// What the provider knows of an instrument. Under the provider's lock, but for the feed, which has its own.
struct ZelInstrument
{
    enum class State : std::uint8_t
    {
        Idle,
        Awaiting,
        Live
    };

    ZelInstrument(ZelMarket& itsMarket, const WireInstrument& listed)
        : market(itsMarket)
        , asFirstListed(listed)
        , symbol(listed.symbol)
        , listedSymbol(listed.symbol)
        , index(listed.index)
        , feed(listed.format)
    {
    }

    ZelMarket& market;
    const WireInstrument asFirstListed;
    std::string symbol;       ///< its name here; empty: another has taken it
    std::string listedSymbol; ///< its name with the publisher; ours follows when the rename's step is made
    std::uint32_t shard = 0;  ///< with shards: the one that it is in
    std::uint32_t index;      ///< in the publisher's present directory; kNoIndex: not in it
    InstrumentFeed feed;
    State state = State::Idle;
    std::uint64_t sequence = 0;                    ///< live: of the last message
    std::uint64_t promised = 0;                    ///< what a heartbeat has told of this epoch
    ZelOptions::Clock::time_point promisedSince{}; ///< when that was more than we had
    ZelOptions::Clock::time_point askedAt{};       ///< awaiting: when last asked for; the epoch of the clock: never

    static constexpr std::uint32_t kNoIndex = 0xffffffff;
};

/// What the provider knows of a market and of its publisher. Under the provider's lock.
class ZelMarket
{
public:
    using TimePoint = ZelOptions::Clock::time_point;

    ZelMarket(short itsId, std::string itsName)
        : id(itsId)
        , name(std::move(itsName))
    {
    }

    ZelInstrument* FindBySymbol(std::string_view symbol) const
    {
        const auto found = bySymbol.find(symbol);
        return found == bySymbol.end() ? nullptr : found->second;
    }
    ZelInstrument* FindByIndex(std::uint32_t index) const { return index < byIndex.size() ? byIndex[index] : nullptr; }

    const short id;
    const std::string name;
    std::uint64_t epoch = 0;    ///< of the directory that is in use; 0: none is
    std::uint64_t revision = 0; ///< of the same
    bool isLost = true;         ///< nothing has been heard of its publisher lately
    bool wantsDirectory = true;
    TimePoint lastHeard{};
    TimePoint directoryAskedAt{};

    // A directory whose parts are coming in:
    std::uint64_t incomingEpoch = 0;
    std::uint64_t incomingRevision = 0;
    std::vector<std::optional<std::vector<WireInstrument>>> incoming;

    std::vector<std::unique_ptr<ZelInstrument>> instruments; ///< all that there ever were
    TextMap<ZelInstrument*> byFirstSymbol;
    TextMap<ZelInstrument*> bySymbol; ///< by the name here
    std::vector<ZelInstrument*> byIndex;
};

} // namespace ps_ns
