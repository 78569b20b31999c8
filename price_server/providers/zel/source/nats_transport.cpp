#include "zel/nats_transport.h"

#include "logging/logging.h"
#include "nats_handles.h"
#include "zel/subject_token.h"
#include "zel/zel_log.h"

#include <algorithm>
#include <array>
#include <map>
#include <shared_mutex>
#include <stdexcept>
#include <utility>

namespace ps_ns
{
namespace
{

constexpr std::string_view kRoot = "zel.";
constexpr std::string_view kPrices = "zel.prices.";
constexpr std::string_view kShard = "zel.shard.";
constexpr std::string_view kControl = "zel.control.";
constexpr std::string_view kRequests = "zel.requests.";
constexpr auto kLook = std::chrono::milliseconds(20);
constexpr int kMostPingsOut = 3;
constexpr std::int64_t kPingInterval_ms = 1000;
constexpr std::chrono::milliseconds kLongestConnectTimeout{5000}; // a stop waits for it

std::string MakeSubject(const TransportAddress& to)
{
    switch (to.channel)
    {
    case TransportChannel::Control:
        return std::string(kControl) + EscapeToken(to.market);
    case TransportChannel::Requests:
        return std::string(kRequests) + EscapeToken(to.market);
    case TransportChannel::Prices:
        break;
    }
    return std::string(kPrices) + EscapeToken(to.market) + '.' + EscapeToken(to.instrument);
}

std::string MakeShardSubject(unsigned shard)
{
    return std::string(kShard) + std::to_string(shard) + ".>";
}

/// Takes the text up to the next dot off the front.
std::string_view TakeToken(std::string_view& subject)
{
    const std::size_t dot = std::min(subject.find('.'), subject.size());
    const std::string_view token = subject.substr(0, dot);
    subject.remove_prefix(std::min(dot + 1, subject.size()));
    return token;
}

/// A subject's parts; the texts live as long as this.
struct ParsedSubject
{
    /// False: not one of ours.
    bool Parse(std::string_view subject)
    {
        if (!subject.starts_with(kRoot))
        {
            return false;
        }
        subject.remove_prefix(kRoot.size());
        const std::string_view kind = TakeToken(subject);
        address.channel = kind == "control"    ? TransportChannel::Control
                          : kind == "requests" ? TransportChannel::Requests
                                               : TransportChannel::Prices;
        if (kind == "shard")
        {
            TakeToken(subject);
        }
        return Take(subject, market, address.market) &&
               (address.channel != TransportChannel::Prices || Take(subject, instrument, address.instrument));
    }

    TransportAddress address;

private:
    /// Most tokens are their own texts.
    static bool Take(std::string_view& subject, std::string& store, std::string_view& text)
    {
        text = TakeToken(subject);
        if (text.find('=') == std::string_view::npos)
        {
            return !text.empty();
        }
        std::optional<std::string> plain = UnescapeToken(text);
        store = std::move(plain).value_or("");
        text = store;
        return plain.has_value();
    }

    std::string market;
    std::string instrument;
};

std::string DescribeServers(const std::vector<std::string>& servers)
{
    std::string text;
    for (const std::string& server : servers)
    {
        text += (text.empty() ? "" : ",") + HideSecrets(server);
    }
    return text;
}

void Require(natsStatus status, const char* what)
{
    if (status != NATS_OK)
    {
        throw std::runtime_error(std::string("the broker's client library refuses ") + what + ": " +
                                 natsStatus_GetText(status));
    }
}

} // namespace

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
        if (subject.Parse(natsMsg_GetSubject(message)))
        {
            const std::span<const char> data(natsMsg_GetData(message),
                                             static_cast<std::size_t>(natsMsg_GetDataLength(message)));
            link->Tell([&](ITransportListener& user)
                       { user.OnTransportMessage(subject.address, std::as_bytes(data)); });
        }
        natsMsg_Destroy(message);
    }
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

    std::chrono::milliseconds shortestPause{0};
    std::chrono::milliseconds longestPause{0};

    std::mutex stateMutex;    ///< before gate
    std::uint64_t breaks = 0; ///< under stateMutex: connections that broke

    std::shared_mutex gate;
    ITransportListener* listener = nullptr; ///< under gate: null once stopped

    std::atomic<bool> isUp{false};     ///< connected, as the library's callbacks tell
    std::atomic<bool> isClosed{false}; ///< the library has given the connection up
    std::atomic<std::uint64_t> connections{0};
    std::atomic<std::uint64_t> drops{0};
    std::atomic<std::uint64_t> refusals{0}; ///< for want of a right
    std::atomic<natsStatus> lastError{NATS_OK};

    std::shared_mutex connectionMutex;
    natsConnection* connection = nullptr; ///< under connectionMutex; written by the transport's own thread

    // The transport's own thread only:
    std::map<std::string, natsSubscription*> subscriptions; ///< by subject
    NatsGraveyard graveyard{kGraveyardRest};
};

