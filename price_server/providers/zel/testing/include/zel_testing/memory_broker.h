#pragma once

#include "zel/i_provider_transport.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <vector>

namespace ps_ns::testing_ns
{

/// A message on its way.
struct CarriedMessage
{
    TransportChannel channel = TransportChannel::Prices;
    std::string market;
    std::string instrument;
    std::vector<std::byte> payload;
    std::uint32_t part = 0; ///< of a directory among the last values
};

class MemoryTransport;

/// A message broker in the test's hand: what is published waits until the test has it delivered, and may be lost on the
/// way.
///
/// Threads: one. Ownership: outlives its transports.
class MemoryBroker
{
public:
    std::unique_ptr<MemoryTransport> MakeTransport();

    /// Delivers what waits, and what is published meanwhile, to everybody who listens. Returns the number of messages.
    std::size_t Deliver();
    /// Up or down for all: a broker that goes down loses what waits, and tells everybody.
    void SetUp(bool isUp);
    bool IsUp() const noexcept { return m_isUp; }

    std::uint32_t shards = 0; ///< that it divides the instruments into; 0: none
    bool keepsLastValues = false;

    /// Of the last values, by market, instrument and part. Kept as soon as they are published; answers wait as all
    /// messages do. Gone when the broker goes down.
    std::map<std::tuple<std::string, std::string, std::uint32_t>, std::vector<std::byte>> lastValues;
    std::size_t lastValueQuestions = 0; ///< asked since the start, whether there was an answer or not

    /// Called for each message that is about to be delivered, or kept; false: it is lost. Empty: none is.
    std::function<bool(const CarriedMessage&)> passes;
    std::deque<CarriedMessage> waiting;

private:
    friend class MemoryTransport;

    bool m_isUp = true;
    std::vector<MemoryTransport*> m_transports;
};

/// A connection with a MemoryBroker.
class MemoryTransport final : public IProviderTransport
{
public:
    explicit MemoryTransport(MemoryBroker& broker);
    ~MemoryTransport() override;

    /// Tells of the connection at once when the broker is up.
    void Connect(ITransportListener& listener) override;
    void Stop() override { m_listener = nullptr; }
    void SubscribeShard(std::optional<unsigned> shard) override;
    void UnsubscribeShard(unsigned shard) override { m_shards.erase(shard); }
    void SubscribeControl() override { m_wantsControl = true; }
    void SubscribeRequests(const std::string& market) override { m_requests.push_back(market); }
    bool Publish(const TransportAddress& to, std::span<const std::byte> payload) override;
    bool AskForImages(std::string_view market, std::span<const std::byte> request) override;
    bool AskForLastValue(const TransportAddress& of) override;
    bool Flush(std::chrono::milliseconds) override { return IsConnected(); }
    bool IsConnected() const override { return m_listener != nullptr && m_broker.IsUp() && !m_isCut; }
    std::string Describe() const override { return "memory"; }

    /// Cuts this connection alone, or mends it.
    void SetCut(bool isCut);
    /// Hands a message over whatever the connection is: as a transport that had it waiting when the connection broke.
    void Hand(const CarriedMessage& message)
    {
        m_listener->OnTransportMessage({message.channel, message.market, message.instrument, message.part},
                                       message.payload);
    }
    /// As a transport that had to drop messages.
    void ReportLoss() { m_listener->OnTransportLoss(); }

private:
    friend class MemoryBroker;

    bool Wants(const CarriedMessage& message) const;
    void TellState();

    MemoryBroker& m_broker;
    ITransportListener* m_listener = nullptr;
    std::vector<std::string> m_requests;
    bool m_wantsAllPrices = false;
    bool m_wantsControl = false;
    std::set<unsigned> m_shards;
    std::set<std::tuple<std::string, std::string, std::uint32_t>> m_asked; ///< last values
    bool m_isCut = false;
};

} // namespace ps_ns::testing_ns
