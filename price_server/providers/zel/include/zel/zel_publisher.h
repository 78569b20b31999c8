#pragma once

#include "mds/level_book.h"
#include "mds/market_source.h"
#include "mds/symbol_rename.h"
#include "mds/text_hash.h"
#include "zel/i_provider_transport.h"
#include "zel/wire_format.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <limits>
#include <map>
#include <mutex>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace ps_ns
{

struct ZelPublisherOptions
{
    using Clock = std::chrono::steady_clock;

    static constexpr std::size_t kUsualAnswerBytes = 256 * 1024;
    static constexpr std::int64_t kUsualLastValueBytes = 4'000'000;

    std::chrono::milliseconds heartbeat{200}; ///< providers take a market for lost after 700 ms of silence
    /// Of images and directories, in one Tick; the rest waits for the next: questions do not hold up updates.
    std::size_t mostAnswerBytes = kUsualAnswerBytes;

    /// Directories and images are put with the broker as last values, for the time after this publisher.
    bool keepsLastValues = true;
    std::chrono::milliseconds lastValueRound{2000}; ///< so long after a change the image is put there, at the soonest
    std::chrono::milliseconds lastValueRefresh{30000}; ///< and without one: a broker may have lost what it kept
    std::int64_t lastValueBytes_perSecond = kUsualLastValueBytes; ///< no more: what is left waits

    std::function<Clock::time_point()> now = [] { return Clock::now(); };
    std::function<std::uint64_t()> wallTime_ns = [] // since 1970 UTC: where epochs come from
    {
        return static_cast<std::uint64_t>(
            std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch())
                .count());
    };
};

/// What a publisher has done since the start.
struct ZelPublisherCounts
{
    std::uint64_t messages = 0; ///< updates and trades that went to the broker
    std::uint64_t bytes = 0;    ///< of all that went to the broker
    std::uint64_t images = 0;   ///< that were asked for, or made up for what an outage may have lost
    std::uint64_t kept = 0;     ///< images put with the broker as last values
    std::uint64_t requests = 0; ///< that came in
    std::uint64_t dropped = 0;  ///< requests that there was no room for: who has not been heard asks again
    std::uint64_t unsent = 0;   ///< updates and trades while there was no connection: images make up for them
    std::uint64_t connections = 0;
};

/// Publishes markets by way of a message broker: their directories, every change, and images for who asks. Keeps the
/// book of each instrument, so that an image is at hand whenever somebody wants one.
///
/// Epochs: the first connection begins an epoch with the directories; whoever follows asks for images then. Within an
/// epoch each instrument's updates and trades are numbered without a gap; an image that was asked for bears the number
/// of the last of them. An instrument without a book yet has an empty image.
///
/// Reconnects: the epoch goes on. What an outage has swallowed must not show as a gap, so the first message of every
/// instrument is an image then; those that moved shortly before the outage, or in it, get theirs at once, the others
/// when they move. The directories are sent anew, for servers whose connections broke as well.
///
/// Questions: what is owed is a set. However often an image or a directory is asked for before it goes out, it goes out
/// once; and in one Tick no more than mostAnswerBytes go out (but at least one message).
///
/// Last values: what goes out as an image anyway is put with the broker too; and the image of what has changed since,
/// and now and then of everything, within lastValueBytes_perSecond and only when nothing is owed. So what a publisher
/// leaves when it is killed is some lastValueRound old, or older where there is more than that lets through.
/// Directories go first. Nothing is kept for a broker that keeps nothing.
///
/// Several publishers may serve different markets by way of one broker. Of two that serve the same market, providers
/// follow the one whose epoch is newer.
///
/// Threads: one thread calls everything but Wait's waker and GetCounts; the transport's threads only leave requests.
///
/// Ownership: the transport is not owned, and is stopped before this goes.
class ZelPublisher final : private ITransportListener
{
public:
    ZelPublisher(IProviderTransport& transport, ZelPublisherOptions options = {});
    ZelPublisher(const ZelPublisher&) = delete;
    ZelPublisher& operator=(const ZelPublisher&) = delete;

    /// Takes in all instruments, by number, and connects. Once.
    void Start(const std::vector<SourceInstrument>& instruments);

    /// Applies a message to its instrument's book, and sends it when there is a connection. The first message of an
    /// instrument in a new epoch of the source must be an image, as IMarketSource has it.
    void Publish(const MarketMessage& message);

    /// Renames at one moment. Unknown old symbols are passed over; market -1: on every market that has the symbol.
    /// Returns the renames that were made.
    std::vector<SymbolRename> Rename(std::span<const SymbolRename> renames);

    /// Begins or resumes the epoch when there is a new connection, takes in requests, sends some of what is owed, and
    /// heartbeats when they are due. To be called at least every few milliseconds; returns how many requests were taken
    /// in.
    std::size_t Tick();

    /// Puts all that has changed with the broker, as much as it takes: for the end.
    void SaveLastValues();

    /// Images and parts of directories that are still owed.
    std::size_t GetOwed() const noexcept;

    /// Waits until then, or until a request or a change of the connection is there, or something is owed.
    void WaitForWork(ZelPublisherOptions::Clock::time_point until);

    /// The present book of an instrument, and the number of its last message.
    const LevelBook& GetBook(InstrumentIndex instrument) const { return m_instruments.at(instrument).book; }
    std::uint64_t GetSequence(InstrumentIndex instrument) const { return m_instruments.at(instrument).sequence; }
    const std::string& GetSymbol(InstrumentIndex instrument) const { return m_instruments.at(instrument).symbol; }
    std::uint64_t GetEpoch() const noexcept { return m_epoch; }
    bool IsConnected() const { return m_transport.IsConnected(); }
    /// From any thread.
    ZelPublisherCounts GetCounts() const;

private:
    using TimePoint = ZelPublisherOptions::Clock::time_point;