NatsTransport::NatsTransport(NatsOptions options)
    : m_options(std::move(options))
    , m_servers(SplitServers(m_options.url))
    , m_link(std::make_shared<Link>())
{
    m_link->shortestPause = m_options.shortestPause;
    m_link->longestPause = m_options.longestPause;
}

NatsTransport::~NatsTransport()
{
    Stop();
}

void NatsTransport::Connect(ITransportListener& listener)
{
    if (m_servers.empty())
    {
        throw std::runtime_error("there is no address of a broker");
    }
    {
        const std::unique_lock lock(m_link->gate);
        m_link->listener = &listener;
    }
    m_thread = std::thread([this] { Run(); });
}

void NatsTransport::Stop()
{
    m_link->Close(); // first: the end of the connection is no news to the listener
    {
        const std::lock_guard lock(m_mutex);
        m_isStopping = true;
    }
    m_changed.notify_all();
    if (m_thread.joinable())
    {
        m_thread.join();
    }
}

// --- The thread ------------------------------------------------------------------------------------------------------

/// False: the transport is being stopped.
bool NatsTransport::Pause(std::chrono::milliseconds time)
{
    std::unique_lock lock(m_mutex);
    return !m_changed.wait_for(lock, time, [this] { return m_isStopping; });
}

/// The same; returns earlier when other subjects are wanted.
bool NatsTransport::WaitForWants(std::chrono::milliseconds time)
{
    std::unique_lock lock(m_mutex);
    m_changed.wait_for(lock, time, [this] { return m_isStopping || m_wants != m_wantsSeen; });
    return !m_isStopping;
}

void NatsTransport::Run()
{
    std::chrono::milliseconds pause = m_options.shortestPause;
    while (Pause(std::chrono::milliseconds(0)))
    {
        bool isConnected = false;
        try
        {
            isConnected = ConnectOnce();
        }
        catch (const std::exception& error)
        {
            ReportFailure(error.what());
        }
        if (isConnected)
        {
            pause = m_options.shortestPause;
            WatchConnection();
            LetGo();
        }
        m_link->graveyard.Reap(NatsGraveyard::Clock::now());
        if (!Pause(pause))
        {
            break;
        }
        pause = std::min(2 * pause, m_options.longestPause);
    }
    m_link->graveyard.WaitAndReap();
}

bool NatsTransport::ConnectOnce()
{
    natsOptions* made = nullptr;
    Require(natsOptions_Create(&made), "options");
    const NatsOptionsHandle options(made);
    std::vector<const char*> servers;
    std::transform(m_servers.begin(), m_servers.end(), std::back_inserter(servers),
                   [](const std::string& server) { return server.c_str(); });
    Require(natsOptions_SetServers(made, servers.data(), static_cast<int>(servers.size())), "the broker's address");
    Require(natsOptions_SetName(made, m_options.clientName.c_str()), "the client's name");
    if (!m_options.user.empty())
    {
        Require(SetUser(made, m_options.user, m_options.password), "the user");
    }
    Require(natsOptions_SetTimeout(made, std::min(m_options.connectTimeout, kLongestConnectTimeout).count()),
            "the connect timeout");
    Require(natsOptions_SetWriteDeadline(made, m_options.writeTimeout.count()), "the write timeout");
    Require(natsOptions_SetPingInterval(made, kPingInterval_ms), "the ping interval");
    Require(natsOptions_SetMaxPingsOut(made, kMostPingsOut), "the number of pings");
    Require(natsOptions_SetMaxReconnect(made, -1), "endless reconnects");
    Require(natsOptions_SetCustomReconnectDelay(made, &Link::ChoosePause, m_link.get()), "a pause");
    Require(natsOptions_SetReconnectBufSize(made, 1), "no buffer"); // 0 would be the library's own 8 MiB
    Require(natsOptions_SetMaxPendingMsgs(made, m_options.mostPendingMessages), "the most pending messages");
    Require(natsOptions_SetErrorHandler(made, &Link::OnError, m_link.get()), "an error handler");
    Require(natsOptions_SetDisconnectedCB(made, &Link::OnDisconnected, m_link.get()), "a callback");
    Require(natsOptions_SetReconnectedCB(made, &Link::OnReconnected, m_link.get()), "a callback");
    Require(natsOptions_SetClosedCB(made, &Link::OnClosed, m_link.get()), "a callback");

    natsConnection* connection = nullptr;
    m_link->isClosed.store(false);
    const std::uint64_t breaks = m_link->GetBreaks();
    if (const natsStatus status = natsConnection_Connect(&connection, made); status != NATS_OK)
    {
        ReportFailure(natsStatus_GetText(status));
        return false;
    }
    {
        const std::unique_lock lock(m_link->connectionMutex);
        m_link->connection = connection;
    }
    m_link->lastError.store(NATS_OK); // of the attempts before
    SubscribeWanted();
    ReportConnected();
    m_link->ComeUpFirst(breaks);
    return true;
}

