#pragma once

#include "base/thread_annotations.h"
#include "mds/market_source.h"
#include "mds/symbol_rename.h"
#include "mds/update_pools.h"
#include "simple_subscription/i_price_provider.h"
#include "zel/i_provider_transport.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

namespace ps_ns
{

class ZelMarket;
struct ZelIncoming;
struct ZelInstrument;
struct WireInstrument;

/// A market that the provider may get prices of.
struct ZelMarketName
{
    short id = -1;
    std::string name; ///< what its publisher calls it
};

struct ZelOptions
{
    static constexpr std::size_t kUsualUpdatesInFlight = 16'384;

    using Clock = std::chrono::steady_clock;

    std::vector<ZelMarketName> markets;
    /// Of the broker's mapping, those that this server serves; empty: all instruments, from a broker that maps none.
    std::vector<unsigned> shards;
    /// More than 0: so many are there in the broker's mapping, and this server serves those that ServeShard has named.
    std::uint32_t shardCount = 0;
    /// With shardCount: another server serves the shard; subscribes of its instruments fail then. Called under the
    /// provider's lock. Empty: never.
    std::function<bool(std::uint32_t shard)> isServedElsewhere;
    /// Updates that somebody still holds; at the limit messages wait with the transport.
    std::size_t updatesInFlight = kUsualUpdatesInFlight;
    std::chrono::milliseconds longestSilence{700};   ///< of a publisher, before its market counts as lost
    std::chrono::milliseconds askAgain{200};         ///< when an image or a directory has not come; doubles each time
    std::chrono::milliseconds longestAskPause{2000}; ///< up to this
    std::chrono::milliseconds longestArrears{1000};  ///< behind what a heartbeat has told, before an image is asked for
    /// Nothing has been heard of a market's publisher for so long, in which there was a connection: the broker is asked
    /// for the last values. Longer than the time between two heartbeats.
    std::chrono::milliseconds lastValuesAfter{300};

    /// As MdsOptions::renameStep; called on the provider's thread for renames. Empty: renames are made at once.
    std::function<void(const std::vector<SymbolRename>& renames, const std::function<void()>& make)> renameStep;

    bool isHandDriven = false; ///< no thread: whoever owns the provider calls Tick
    std::function<Clock::time_point()> now = [] { return Clock::now(); };
};

/// What a feed has done since the start. Numbers only grow, but for `followed`, `live` and `marketsLost`.
struct ZelCounts
{
    std::uint64_t messages = 0; ///< price messages of followed instruments
    std::uint64_t refused = 0;  ///< messages that could not be read, and entries of directories that make no sense
    std::uint64_t gaps = 0;     ///< instruments' sequences that were broken
    std::uint64_t losses = 0;   ///< times that a market's feed was lost
    std::uint64_t imagesAsked = 0;
    std::uint64_t images = 0;     ///< taken in
    std::uint64_t lastValues = 0; ///< taken in: images that the broker had kept
    std::uint64_t renames = 0;
    std::uint64_t followed = 0;    ///< instruments that are kept up to date now
    std::uint64_t live = 0;        ///< of those: with a book that is known to be good
    std::uint64_t marketsLost = 0; ///< markets that have been there, and whose feed is lost now
};

/// What a feed is doing, in one word.
enum class ZelState : std::uint8_t
{
    Starting, ///< no market's directory has come yet
    Running,  ///< every market that has been there is heard
    Lost      ///< there is no connection, or a market that has been there is not heard
};

/// The network price provider: directories, images, updates and trades from publishers by way of a message broker.
///
/// An instrument is kept up to date from the first subscribe on:
///
/// | state | messages of it | left by |
/// |---|---|---|
/// | idle | passed over | a subscribe: awaiting |
/// | awaiting | passed over, but for an image; it is asked for again until it comes | an image: live; nobody listens and the feed is lost: idle |
/// | live | applied in their order | a gap in the sequence, arrears, a new epoch, a lost feed: awaiting |
///
/// An image replaces the book, and never adds to it. From the moment that an instrument leaves "live" its listeners are
/// told that it is stale, and they are told that it is fresh right before the image (IComponentListener::OnStale). A
/// feed is lost when the connection to the broker is, or when its publisher has been silent for longestSilence.
///
/// Of several publishers of a market, and of several lives of one, the largest epoch is followed. A smaller one counts
/// when the market is lost, and nothing has been heard of the larger for longestSilence in which there was a
/// connection: a publisher whose clock is behind its predecessor's, or a second one that has outlived the first. Should
/// the larger be heard again, it is followed again.
///
/// While a market's publisher is not heard, the broker's last values stand in, if it keeps any: the directory, when it
/// is newer than the one in use; and once for each instrument that is awaited the image, when it is newer than the
/// book, and no newer than the directory. Such a book is stale (BookUpdate::isStale), as is the one that is there
/// already, which is shown again instead of an older one. What makes a book fresh is an image of the living publisher,
/// and nothing else: the state stays "awaiting". No shard is asked about that is not served here.
///
/// What makes no sense is refused, and nothing else is lost with it: a message, or one entry of a directory. The log
/// says so once for each market, and then at most once a minute.
///
/// Directory: comes from the publishers, market by market. Until a market's has come, subscribes of it are held and
/// answered Pending; those of symbols that are then not in it hear DirectSubscriptionFailed. Renames are told by the
/// publisher, or found by comparing directories after an outage. An instrument that a later directory does not have
/// stays listed, and gets no prices.
///
/// Threads: Start, Stop and the destructor are the owner's. Subscribe, ChangeScope, Unsubscribe and the queries may be
/// called from any thread. Listeners are called on the transport's threads and from within Subscribe and Unsubscribe.
/// One thread of its own asks for images and notices silence; another makes renames, which may wait for executors and
/// for the queue. Locks are taken in the order provider, instrument, pool or directory.
///
/// Shards: with ZelOptions::shardCount every instrument is listed, and those of the shards that are served here can be
/// had. A subscribe of an instrument that another server serves fails; one that nobody serves just now is taken, and is
/// stale until its shard is served here.
///
/// Scopes: as MdsProvider.
class ZelProvider final : public IPriceProvider, private ITransportListener
{
public:
    /// `transport` is not connected yet, and is used by nobody else.
    ZelProvider(std::unique_ptr<IProviderTransport> transport, ZelOptions options);
    /// Stops.
    ~ZelProvider() override;
    ZelProvider(const ZelProvider&) = delete;
    ZelProvider& operator=(const ZelProvider&) = delete;

