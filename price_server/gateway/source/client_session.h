#pragma once

#include "access.h"
#include "book_stream.h"
#include "composite_instrument/composite_instrument_def.h"
#include "composite_instrument/composite_subscription_info.h"
#include "gateway/protocol.h"
#include "inbox.h"
#include "outbound_queue.h"
#include "rate_limit.h"
#include "simple_subscription/instrument_directory.h"
#include "subscriber.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace ps_ns::gateway
{

class GatewayCore;

/// Why a session ends, with the WebSocket protocol's code for it.
struct SessionEnd
{
    std::uint16_t code;
    std::string reason;
};

/// What the list of sessions says of one.
struct SessionView
{
    std::uint64_t number = 0;
    std::string remote;
    std::string token;
    std::uint64_t since_ns = 0;
    std::size_t subscriptions = 0;
    std::size_t unsent_bytes = 0;
    std::uint64_t sent_bytes = 0;
    std::uint64_t sentMessages = 0;
    std::uint64_t conflated = 0;
    std::uint64_t lostTrades = 0;
    std::int64_t oldestUnsent_ms = 0; ///< how long the write under way has been under way
};

/// One client: what it has subscribed, and what it has still to be sent. Knows the protocol, not the sockets.
///
/// Threads: the gateway's I/O thread; its inbox takes from the executors.
/// Ownership: shared by its connection; the gateway keeps a weak reference. End must be called before it dies.
class ClientSession : public std::enable_shared_from_this<ClientSession>
{
public:
    using Clock = std::chrono::steady_clock;

    /// `identity` empty: a token is still to come. `wake` has the I/O thread call Pump; from any thread.
    ClientSession(GatewayCore& core, std::uint64_t number, std::string remote, std::optional<Identity> identity,
                  std::function<void()> wake);
    ~ClientSession();
    ClientSession(const ClientSession&) = delete;
    ClientSession& operator=(const ClientSession&) = delete;

    /// Queues the hello.
    void Start();
    /// One message of the client: one or more lines.
    void OnMessage(std::string_view message);
    /// Takes what has come in and queues what is to be sent.
    void Pump();
    /// Drops all subscriptions; nothing more is queued. Idempotent.
    void End();

    bool IsAuthenticated() const noexcept { return m_identity.has_value(); }
    /// Set once the session must end; the connection does it.
    const std::optional<SessionEnd>& GetEnd() const noexcept { return m_end; }

    // --- Writing: the connection takes a batch, writes it, and says when it is done ---

    bool HasOutput() const noexcept { return !m_out.IsEmpty(); }
    std::vector<SharedText> BeginWrite();
    void FinishWrite(std::size_t bytes);
    /// The client takes nothing just now: the books that it had, which nobody else needs any more, are let go where
    /// newer ones wait. It gets images when it wakes.
    void ForgetSent();
    /// How long the write under way has been under way; zero when there is none.
    Clock::duration GetWriteAge(Clock::time_point now) const;

    std::uint64_t GetNumber() const noexcept { return m_number; }
    SessionView GetView() const;

private:
    struct Subscription
    {
        unsigned long id = 0;
        std::string request;
        CompositeInstrumentDef def;
        DirectoryEntry entry;            ///< what the client has last heard of its instrument
        CompositeSubscriptionInfo scope; ///< with a literal depth
        Kinds kinds;
        std::shared_ptr<BookStream> stream;
        std::shared_ptr<Subscriber> subscriber;
        SharedBook latest;          ///< whatever the client wants or has been sent
        SharedBook sent;            ///< the client's state; null: it needs an image
        SharedBook waiting;         ///< the latest of those that conflate
        SharedFields waitingFields; ///< the latest of those that conflate
        bool isWaiting = false;     ///< it is in m_waiting
        std::uint64_t skipped = 0;  ///< books left out since the one that was sent last
        std::uint64_t lostTrades = 0;
    };

    void HandleLine(std::string_view line);
    void Handle(const SubscribeRequest& request);
    void Handle(const ChangeRequest& request);
    void Handle(const UnsubscribeRequest& request);
    void Handle(const PingRequest& request);
    void Handle(const AuthenticateRequest& request);
    void Handle(const RequestError& error);
    void Refuse(const std::string& request, const char* code, const char* where, std::string message);
    Subscription* FindByRequest(const std::string& request);
    bool HasStream(const std::string& instrument, std::int32_t depth, const Subscription* except) const;
    std::int32_t ResolveDepth(short marketId, std::int32_t depth) const;

    void OnBook(Subscription& subscription, SharedBook book);
    void SendBook(Subscription& subscription, SharedBook book);
    void TellRename(Subscription& subscription, std::uint64_t epoch);
    void OnTrades(Subscription& subscription, const SharedTrades& trades);
    void OnFields(Subscription& subscription, const SharedFields& fields);
    void Wait(Subscription& subscription);
    void SendWaiting();
    void EndWith(std::uint16_t code, std::string reason);

    GatewayCore& m_core;
    const std::uint64_t m_number;
    const std::string m_remote;
    const std::uint64_t m_since_ns;
    std::optional<Identity> m_identity;
    const std::shared_ptr<Inbox> m_inbox;
    OutboundQueue m_out;
    RateLimit m_rate;
    std::unordered_map<unsigned long, Subscription> m_subscriptions;
    std::unordered_map<std::string, unsigned long> m_idByRequest;
    std::deque<unsigned long> m_waiting; ///< subscriptions with something that waits, or gone; the oldest first
    std::optional<SessionEnd> m_end;
    bool m_hasEnded = false;
    Clock::time_point m_writeBegan{};
    bool m_isWriting = false;
    std::uint64_t m_sentBytes = 0;
    std::uint64_t m_sentMessages = 0;
    std::uint64_t m_conflated = 0;
    std::uint64_t m_lostTrades = 0;
};

} // namespace ps_ns::gateway
