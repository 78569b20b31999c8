#include "zel/nats_transport.h"

#include "logging/logging.h"
#include "nats_link.h"
#include "zel/zel_log.h"

#include <algorithm>
#include <random>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace ps_ns
{
namespace
{

/// No two transports have the same.
std::string MakeReplies()
{
    std::random_device random;
    std::ostringstream text;
    text << "zel.reply." << std::hex << random() << '-' << random() << '.';
    return text.str();
}

} // namespace

NatsTransport::NatsTransport(NatsOptions options)
    : m_options(std::move(options))
    , m_servers(SplitServers(m_options.url))
    , m_replies(MakeReplies())
    , m_link(std::make_shared<Link>())
{
    m_link->replies = m_replies;
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
    if (m_options.lastValuesBytes != 0)
    {
        Want(m_replies + '>');
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

// --- From any thread -------------------------------------------------------------------------------------------------

bool NatsTransport::Publish(const TransportAddress& to, std::span<const std::byte> payload)
{
    if (!m_link->isUp.load() || (to.channel == TransportChannel::LastValues && !m_link->keepsLastValues.load()))
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
