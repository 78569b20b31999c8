#pragma once

#include "nats_handles.h"
#include "nats_subject.h"
#include "zel/nats_transport.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <shared_mutex>
#include <span>
#include <string>

namespace ps_ns
{

/// Lives as long as the transport, which ends every subscription and lets it rest before it goes.
struct NatsTransport::Link
{
    /// Calls the listener unless the transport has been stopped.
    template <class Call>
    void Tell(const Call& call)
    {
        const std::shared_lock lock(gate);
        if (listener != nullptr)
        {
            call(*listener);
        }
    }
    void Close()
    {
        const std::unique_lock lock(gate);
        listener = nullptr;
    }

    static void OnMessage(natsConnection*, natsSubscription*, natsMsg* message, void* closure)
    {
        auto* const link = static_cast<Link*>(closure);
        ParsedSubject subject;
        const std::string_view name = natsMsg_GetSubject(message);
        if (name.starts_with(link->replies))
        {
            link->OnReply(name.substr(link->replies.size()), message);
        }
        else if (subject.Parse(name))
        {
            const std::span<const char> data(natsMsg_GetData(message),
                                             static_cast<std::size_t>(natsMsg_GetDataLength(message)));
            link->Tell([&](ITransportListener& user)
                       { user.OnTransportMessage(subject.address, std::as_bytes(data)); });
        }
        natsMsg_Destroy(message);
    }
    /// An answer of the broker: about the stream of last values, or one of those.
    void OnReply(std::string_view name, natsMsg* message);
    void OnStreamAnswer(natsMsg* message);

    /// The state and what the listener is told of it change together, in one order.
    void ComeUp()
    {
        connections.fetch_add(1);
        isUp.store(true);
        Tell([](ITransportListener& user) { user.OnTransportState(true); });
    }
    void GoDown()
    {
        isUp.store(false);
        keepsLastValues.store(false); // the next broker has not said so yet
        Tell([](ITransportListener& user) { user.OnTransportState(false); });
    }
    static void OnDisconnected(natsConnection*, void* closure)
    {
        auto* const link = static_cast<Link*>(closure);
        const std::lock_guard lock(link->stateMutex);
        ++link->breaks;
        link->GoDown();
    }
    static void OnReconnected(natsConnection*, void* closure)
    {
        auto* const link = static_cast<Link*>(closure);
        const std::lock_guard lock(link->stateMutex);
        link->lastError.store(NATS_OK); // of the connection that was
        link->ComeUp();
    }
    /// Of a first connection that has been made; `before`: the breaks until then. It may be broken by now, and then
    /// OnReconnected tells of it, or has told.
    void ComeUpFirst(std::uint64_t before)
    {
        const std::lock_guard lock(stateMutex);
        if (breaks == before)
        {
            ComeUp();
        }
    }
    std::uint64_t GetBreaks()
    {
        const std::lock_guard lock(stateMutex);
        return breaks;
    }
    static void OnClosed(natsConnection*, void* closure) { static_cast<Link*>(closure)->isClosed.store(true); }
    /// May come while the library holds its locks: counts, and touches nothing else.
    static void OnError(natsConnection*, natsSubscription*, natsStatus error, void* closure)
    {
        auto* const link = static_cast<Link*>(closure);
        link->lastError.store(error);
        if (error == NATS_SLOW_CONSUMER)
        {
            link->drops.fetch_add(1);
        }
        if (error == NATS_NOT_PERMITTED)
        {
            link->refusals.fetch_add(1);
        }
    }
    static std::int64_t ChoosePause(natsConnection*, int attempts, void* closure)
    {
        const auto* const link = static_cast<Link*>(closure);
        const int doublings = std::clamp(attempts - 1, 0, 10);
        return std::min(link->shortestPause.count() << doublings, link->longestPause.count());
    }

    std::string replies; ///< constant: in front of the subjects of answers
    std::chrono::milliseconds shortestPause{0};
    std::chrono::milliseconds longestPause{0};

    std::mutex stateMutex;    ///< before gate
    std::uint64_t breaks = 0; ///< under stateMutex: connections that broke

    std::shared_mutex gate;
    ITransportListener* listener = nullptr; ///< under gate: null once stopped

    std::atomic<bool> isUp{false};            ///< connected, as the library's callbacks tell
    std::atomic<bool> keepsLastValues{false}; ///< the broker has said that the stream is there
    std::atomic<bool> isClosed{false};        ///< the library has given the connection up
    std::atomic<std::uint64_t> connections{0};
    std::atomic<std::uint64_t> drops{0};
    std::atomic<std::uint64_t> refusals{0}; ///< for want of a right
    std::atomic<natsStatus> lastError{NATS_OK};

    std::mutex saidMutex;
    std::string streamFaultSaid; ///< under saidMutex: what the log has been told of last

    std::shared_mutex connectionMutex;
    natsConnection* connection = nullptr; ///< under connectionMutex; written by the transport's own thread

    // The transport's own thread only:
    std::map<std::string, natsSubscription*> subscriptions; ///< by subject
    NatsGraveyard graveyard{kGraveyardRest};
};

} // namespace ps_ns
