#pragma once

#include "access.h"
#include "book_stream.h"
#include "composite_instrument/composite_instrument_id.h"
#include "gateway/backend.h"
#include "gateway/gateway_options.h"
#include "gateway/instrument_list.h"
#include "mailbox.h"
#include "rate_limit.h"
#include "subscriber.h"
#include "subscription_slots.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

namespace ps_ns::gateway
{

class ClientSession;

/// An instrument that a client has named; or why there is none.
struct FoundInstrument
{
    std::optional<ListedInstrument> instrument;
    std::string problem;
};

/// What the gateway counts, for its operators.
struct GatewayCounts
{
    std::atomic<std::uint64_t> connections{0}; ///< open now
    std::atomic<std::uint64_t> sessions{0};    ///< open now
    std::atomic<std::uint64_t> sessionsEver{0};
    std::atomic<std::uint64_t> requests{0};        ///< HTTP
    std::atomic<std::uint64_t> refusedRequests{0}; ///< HTTP, for being too many
    std::atomic<std::uint64_t> refusedTokens{0};
    std::atomic<std::uint64_t> tooSlow{0};    ///< sessions ended for it
    std::atomic<std::uint64_t> conflated{0};  ///< books, of sessions that have ended
    std::atomic<std::uint64_t> lostTrades{0}; ///< of sessions that have ended
    std::atomic<std::uint64_t> sentBytes{0};  ///< to sessions
};

/// What all sessions and requests of a gateway share.
///
/// Threads: the gateway's I/O thread, but for the counts.
class GatewayCore
{
public:
    /// `post` runs a task on the I/O thread.
    GatewayCore(GatewayOptions options, IBackend& backend, std::function<void(std::function<void()>)> post);
    ~GatewayCore();
    GatewayCore(const GatewayCore&) = delete;
    GatewayCore& operator=(const GatewayCore&) = delete;

    const GatewayOptions& GetOptions() const noexcept { return m_options; }
    const AccessControl& GetAccess() const noexcept { return m_access; }
    IBackend& GetBackend() noexcept { return m_backend; }
    GatewayCounts& Counts() noexcept { return m_counts; }

    /// The instruments, under the names that they have now; those that were added within the last second may be
    /// missing.
    const std::vector<ListedInstrument>& GetInstruments();
    /// What an instrument is called now; it may have been renamed since `entry` was read.
    std::string GetSymbolNow(const DirectoryEntry& entry);
    /// The names that a problem suggests are of markets that `rights` open.
    FoundInstrument FindInstrument(const std::string& name, const Rights& rights);
    /// Wrong names that are answered with near ones, a second: looking for them takes tens of milliseconds.
    static constexpr double kNearNamesPerSecond = 5;

    // --- Subscriptions. False: the server takes no requests just now. ---

    SubscriptionSlots& GetSlots() noexcept { return m_slots; }
    /// Where the prices of an instrument arrive, for all who subscribe it.
    std::shared_ptr<Mailbox> GetMailbox(const CompositeInstrumentDef& def);
    /// The instrument gets the symbol that it has when the request is made.
    bool Subscribe(CompositeInstrumentDef& def, const DirectoryEntry& entry, const CompositeSubscriptionInfo& scope,
                   const std::shared_ptr<Subscriber>& subscriber, unsigned long id);
    bool ChangeScope(const CompositeInstrumentDef& def, const CompositeSubscriptionInfo& scope,
                     const std::shared_ptr<Subscriber>& subscriber, unsigned long id, bool generateSnapshot);
    void Unsubscribe(const CompositeInstrumentDef& def, const std::shared_ptr<Subscriber>& subscriber,
                     unsigned long id);

    // --- Messages that sessions share ---

    std::shared_ptr<BookStream> GetStream(const std::string& instrument, std::int32_t depth);
    std::size_t GetStreamCount() const noexcept { return m_streams.size(); }
    SharedText GetTradesText(const std::string& instrument, const SharedTrades& trades);
    SharedText GetFieldsText(const std::string& instrument, const SharedFields& fields);

    // --- Sessions ---

    std::uint64_t MakeSessionNumber() noexcept { return ++m_lastSession; }
    void Enter(const std::shared_ptr<ClientSession>& session);
    void Leave(std::uint64_t number);
    std::vector<std::shared_ptr<ClientSession>> GetSessions() const;
    /// False: HTTP requests come faster than they may, all of them together.
    bool AdmitRequest() { return m_httpRequests.Take(RateLimit::Clock::now()); }
    void CountRefusedToken() noexcept { ++m_counts.refusedTokens; }
    /// Nothing is taken from the executors any more. Before what runs `post`'s tasks dies.
    void CloseMailboxes();

private:
    void Wake(std::shared_ptr<Mailbox> mailbox);
    void TakeMail();
    void Distribute(const Mailbox::Content& content);
    using EventIterator = std::vector<Mailbox::Event>::const_iterator;
    EventIterator FindRun(EventIterator event, EventIterator end, std::span<const unsigned long> receivers);
    void DistributeRun(std::span<const unsigned long> receivers);
    void AddToTurn(ClientSession& session);
    void ForgetDeadStreams();
    void ForgetDeadMailboxes();

    const GatewayOptions m_options;
    IBackend& m_backend;
    const std::function<void(std::function<void()>)> m_post;
    const AccessControl m_access;
    GatewayCounts m_counts;
    std::uint64_t m_lastSession = 0;

    std::chrono::steady_clock::time_point m_instrumentsRead{};
    std::optional<DirectoryVersion> m_instrumentsVersion; ///< none: never read
    std::vector<ListedInstrument> m_instruments;
    RateLimit m_httpRequests{static_cast<double>(m_options.limits.httpRequests_per_second), RateLimit::Clock::now()};
    RateLimit m_nearNames{kNearNamesPerSecond, RateLimit::Clock::now()};
    std::unordered_map<std::string, std::size_t> m_instrumentByName;
    std::unordered_map<std::string, std::size_t> m_instrumentByFirstSymbol; ///< behind its market's id

    static constexpr std::size_t kFirstStreamCount = 256;
    std::unordered_map<std::string, std::weak_ptr<BookStream>> m_streams;
    std::size_t m_nextStreamCount = kFirstStreamCount; ///< with so many, the dead ones go
    /// The texts of the newest trades and fields: what one executor brings reaches many sessions soon after another.
    struct TextCache
    {
        const void* key = nullptr;
        std::shared_ptr<const void> hold;
        SharedText text;
    };
    std::unordered_map<std::string, TextCache> m_trades;
    std::unordered_map<std::string, TextCache> m_fields;

    std::unordered_map<std::uint64_t, std::weak_ptr<ClientSession>> m_sessions;

    SubscriptionSlots m_slots;
    std::unordered_map<CompositeInstrumentID, std::weak_ptr<Mailbox>, CompositeInstrumentID::Hasher> m_mailboxes;
    std::size_t m_nextMailboxCount = kFirstStreamCount; ///< with so many, the dead ones go
    Mailbox::Content m_content;                         ///< of the mailbox that is being emptied
    BookRun m_run;                                      ///< that is being distributed
    std::vector<std::shared_ptr<ClientSession>> m_turn; ///< for whom something has come in this turn

    std::mutex m_mutex;
    std::vector<std::shared_ptr<Mailbox>> m_woken; ///< under m_mutex
};

} // namespace ps_ns::gateway
