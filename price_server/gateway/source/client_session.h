#pragma once

#include "access.h"
#include "gateway/protocol.h"
#include "outbound_queue.h"
#include "rate_limit.h"
#include "session_subscription.h"

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
/// Threads: the gateway's I/O thread.
/// Ownership: shared by its connection; the gateway keeps a weak reference. End must be called before it dies.
class ClientSession : public std::enable_shared_from_this<ClientSession>
{
public:
    using Clock = std::chrono::steady_clock;

    /// `identity` empty: a token is still to come. `onOutput` is called at the end of a turn that may have brought
    /// something to write.
    ClientSession(GatewayCore& core, std::uint64_t number, std::string remote, std::optional<Identity> identity,
                  std::function<void()> onOutput);
    ~ClientSession();
    ClientSession(const ClientSession&) = delete;
    ClientSession& operator=(const ClientSession&) = delete;

    /// Queues the hello.
    void Start();
    /// One message of the client: one or more lines.
    void OnMessage(std::string_view message);
    /// Something that is no book has come for one of its subscriptions; what was left out; books.
    void Take(SessionSubscription& subscription, const Mailbox::What& what);
    void Take(SessionSubscription& subscription, const Mailbox::Overflow& overflow);
    void Take(SessionSubscription& subscription, const BookRun& run);
    /// A message as it is.
    void TakeText(std::string_view text);
    /// True the first time since the last FinishTurn.
    bool EnterTurn() noexcept { return !std::exchange(m_isInTurn, true); }
    /// Everything that has come by now has been taken.
    void FinishTurn();
    /// Drops all subscriptions; nothing more is queued. Idempotent.
    void End();

    bool IsAuthenticated() const noexcept { return m_identity.has_value(); }
    /// Set once the session must end; the connection does it.
    const std::optional<SessionEnd>& GetEnd() const noexcept { return m_end; }

    // --- Writing: the connection takes a batch, writes it, and says when it is done ---

    bool HasOutput() const noexcept { return !m_out.IsEmpty(); }
    /// Lines for one message.
    OutboundBatch BeginWrite();
    /// They have been written.
    void FinishWrite(OutboundBatch batch);
    /// The client takes nothing just now: the books that it had, which nobody else needs any more, are let go where
    /// newer ones wait. It gets images when it wakes.
    void ForgetSent();
    /// How long the write under way has been under way; zero when there is none.
    Clock::duration GetWriteAge(Clock::time_point now) const;

    std::uint64_t GetNumber() const noexcept { return m_number; }
    SessionView GetView() const;

private:
    using Subscription = SessionSubscription;

    void HandleLine(std::string_view line);
    void Handle(const SubscribeRequest& request);
    void Handle(const ChangeRequest& request);
    void Handle(const UnsubscribeRequest& request);
    void Handle(const PingRequest& request);
    void Handle(const AuthenticateRequest& request);
    void Handle(const RequestError& error);
    void Refuse(const std::string& request, const char* code, const char* where, std::string message);
    Subscription* FindByRequest(const std::string& request);
    const Subscription* FindStream(const std::string& instrument, std::int32_t depth, const Subscription* except) const;
    void RefuseDuplicate(const std::string& request, const Subscription& other);
    std::int32_t ResolveDepth(short marketId, std::int32_t depth) const;

    bool TakesAtOnce(const Subscription& subscription, const BookRun& run) const;
    void OnBook(Subscription& subscription, SharedBook book);
    void SendBook(Subscription& subscription, SharedBook book);
    void TellRename(Subscription& subscription, std::uint64_t epoch);
    void OnTrades(Subscription& subscription, const SharedTrades& trades);
    void OnFields(Subscription& subscription, const SharedFields& fields);
    void Wait(Subscription& subscription);
    void SendWaiting();
    void Settle();
    void EndWith(std::uint16_t code, std::string reason);

    GatewayCore& m_core;
    const std::uint64_t m_number;
    const std::string m_remote;
    const std::uint64_t m_since_ns;
    std::optional<Identity> m_identity;
    const std::function<void()> m_onOutput;
    OutboundQueue m_out;
    RateLimit m_rate;
    std::unordered_map<unsigned long, Subscription> m_subscriptions;
    std::unordered_map<std::string, unsigned long> m_idByRequest;
    std::deque<unsigned long> m_waiting; ///< subscriptions with something that waits, or gone; the oldest first
    std::optional<SessionEnd> m_end;
    bool m_hasEnded = false;
    bool m_isInTurn = false;
    Clock::time_point m_writeBegan{};
    bool m_isWriting = false;
    std::uint64_t m_sentBytes = 0;
    std::uint64_t m_sentMessages = 0;
    std::uint64_t m_conflated = 0;
    std::uint64_t m_lostTrades = 0;
};

} // namespace ps_ns::gateway
