/// A connection, from its making to its end.

#include "logging/logging.h"
#include "nats_link.h"
#include "zel/zel_log.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <utility>

namespace ps_ns
{
namespace
{

constexpr auto kLook = std::chrono::milliseconds(20);
constexpr int kMostPingsOut = 3;
constexpr std::int64_t kPingInterval_ms = 1000;
constexpr std::chrono::milliseconds kLongestConnectTimeout{5000}; // a stop waits for it

void Require(natsStatus status, const char* what)
{
    if (status != NATS_OK)
    {
        throw std::runtime_error(std::string("the broker's client library refuses ") + what + ": " +
                                 natsStatus_GetText(status));
    }
}

} // namespace

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
    MakeStreamWhenDue(true);
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
            MakeStreamWhenDue(true);
        }
        else if (!isUp && wasUp)
        {
            ReportFailure("the connection is gone");
        }
        wasUp = isUp;
        MakeStreamWhenDue(false);
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
    const std::string text = GetRefusal(m_link->connection);
    if (text.empty() || m_refusalsSaid.size() >= kMostKept || !m_refusalsSaid.insert(text).second)
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

} // namespace ps_ns