    struct Instrument
    {
        std::size_t market = 0;
        std::uint32_t index = 0; ///< within the market
        std::string firstSymbol;
        std::string symbol;
        PriceFormat format;
        LevelBook book;
        std::uint64_t sequence = 0;
        std::uint64_t exchangeTime_ns = 0; ///< of the last book message, as the next two
        std::uint64_t receiveTime_ns = 0;
        std::uint64_t venueSequence = 0;
        bool hasBook = false;
        bool hasMoved = false;     ///< since the last heartbeat
        bool isOwed = false;       ///< its image is
        bool mayHaveLost = false;  ///< messages, since its last image: the next message is one
        std::uint64_t movedAt = 0; ///< the number of the heartbeat before its last message
        bool wasTooLarge = false;  ///< for the broker, which the log has said
        bool isToBeKept = false;   ///< is in m_toKeep
        TimePoint keptAt{};        ///< its image, as a last value
        std::uint64_t keptEpoch = 0;
        std::uint64_t keptSequence = 0;
    };
    struct Market
    {
        std::string name;
        short id = -1;
        std::uint64_t revision = 1;
        std::vector<InstrumentIndex> instruments;
        TextMap<InstrumentIndex> bySymbol;
        std::deque<InstrumentIndex> moved; ///< since the last heartbeat, as far as one has told of it
        std::vector<std::size_t> parts;    ///< of the directory that is being sent: each one's first instrument
        std::size_t nextPart = 0;          ///< at the end: none is owed
        bool isOwedAgain = false;          ///< asked for while it was being sent
        bool wasTooLarge = false;          ///< a message of its control channel

        std::vector<std::size_t> keptParts; ///< as `parts`, for the last values; empty: not cut in this epoch
        std::size_t nextKeptPart = 0;
        std::uint64_t keptRevision = 0;
        TimePoint keptAt{};
    };
    /// What the transport's threads have left.
    struct Inbox
    {
        std::vector<std::pair<std::string, std::vector<std::byte>>> requests; ///< market, bytes
        std::size_t bytes = 0;                                                ///< of them
        bool hasLost = false;                                                 ///< a connection
        bool hasNewState = false;                                             ///< there is a new one
    };

    void OnTransportMessage(const TransportAddress& from, std::span<const std::byte> payload) override;
    void OnTransportState(bool isConnected) override;

    void TakeState(const Inbox& inbox);
    void BeginEpoch();
    void Resume();
    void Note(Market& market, WireBytes request);
    void NoteDirectory(Market& market);
    void PayOwed();
    void CutDirectory(Market& market) const;
    std::vector<std::size_t> CutIntoParts(const Market& market) const;
    void WritePart(const Market& market, const std::vector<std::size_t>& parts, std::size_t part);
    void WriteImage(const Instrument& instrument);
    void SendNextPart(Market& market);
    bool SendImage(Instrument& instrument);
    bool SendBook(Instrument& instrument, const MarketMessage& message);
    bool SendTrades(Instrument& instrument, const MarketMessage& message);
    void Owe(InstrumentIndex number);
    void SendHeartbeat(Market& market);
    bool Send(const TransportAddress& to, bool& wasTooLarge);
    bool SendControl(Market& market);
    bool SendPrices(Instrument& instrument);
    void NoteMoved(InstrumentIndex number);

    void NoteToKeep(InstrumentIndex number, std::chrono::milliseconds wait);
    void KeepAllAnew();
    void KeepSome(TimePoint now);
    bool KeepDirectory(Market& market, TimePoint now);
    bool KeepChanged(TimePoint now);
    bool KeepUnchanged(TimePoint now);
    bool KeepImage(Instrument& instrument, TimePoint now);
    bool KeepWritten(Instrument& instrument, TimePoint now);
    void KeepAsItGoesOut(Instrument& instrument);
    bool Keep(const TransportAddress& to, bool& wasTooLarge);

    IProviderTransport& m_transport;
    const ZelPublisherOptions m_options;
    std::vector<Instrument> m_instruments;
    std::vector<Market> m_markets;
    std::map<std::string, std::size_t, std::less<>> m_marketByName;
    std::uint64_t m_epoch = 0;
    TimePoint m_nextHeartbeat{};
    std::uint64_t m_heartbeats = 0;
    /// How many there had been when the connection broke; this: it has not.
    std::uint64_t m_lostAt = std::numeric_limits<std::uint64_t>::max();
    std::deque<std::pair<InstrumentIndex, TimePoint>> m_toKeep; ///< images for the last values, and not before then
    std::size_t m_nextRefreshed = 0;
    std::int64_t m_keepCredit = 0; ///< bytes that may be put with the broker now
    TimePoint m_creditAt{};
    TimePoint m_notKeptBefore{};        ///< the broker keeps nothing just now
    std::deque<InstrumentIndex> m_owed; ///< images, the oldest question first
    MarketMessage m_image;              ///< filled again and again, as the next one
    WireBuffer m_buffer;

    mutable std::mutex m_mutex;
    std::condition_variable m_hasWork;
    Inbox m_inbox;               ///< under m_mutex
    ZelPublisherCounts m_counts; ///< under m_mutex
};

} // namespace ps_ns
