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
                transport->Hand(message);
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
    if (!isUp)
    {
        lastValues.clear(); // they were in memory
    }
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
    CarriedMessage message{to.channel, std::string(to.market), std::string(to.instrument),
                           std::vector<std::byte>(payload.begin(), payload.end()), to.part};
    if (to.channel != TransportChannel::LastValues)
    {
        m_broker.waiting.push_back(std::move(message));
        return true;
    }
    if (m_broker.keepsLastValues && (!m_broker.passes || m_broker.passes(message)))
    {
        m_broker.lastValues[{message.market, message.instrument, message.part}] = std::move(message.payload);
    }
    return m_broker.keepsLastValues;
}

bool MemoryTransport::AskForLastValue(const TransportAddress& of)
{
    if (!IsConnected())
    {
        return false;
    }
    ++m_broker.lastValueQuestions;
    if (m_broker.keepsLastValues)
    {
        const auto kept = m_broker.lastValues.find({std::string(of.market), std::string(of.instrument), of.part});
        m_broker.waiting.push_back({TransportChannel::LastValues, std::string(of.market), std::string(of.instrument),
                                    kept == m_broker.lastValues.end() ? std::vector<std::byte>() : kept->second,
                                    of.part});
        m_asked.insert({std::string(of.market), std::string(of.instrument), of.part});
    }
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
    if (message.channel == TransportChannel::LastValues)
    {
        return m_asked.count({message.market, message.instrument, message.part}) != 0;
    }
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