/// Until the library gives the connection up, or the transport is stopped.
void NatsTransport::WatchConnection()
{
    std::uint64_t dropsSeen = m_link->drops.load();
    std::uint64_t refusalsSeen = 0;
    std::uint64_t connectionsSeen = m_link->connections.load();
    bool wasUp = true;
    while (!m_link->isClosed.load() && WaitForWants(kLook))
    {
        SubscribeWanted();
        m_link->graveyard.Reap(NatsGraveyard::Clock::now());
        const bool isUp = m_link->isUp.load();
        // An outage may be over before it is seen here: the broker is then another one all the same.
        if (const std::uint64_t connections = m_link->connections.load(); isUp && connections != connectionsSeen)
        {
            connectionsSeen = connections;
            ReportConnected();
        }
        else if (!isUp && wasUp)
        {
            ReportFailure("the connection is gone");
        }
        wasUp = isUp;
        if (const std::uint64_t drops = m_link->drops.load(); drops != std::exchange(dropsSeen, drops))
        {
            zel::logging::Log(30, ZelLogSource(),
                              [&](std::ostream& text)
                              { text << "messages of the broker were dropped: they came faster than they are taken"; });
            m_link->Tell([](ITransportListener& listener) { listener.OnTransportLoss(); });
        }
        if (const std::uint64_t refusals = m_link->refusals.load(); refusals != std::exchange(refusalsSeen, refusals))
        {
            ReportRefusal();
        }
    }
}

/// What the broker has refused last for want of a right: it says the subject. Each once.
void NatsTransport::ReportRefusal()
{
    constexpr std::size_t kMostKept = 1000;
    const char* said = nullptr;
    if (natsConnection_GetLastError(m_link->connection, &said) != NATS_NOT_PERMITTED || said == nullptr)
    {
        return;
    }
    const std::string text(said);
    if (m_refusalsSaid.size() >= kMostKept || !m_refusalsSaid.insert(text).second)
    {
        return;
    }
    zel::logging::Log(30, ZelLogSource(),
                      [&](std::ostream& out)
                      {
                          out << "the message broker does not let "
                              << (m_options.user.empty() ? "a client without a name" : "\"" + m_options.user + "\"")
                              << " do this: " << text;
                      });
}

/// Ends the connection and all that belongs to it.
void NatsTransport::LetGo()
{
    {
        const std::lock_guard lock(m_link->stateMutex);
        m_link->GoDown();
    }
    for (const auto& [subject, subscription] : std::exchange(m_link->subscriptions, {}))
    {
        m_link->graveyard.Bury(subscription);
    }
    natsConnection* connection = nullptr;
    {
        const std::unique_lock lock(m_link->connectionMutex);
        connection = std::exchange(m_link->connection, nullptr);
    }
    natsConnection_Close(connection);
    m_link->graveyard.WaitAndReap(); // the connection goes after its subscriptions
    // The library's last callback about it: none touches the link from then on.
    while (!m_link->isClosed.load())
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    natsConnection_Destroy(connection);
}

