#pragma once

#include "mds/instrument_feed.h"
#include "mds/text_hash.h"
#include "simple_subscription/instrument_directory.h"
#include "zel/wire_format.h"
#include "zel/zel_provider.h"
#include "zel_arrears.h"
#include "zel_back_off.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
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
    std::uint64_t sequence = 0; ///< live: of the last message
    ZelArrears arrears;         ///< of this epoch
    bool isBehind = false;      ///< is in the provider's list of those that may be in arrears
    ZelBackOff asking;          ///< awaiting: for the image

    std::uint64_t bookEpoch = 0;    ///< the publisher's, of the last book message taken in, whether live or kept
    std::uint64_t bookSequence = 0; ///< of the same
    bool wantsLastValue = true;     ///< awaiting: the broker has not said yet what it keeps
    ZelBackOff askingForLast;       ///< awaiting: for that

    static constexpr std::uint32_t kNoIndex = 0xffffffff;
};

/// A directory whose parts are coming in.
struct ZelIncoming
{
    /// Begins anew when the part is of another directory.
    void Expect(std::uint64_t itsEpoch, std::uint64_t itsRevision, std::size_t count)
    {
        if (epoch != itsEpoch || revision != itsRevision || parts.size() != count)
        {
            epoch = itsEpoch;
            revision = itsRevision;
            parts.assign(count, std::nullopt);
        }
    }
    bool IsComplete() const
    {
        return std::all_of(parts.begin(), parts.end(), [](const auto& instruments) { return instruments.has_value(); });
    }

    std::uint64_t epoch = 0;
    std::uint64_t revision = 0;
    std::vector<std::optional<std::vector<WireInstrument>>> parts;
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
    /// What the broker keeps is asked for when the publisher is not heard.
    void WantLastValues()
    {
        hasLastValues = false;
        wantsLastDirectory = true;
        askingForLastDirectory.Reset();
        kept = {};
    }
    ZelInstrument* FindByIndex(std::uint32_t index) const { return index < byIndex.size() ? byIndex[index] : nullptr; }

    const short id;
    const std::string name;
    std::uint64_t epoch = 0;      ///< of the directory that is in use; 0: none is
    std::uint64_t revision = 0;   ///< of the same
    std::uint64_t shownEpoch = 0; ///< what listeners see: grows with every change of the epoch, whatever that does
    bool isLost = true;           ///< nothing has been heard of its publisher lately
    bool wantsDirectory = true;
    TimePoint lastHeard{};
    std::optional<TimePoint> lostAt{}; ///< until all of its instruments are live again
    std::size_t awaited = 0;           ///< instruments in that state
    ZelBackOff askingForDirectory;

    ZelIncoming incoming;      ///< from the publisher
    TimePoint incomingSince{}; ///< when the last part of that came

    ZelIncoming kept;               ///< the same from the broker's last values
    bool hasLastValues = false;     ///< since the feed was lost the broker has answered: it keeps some
    bool wantsLastDirectory = true; ///< since the feed was lost it has not told of all parts
    ZelBackOff askingForLastDirectory;

    std::vector<std::unique_ptr<ZelInstrument>> instruments; ///< all that there ever were
    TextMap<ZelInstrument*> byFirstSymbol;
    TextMap<ZelInstrument*> bySymbol; ///< by the name here
    std::vector<ZelInstrument*> byIndex;

    std::uint64_t refusedUnsaid = 0; ///< messages and entries since the last record in the log
    std::optional<TimePoint> refusalLoggedAt{};
};

/// As the provider's own directory has it.
inline DirectoryEntry MakeEntry(const ZelMarket& market, const WireInstrument& listed)
{
    DirectoryEntry entry;
    entry.submarket.marketId = market.id;
    entry.symbol = listed.symbol;
    entry.exchange = listed.exchange.empty() ? market.name : listed.exchange;
    entry.description = listed.description;
    entry.format = listed.format;
    entry.firstSymbol = listed.firstSymbol;
    return entry;
}

/// A directory of more parts makes no sense.
inline constexpr std::uint32_t kMostDirectoryParts = 10'000;
/// Why most messages are refused.
inline constexpr const char* kUnreadable = "a message cannot be read: it is damaged, or of another version";

} // namespace ps_ns