    ProviderType::Value GetType() const override { return ProviderType::Zel; }
    const InstrumentDirectory& GetDirectory() const override { return m_directory; }
    /// A broker that is not there is waited for; throws only when the broker's address is none.
    void Start() override;
    void Stop() override;
    int Subscribe(const ComponentRequest& request, const std::shared_ptr<IComponentListener>& listener) override;
    void ChangeScope(const std::shared_ptr<IComponentListener>& listener,
                     const CompositeSubscriptionInfo& scope) override;
    /// Answers true, also after Stop.
    void Unsubscribe(const std::shared_ptr<IComponentListener>& listener) override;

    /// With ZelOptions::shardCount: instruments of the shard are served from now on; those that somebody has subscribed
    /// get their images.
    void ServeShard(std::uint32_t shard);
    /// They are served no more: who has subscribed them stays, and is told that they are stale. Any thread, as above.
    void LeaveShard(std::uint32_t shard);

    /// Does what is due: asks, notices silence, makes renames. For the owner of a hand-driven provider.
    void Tick();

    ZelCounts GetCounts() const;
    ZelState GetState() const;
    /// Instruments that heartbeats are ahead of, as far as they have not been found to have caught up.
    std::size_t GetBehindCount() const;
    bool IsConnected() const { return m_transport->IsConnected(); }
    /// For people: the broker, and what is wrong with it.
    std::string Describe() const { return m_transport->Describe(); }
    /// Updates that somebody holds now.
    std::size_t GetInFlight() const { return m_pools.budget->GetInFlight(); }

private:
    using TimePoint = ZelOptions::Clock::time_point;

    struct Subscription
    {
        std::shared_ptr<IComponentListener> listener;
        ZelInstrument* instrument = nullptr; ///< null: waits for the directory, or its name has gone to another
        ZelMarket* awaitedIn = nullptr;      ///< waits for this market's directory
        std::string symbol;
        bool wantsTrades = false;
    };
    /// A request that is ready to be sent.
    struct Question;
    struct LastValueQuestion;

    void OnTransportMessage(const TransportAddress& from, std::span<const std::byte> payload) override;
    void OnTransportState(bool isConnected) override;
    void OnTransportLoss() override;