void NatsTransport::SubscribeWanted()
{
    std::vector<std::string> wanted;
    std::uint64_t wants = 0;
    {
        const std::lock_guard lock(m_mutex);
        wanted = m_wanted;
        wants = m_wants;
    }
    for (auto entry = m_link->subscriptions.begin(); entry != m_link->subscriptions.end();)
    {
        if (std::find(wanted.begin(), wanted.end(), entry->first) != wanted.end())
        {
            ++entry;
            continue;
        }
        m_link->graveyard.Bury(entry->second);
        entry = m_link->subscriptions.erase(entry);
    }
    for (const std::string& subject : wanted)
    {
        if (m_link->subscriptions.count(subject) != 0)
        {
            continue;
        }
        natsSubscription* subscription = nullptr;
        const natsStatus status = natsConnection_Subscribe(&subscription, m_link->connection, subject.c_str(),
                                                           &Link::OnMessage, m_link.get());
        if (status != NATS_OK)
        {
            return; // the connection breaks just now; once it is back
        }
        natsSubscription_SetPendingLimits(subscription, m_options.mostPendingMessages, m_options.mostPendingBytes);
        m_link->subscriptions.emplace(subject, subscription);
        // In effect from here on; and if it was refused, the broker has said so.
        natsConnection_FlushTimeout(m_link->connection, m_options.writeTimeout.count());
        ReportRefusal();
    }
    {
        const std::lock_guard lock(m_mutex);
        m_wantsSeen = wants;
    }
    m_changed.notify_all();
}

/// The first failure of an outage is an error; the rest are details.
void NatsTransport::ReportFailure(const std::string& why)
{
    const bool isFirst = m_failures++ == 0;
    zel::logging::Log(isFirst ? 30 : 0, ZelLogSource(),
                      [&](std::ostream& text)
                      {
                          text << "no message broker at " << DescribeServers(m_servers) << ": " << why
                               << (isFirst ? "; trying again until there is one" : "");
                      });
}

void NatsTransport::ReportConnected()
{
    m_failures = 0;
    std::array<char, 256> url{};
    const std::shared_lock lock(m_link->connectionMutex);
    natsConnection_GetConnectedUrl(m_link->connection, url.data(), url.size());
    zel::logging::Log(10, ZelLogSource(),
                      [&](std::ostream& text)
                      { text << "connected with the message broker at " << HideSecrets(url.data()); });
}

// --- From any thread -------------------------------------------------------------------------------------------------

void NatsTransport::Want(std::string subject)
{
    {
        const std::lock_guard lock(m_mutex);
        if (std::find(m_wanted.begin(), m_wanted.end(), subject) == m_wanted.end())
        {
            m_wanted.push_back(std::move(subject));
            ++m_wants;
        }
    }
    m_changed.notify_all();
}

void NatsTransport::SubscribeShard(std::optional<unsigned> shard)
{
    constexpr auto kLongest = std::chrono::milliseconds(50);
    SubscribeControl();
    Want(shard ? MakeShardSubject(*shard) : std::string(kPrices) + '>');
    std::unique_lock lock(m_mutex);
    m_changed.wait_for(lock, m_link->isUp.load() ? kLongest : std::chrono::milliseconds(0),
                       [this] { return m_isStopping || m_wants == m_wantsSeen; });
}

void NatsTransport::UnsubscribeShard(unsigned shard)
{
    {
        const std::lock_guard lock(m_mutex);
        m_wants += std::erase(m_wanted, MakeShardSubject(shard));
    }
    m_changed.notify_all();
}

void NatsTransport::SubscribeControl()
{
    Want(std::string(kControl) + '*');
}

void NatsTransport::SubscribeRequests(const std::string& market)
{
    Want(std::string(kRequests) + EscapeToken(market));
}

bool NatsTransport::Publish(const TransportAddress& to, std::span<const std::byte> payload)
{
    if (!m_link->isUp.load())
    {
        return false;
    }
    const std::string subject = MakeSubject(to);
    const std::shared_lock lock(m_link->connectionMutex);
    return m_link->connection != nullptr && natsConnection_Publish(m_link->connection, subject.c_str(), payload.data(),
                                                                   static_cast<int>(payload.size())) == NATS_OK;
}

bool NatsTransport::AskForImages(std::string_view market, std::span<const std::byte> request)
{
    return Publish({TransportChannel::Requests, market, {}}, request);
}

bool NatsTransport::Flush(std::chrono::milliseconds patience)
{
    const std::shared_lock lock(m_link->connectionMutex);
    return m_link->connection != nullptr &&
           natsConnection_FlushTimeout(m_link->connection, patience.count()) == NATS_OK;
}

bool NatsTransport::IsConnected() const
{
    return m_link->isUp.load();
}

std::string NatsTransport::Describe() const
{
    const natsStatus error = m_link->lastError.load();
    return DescribeServers(m_servers) +
           (error == NATS_OK ? "" : std::string(" (last error: ") + natsStatus_GetText(error) + ")");
}

std::uint64_t NatsTransport::GetConnectionCount() const noexcept
{
    return m_link->connections.load();
}

std::uint64_t NatsTransport::GetDropReports() const noexcept
{
    return m_link->drops.load();
}

} // namespace ps_ns
