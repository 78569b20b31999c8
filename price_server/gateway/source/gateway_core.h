#pragma once

#include "access.h"
#include "book_stream.h"
#include "gateway/backend.h"
#include "gateway/gateway_options.h"
#include "gateway/instrument_list.h"
#include "inbox.h"
#include "subscriber.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
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
    std::atomic<std::uint64_t> requests{0}; ///< HTTP
    std::atomic<std::uint64_t> refusedTokens{0};
    std::atomic<std::uint64_t> tooSlow{0};    ///< sessions ended for it
    std::atomic<std::uint64_t> conflated{0};  ///< books, of sessions that have ended
    std::atomic<std::uint64_t> lostTrades{0}; ///< of sessions that have ended
    std::atomic<std::uint64_t> sentBytes{0};  ///< to sessions
};

/// What all sessions and requests of a gateway share.
///
/// Threads: the gateway's I/O thread, but for Schedule, MakeSubscriptionId and the counts.
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

    /// The instruments as they were at most a second ago.
    const std::vector<ListedInstrument>& GetInstruments();
    /// What an instrument is called now; it may have been renamed since `entry` was read.
    std::string GetSymbolNow(const DirectoryEntry& entry);
    /// The names that a problem suggests are of markets that `rights` open.
    FoundInstrument FindInstrument(const std::string& name, const Rights& rights);

    // --- Subscriptions. False: the server takes no requests just now. ---

    unsigned long MakeSubscriptionId() noexcept { return m_nextSubscriptionId.fetch_add(1); }
    bool Subscribe(const CompositeInstrumentDef& def, const CompositeSubscriptionInfo& scope,
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
    void CountRefusedToken() noexcept { ++m_counts.refusedTokens; }
    /// Has the I/O thread call `pump` soon: one post serves all that are scheduled until then. From any thread.
    void Schedule(std::function<void()> pump);

private:
    const std::vector<ListedInstrument>& ReadInstruments(std::chrono::milliseconds oldest);
    void RunScheduled();
    void ForgetDeadStreams();

    const GatewayOptions m_options;
    IBackend& m_backend;
    const std::function<void(std::function<void()>)> m_post;
    const AccessControl m_access;
    GatewayCounts m_counts;
    /// Direct and flexible clients of an instrument share one space of ids: the low ones are the server's own.
    std::atomic<unsigned long> m_nextSubscriptionId{1UL << 32};
    std::uint64_t m_lastSession = 0;

    std::chrono::steady_clock::time_point m_instrumentsRead{};
    std::vector<ListedInstrument> m_instruments;
    std::unordered_map<std::string, std::size_t> m_instrumentByName;

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

    std::mutex m_mutex;
    std::vector<std::function<void()>> m_scheduled; ///< under m_mutex
};

} // namespace ps_ns::gateway
