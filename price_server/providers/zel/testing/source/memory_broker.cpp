#include "zel_testing/memory_broker.h"

#include "zel/instrument_shard.h"

#include <algorithm>
#include <utility>

namespace ps_ns::testing_ns
{

std::unique_ptr<MemoryTransport> MemoryBroker::MakeTransport()
{
    return std::make_unique<MemoryTransport>(*this);
}

std::size_t MemoryBroker::Deliver()
{
    std::size_t delivered = 0;
    while (!waiting.empty())
    {
        const CarriedMessage message = std::move(waiting.front());
        waiting.pop_front();
        if (passes && !passes(message))
        {
            continue;
        }
        ++delivered;
        for (MemoryTransport* const transport : std::vector(m_transports))
        {
            if (transport->IsConnected() && transport->Wants(message))
            {
                transport->m_listener->OnTransportMessage({message.channel, message.market, message.instrument},
                                                          message.payload);
            }
        }
    }
    return delivered;
}

void MemoryBroker::SetUp(bool isUp)
{
    if (std::exchange(m_isUp, isUp) == isUp)
    {
        return;
    }
    waiting.clear();
    for (MemoryTransport* const transport : std::vector(m_transports))
    {
        transport->TellState();
    }
}

MemoryTransport::MemoryTransport(MemoryBroker& broker)
    : m_broker(broker)
{
    m_broker.m_transports.push_back(this);
}

MemoryTransport::~MemoryTransport()
{
    std::erase(m_broker.m_transports, this);
}

void MemoryTransport::Connect(ITransportListener& listener)
{
    m_listener = &listener;
    if (IsConnected())
    {
        TellState();
    }
}

void MemoryTransport::SubscribeShard(std::optional<unsigned> shard)
{
    m_wantsControl = true;
    m_wantsAllPrices = m_wantsAllPrices || !shard;
    if (shard)
    {
        m_shards.insert(*shard);
    }
}

bool MemoryTransport::Publish(const TransportAddress& to, std::span<const std::byte> payload)
{
    if (!IsConnected())
    {
        return false;
    }
    m_broker.waiting.push_back({to.channel, std::string(to.market), std::string(to.instrument),
                                std::vector<std::byte>(payload.begin(), payload.end())});
    return true;
}

bool MemoryTransport::AskForImages(std::string_view market, std::span<const std::byte> request)
{
    return Publish({TransportChannel::Requests, market, {}}, request);
}

void MemoryTransport::SetCut(bool isCut)
{
    m_isCut = isCut;
    TellState();
}

bool MemoryTransport::Wants(const CarriedMessage& message) const
{
    if (message.channel == TransportChannel::Control)
    {
        return m_wantsControl;
    }
    if (message.channel == TransportChannel::Prices)
    {
        return m_wantsAllPrices || (m_broker.shards != 0 &&
                                    m_shards.count(GetShard(message.market, message.instrument, m_broker.shards)) != 0);
    }
    return std::find(m_requests.begin(), m_requests.end(), message.market) != m_requests.end();
}

void MemoryTransport::TellState()
{
    if (m_listener != nullptr)
    {
        m_listener->OnTransportState(IsConnected());
    }
}

} // namespace ps_ns::testing_ns