    ZelMarket* FindMarket(std::string_view name) const;
    ZelMarket* FindMarket(short id) const;
    void OnPrices(ZelMarket& market, std::span<const std::byte> payload);
    void OnBook(ZelInstrument& instrument, std::uint64_t sequence, std::span<const std::byte> payload)
        PS_REQUIRES(m_role);
    void OnTrades(ZelInstrument& instrument, std::uint64_t sequence, std::span<const std::byte> payload)
        PS_REQUIRES(m_role);
    void OnControl(ZelMarket& market, std::span<const std::byte> payload);
    void OnHeartbeat(ZelMarket& market, std::uint64_t epoch, std::uint64_t revision, std::span<const std::byte> payload)
        PS_REQUIRES(m_role);
    void OnDirectory(ZelMarket& market, std::uint32_t part, std::uint64_t epoch, std::uint64_t revision,
                     std::span<const std::byte> payload) PS_REQUIRES(m_role);
    void OnRename(ZelMarket& market, std::uint64_t epoch, std::uint64_t revision, std::span<const std::byte> payload)
        PS_REQUIRES(m_role);
    void AdoptDirectory(ZelMarket& market, ZelIncoming incoming) PS_REQUIRES(m_role);
    void InheritNames(ZelMarket& market, std::vector<DirectoryEntry>& added) PS_REQUIRES(m_role);
    void OnLastValue(ZelMarket& market, const TransportAddress& of, std::span<const std::byte> payload);
    void OnLastDirectory(ZelMarket& market, std::uint32_t part, std::span<const std::byte> payload) PS_REQUIRES(m_role);
    bool TakeLastImage(ZelInstrument& instrument, std::span<const std::byte> payload) PS_REQUIRES(m_role);
    bool IsUnheard(const ZelMarket& market, TimePoint now) const PS_REQUIRES(m_role);
    void AnswerWaiting(ZelMarket& market) PS_REQUIRES(m_role);
    bool IsHeard(ZelMarket& market, std::uint64_t epoch) PS_REQUIRES(m_role);
    bool MayGoBack(const ZelMarket& market) const PS_REQUIRES(m_role);
    void WantDirectory(ZelMarket& market) PS_REQUIRES(m_role);
    void RefuseNonsense(ZelMarket& market, std::vector<WireInstrument>& instruments) PS_REQUIRES(m_role);

    void NoteBehind(ZelInstrument& instrument) PS_REQUIRES(m_role);

    bool IsServed(const ZelInstrument& instrument) const PS_REQUIRES(m_role);
    bool IsServedElsewhere(const ZelInstrument& instrument) const PS_REQUIRES(m_role);
    void Follow(ZelInstrument& instrument) PS_REQUIRES(m_role);
    void Await(ZelInstrument& instrument) PS_REQUIRES(m_role);
    void Lose(ZelMarket& market, const char* why) PS_REQUIRES(m_role);
    void LoseAll(const char* why);
    void NoteRecovered(ZelMarket& market) PS_REQUIRES(m_role);
    void NoteRefused(ZelMarket& market, const std::string& why) PS_REQUIRES(m_role);

    void Run();
    void RunRenames();
    void CheckSilence(TimePoint now) PS_REQUIRES(m_role);
    void CheckArrears(TimePoint now) PS_REQUIRES(m_role);
    std::vector<Question> CollectQuestions(TimePoint now) PS_REQUIRES(m_role);
    std::vector<LastValueQuestion> CollectLastValueQuestions(TimePoint now) PS_REQUIRES(m_role);
    void AddDirectoryQuestions(ZelMarket& market, TimePoint now, std::vector<LastValueQuestion>& questions) const
        PS_REQUIRES(m_role);
    void MakeRenames();
    void Rename(const std::vector<SymbolRename>& renames);
    void NameTheNameless(ZelMarket& market) PS_REQUIRES(m_role);
    void Detach(ZelInstrument& instrument) PS_REQUIRES(m_role);
    void Wake();
    void AddRenames(std::vector<SymbolRename> step) PS_REQUIRES(m_role);

    const ZelOptions m_options;
    const std::unique_ptr<IProviderTransport> m_transport;
    InstrumentDirectory m_directory;
    UpdatePools m_pools;
    std::vector<std::unique_ptr<ZelMarket>> m_markets;    ///< constant; what is inside: under m_mutex
    std::unordered_map<std::string, ZelMarket*> m_byName; ///< constant

    mutable std::mutex m_mutex;
    mutable Role m_role; ///< of m_mutex
    std::unordered_map<const IComponentListener*, Subscription> m_subscriptions PS_GUARDED_BY(m_role);
    std::vector<bool> m_served PS_GUARDED_BY(m_role);             ///< by shard; empty: all instruments are served
    std::vector<ZelInstrument*> m_awaiting PS_GUARDED_BY(m_role); ///< some may have left that state
    std::vector<ZelInstrument*> m_behind PS_GUARDED_BY(m_role);   ///< some may have caught up
    TimePoint m_connectedSince PS_GUARDED_BY(m_role){};
    TimePoint m_lastImagesAskedAt PS_GUARDED_BY(m_role){};                  ///< of the broker's last values
    std::vector<std::vector<SymbolRename>> m_renames PS_GUARDED_BY(m_role); ///< steps still to be made
    MarketMessage m_message PS_GUARDED_BY(m_role);                          ///< filled again and again
    ZelCounts m_counts PS_GUARDED_BY(m_role);
    bool m_isClosed PS_GUARDED_BY(m_role) = false;

    std::mutex m_wakeMutex;
    std::condition_variable m_wake;
    std::condition_variable m_renamesWake;
    bool m_isWoken = false;      ///< under m_wakeMutex
    bool m_hasRenames = false;   ///< under m_wakeMutex
    bool m_isStopping = false;   ///< under m_wakeMutex
    std::thread m_thread;        ///< the owner's
    std::thread m_renamesThread; ///< the owner's
};

} // namespace ps_ns
