/// What is listened to: wanted from any thread, made by the connection's own.

#include "nats_link.h"
#include "zel/subject_token.h"

#include <algorithm>
#include <utility>

namespace ps_ns
{

/// The same; returns earlier when other subjects are wanted.
bool NatsTransport::WaitForWants(std::chrono::milliseconds time)
{
    std::unique_lock lock(m_mutex);
    m_changed.wait_for(lock, time, [this] { return m_isStopping || m_wants != m_wantsSeen; });
    return !m_isStopping;
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
    SubscribeControl();
    Want(shard ? MakeShardSubject(*shard) : std::string(kPricesSubject) + '>');
    AwaitWanted();
}

/// A question that comes after it does not overtake what is wanted.
void NatsTransport::AwaitWanted()
{
    constexpr auto kLongest = std::chrono::milliseconds(50);
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
    Want(std::string(kControlSubject) + '*');
}

void NatsTransport::SubscribeRequests(const std::string& market)
{
    Want(std::string(kRequestsSubject) + EscapeToken(market));
}

} // namespace ps_ns
