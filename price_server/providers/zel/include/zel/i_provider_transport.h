#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace ps_ns
{

/// What a message is for. Who listens to one channel need not understand the others.
enum class TransportChannel : std::uint8_t
{
    Prices,    ///< images, updates and trades of one instrument; in shards when the broker maps them
    Control,   ///< directories, renames and heartbeats of one market
    Requests,  ///< from price servers to the publisher of one market
    LastValues ///< kept by the broker: the last image of one instrument, the last parts of one market's directory
};

/// Where a message goes to, or comes from. Any text is allowed in the names: the adapter escapes what its broker does
/// not take.
struct TransportAddress
{
    TransportChannel channel = TransportChannel::Prices;
    std::string_view market;
    std::string_view instrument; ///< the symbol that it was listed under, which renames leave alone; prices, and last
                                 ///< values: empty there for a part of the directory
    std::uint32_t part = 0;      ///< of the directory; last values only
};

/// Who uses a transport.
///
/// Threads: the transport's own. Messages of one channel and shard come one at a time and in the publisher's order;
/// messages of different channels, and state, may come at the same time from other threads.
class ITransportListener
{
public:
    virtual ~ITransportListener() = default;

    /// A message; `payload` and the address's texts are valid during the call. Of last values it is the answer to
    /// AskForLastValue; without bytes: there is none. It may block for a short while: the transport then holds back,
    /// within its limits, what comes behind.
    virtual void OnTransportMessage(const TransportAddress& from, std::span<const std::byte> payload) = 0;

    /// The connection has come to be (again), or is gone. What was on its way when it went is lost.
    virtual void OnTransportState(bool isConnected) = 0;

    /// The transport has dropped messages though the connection is there: anything may have a gap.
    virtual void OnTransportLoss() {}
};

/// The way to a message broker, as narrow as the ZEL provider and its publishers need it: another broker is one more
/// adapter.
///
/// Last values: what is published to that channel replaces what the broker keeps for the address, and is told to nobody
/// who does not ask. A broker that can keep nothing, or may not, is no failure: the log says so, and what is published
/// there is gone.
///
/// Threads: Connect and Stop are the owner's. The subscribes, Publish, the questions and the queries may be called from
/// any thread, also while a connection breaks.
///
/// Ownership: the listener is not owned and outlives Stop.
///
/// Failure: a broker that is not there is no failure: it is logged, and tried again with growing pauses, for as long as
/// the transport lives.
class IProviderTransport
{
public:
    virtual ~IProviderTransport() = default;

    /// Begins to connect, and returns at once. Once. Throws std::runtime_error when it never can (an address that is
    /// none).
    virtual void Connect(ITransportListener& listener) = 0;

    /// Calls no listener after it has returned. Idempotent.
    virtual void Stop() = 0;

    /// Listens to the prices of one shard; nothing: of all instruments, from a broker that maps none. Also to the
    /// control channel. Before or after there is a connection; it holds through reconnects.
    virtual void SubscribeShard(std::optional<unsigned> shard) = 0;

    /// Ends that; messages that are on their way may still come. Nothing when it is not listened to.
    virtual void UnsubscribeShard(unsigned shard) = 0;

    /// Listens to the control channel alone.
    virtual void SubscribeControl() = 0;

    /// Listens to the requests that concern a market: for its publisher.
    virtual void SubscribeRequests(const std::string& market) = 0;

    /// Hands a message to the broker's connection. False: there is no connection, or the broker takes nothing now;
    /// the message is gone, and nothing is kept for later.
    virtual bool Publish(const TransportAddress& to, std::span<const std::byte> payload) = 0;

    /// Asks the publisher of a market: for images, or for its directory. As Publish.
    virtual bool AskForImages(std::string_view market, std::span<const std::byte> request) = 0;

    /// Asks the broker for what was published last to an address of the last values. The answer may not come: from a
    /// broker that keeps none, or when the connection breaks. False: as Publish.
    virtual bool AskForLastValue(const TransportAddress& of) = 0;

    /// Waits until the broker has taken what was published; false: not in that time.
    virtual bool Flush(std::chrono::milliseconds patience) = 0;

    virtual bool IsConnected() const = 0;
    /// For logs and reports: the broker's address without secrets, and what went wrong last, if anything.
    virtual std::string Describe() const = 0;
};

} // namespace ps_ns
