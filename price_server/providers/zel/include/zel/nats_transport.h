#pragma once

#include "zel/i_provider_transport.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace ps_ns
{

struct NatsOptions
{
    /// "nats://host:port", or several with commas between them: any of them will do.
    std::string url = "nats://127.0.0.1:4222";
    std::string clientName = "price_server"; ///< what the broker's own monitoring shows
    std::string user;                        ///< empty: whatever the address says
    std::string password;
    std::chrono::milliseconds connectTimeout{500}; ///< for one attempt at one broker; 5 s at most, since Stop waits
    std::chrono::milliseconds writeTimeout{500};   ///< a broker that takes nothing for so long is gone
    std::chrono::milliseconds shortestPause{20};   ///< between attempts; doubles up to the longest
    std::chrono::milliseconds longestPause{100};
    int mostPendingMessages = 1'000'000; ///< of one channel; more are dropped, and the listener is told
    int mostPendingBytes = 256 << 20;
    /// For who publishes last values: the broker is asked to keep them, in memory, in so many bytes at most. 0: it is
    /// not, and what is published there goes nowhere.
    std::int64_t lastValuesBytes = 0;
};

/// NATS as the way to a broker.
///
/// Subjects, with market and instrument escaped (subject_token.h):
///
/// | channel | published to | listened to |
/// |---|---|---|
/// | prices | zel.prices.MARKET.INSTRUMENT | zel.prices.> or, mapped by the broker, zel.shard.N.> |
/// | control | zel.control.MARKET | zel.control.* |
/// | requests | zel.requests.MARKET | zel.requests.MARKET |
/// | last values | zel.last.MARKET.INSTRUMENT, zel.last.MARKET.=.PART | zel.reply.SESSION.>, for answers |
///
/// Last values are in a stream of JetStream, "zel_last", in memory, with one message for each subject. Who publishes
/// them asks for the stream with each connection, and every kBetweenMaking: asking for one that is there does nothing.
/// Until the broker has said that it is there nothing is published to it. Questions go past the stream's leader
/// (direct get), and make no consumer.
///
/// What the client library needs us to do:
///
/// | the library | what is done |
/// |---|---|
/// | damages its heap when a subscription is destroyed while messages arrive | one subscription for each shard, for as long as there is a connection; destroyed ones lie in a graveyard for kGraveyardRest |
/// | keeps what is published during an outage, and loses some of it | no buffer: nothing is published without a connection |
/// | calls the error callback while it holds locks | that callback counts, and touches nothing |
/// | may wait long for a broker that accepts connections and says nothing | each attempt is bounded |
/// | tells of what the broker refuses for want of a right by a status alone | the connection's thread fetches the broker's words, which name the subject, and logs them once each |
/// | sends names and passwords unquoted in JSON | they are quoted before it gets them |
/// | gives up for good, after some errors of authorization | a new connection is made |
///
/// Threads: one of its own, which connects and looks after the rest; the library's call the listener.
class NatsTransport final : public IProviderTransport
{
public:
    static constexpr std::chrono::milliseconds kGraveyardRest{500};
    static constexpr std::chrono::milliseconds kBetweenMaking{10'000};
    static constexpr const char* kLastValuesStream = "zel_last";

    explicit NatsTransport(NatsOptions options);
    /// Stops.
    ~NatsTransport() override;
    NatsTransport(const NatsTransport&) = delete;
    NatsTransport& operator=(const NatsTransport&) = delete;

    void Connect(ITransportListener& listener) override;
    /// Takes kGraveyardRest when there was a connection.
    void Stop() override;
    /// Waits a moment until the broker has been told, when there is a connection: a request for images that comes
    /// after it does not overtake it.
    void SubscribeShard(std::optional<unsigned> shard) override;
    void UnsubscribeShard(unsigned shard) override;
    void SubscribeControl() override;
    void SubscribeRequests(const std::string& market) override;
    bool Publish(const TransportAddress& to, std::span<const std::byte> payload) override;
    bool AskForImages(std::string_view market, std::span<const std::byte> request) override;
    bool AskForLastValue(const TransportAddress& of) override;
    bool Flush(std::chrono::milliseconds patience) override;
    bool IsConnected() const override;
    std::string Describe() const override;

    /// Connections made so far, the first included. From any thread.
    std::uint64_t GetConnectionCount() const noexcept;
    /// Times that the library has reported dropped messages. From any thread.
    std::uint64_t GetDropReports() const noexcept;

private:
    struct Link; ///< what the library's callbacks may touch

    void Run();
    bool ConnectOnce();
    void WatchConnection();
    void LetGo();
    void SubscribeWanted();
    void Want(std::string subject);
    bool Pause(std::chrono::milliseconds time);
    void AwaitWanted();
    bool WaitForWants(std::chrono::milliseconds time);
    void ReportFailure(const std::string& why);
    void ReportRefusal();
    void ReportConnected();
    void MakeStreamWhenDue(bool isNewConnection);
    std::string DescribeStream() const;

    const NatsOptions m_options;
    const std::vector<std::string> m_servers;
    const std::string m_replies;  ///< in front of the subjects of answers to this one
    std::shared_ptr<Link> m_link; ///< made by the constructor

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<std::string> m_wanted;                       ///< under m_mutex: subjects to listen to
    std::uint64_t m_wants = 0;                               ///< under m_mutex: another one when those have changed
    std::uint64_t m_wantsSeen = 0;                           ///< under m_mutex: up to here they are listened to
    bool m_isStopping = false;                               ///< under m_mutex
    std::thread m_thread;                                    ///< the owner's
    unsigned m_failures = 0;                                 ///< own thread: attempts since the last connection
    std::set<std::string> m_refusalsSaid;                    ///< own thread: what the log has been told of
    std::chrono::steady_clock::time_point m_streamAskedAt{}; ///< own thread
};

} // namespace ps_ns
