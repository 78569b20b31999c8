/// What the transport says of connection and prices; control messages: zel_provider_directory.cpp.

#include "logging/logging.h"
#include "zel/zel_log.h"
#include "zel/zel_provider.h"
#include "zel_market.h"

#include <utility>

namespace ps_ns
{

void ZelProvider::OnTransportState(bool isConnected)
{
    if (!isConnected)
    {
        LoseAll("the connection to the message broker is gone");
        return;
    }
    {
        const ScopedRoleLock lock(m_mutex, m_role);
        for (const std::unique_ptr<ZelMarket>& market : m_markets)
        {
            market->wantsDirectory = true; // the publisher may have begun an epoch meanwhile
            market->directoryAskedAt = {};
        }
    }
    Wake();
}

void ZelProvider::OnTransportLoss()
{
    LoseAll("messages were dropped");
    Wake();
}

void ZelProvider::LoseAll(const char* why)
{
    const ScopedRoleLock lock(m_mutex, m_role);
    for (const std::unique_ptr<ZelMarket>& market : m_markets)
    {
        if (!market->isLost)
        {
            Lose(*market, why);
        }
    }
}

void ZelProvider::Lose(ZelMarket& market, const char* why)
{
    market.isLost = true;
    ++m_counts.losses;
    std::size_t stale = 0;
    for (const std::unique_ptr<ZelInstrument>& instrument : market.instruments)
    {
        if (instrument->state == ZelInstrument::State::Idle)
        {
            continue;
        }
        if (instrument->feed.HasListeners())
        {
            Await(*instrument);
            ++stale;
            continue;
        }
        Await(*instrument);
        instrument->state = ZelInstrument::State::Idle;
        --m_counts.followed;
    }
    zel::logging::Log(20, ZelLogSource(),
                      [&](std::ostream& text) {
                          text << "the feed of market " << market.name << " is lost: " << why << "; " << stale
                               << " instruments are stale";
                      });
}

void ZelProvider::OnTransportMessage(const TransportAddress& from, std::span<const std::byte> payload)
{
    ZelMarket* const market = FindMarket(from.market);
    if (market == nullptr || !m_transport->IsConnected())
    {
        return; // of a market that this server does not have; or left over from a connection that is gone
    }
    if (from.channel == TransportChannel::Prices)
    {
        // What comes too fast waits here, and then with the transport, which drops what is too much even for that.
        if (m_pools.budget->WaitForRoom(2))
        {
            OnPrices(*market, payload);
        }
        return;
    }
    OnControl(*market, payload);
}

void ZelProvider::NoteRefused(const TransportAddress& from)
{
    if (m_counts.refused++ == 0)
    {
        zel::logging::Log(30, ZelLogSource(),
                          [&](std::ostream& text) {
                              text << "a message of market " << from.market
                                   << " cannot be read: it is damaged, or of another version";
                          });
    }
}

/// Notes that the market's publisher lives. False: the epoch is not the one whose directory is in use.
bool ZelProvider::IsHeard(ZelMarket& market, std::uint64_t epoch)
{
    if (epoch < market.epoch)
    {
        return false; // late, or of a publisher that another has replaced
    }
    if (epoch > market.epoch)
    {
        // Until its directory is there, what is shown gets nothing: the market is as silent as without a publisher.
        if (!std::exchange(market.wantsDirectory, true))
        {
            Wake();
        }
        return false;
    }
    market.lastHeard = m_options.now();
    if (std::exchange(market.isLost, false))
    {
        zel::logging::Log(10, ZelLogSource(),
                          [&](std::ostream& text) { text << "the feed of market " << market.name << " is there"; });
        Wake();
    }
    return true;
}

void ZelProvider::OnPrices(ZelMarket& market, std::span<const std::byte> payload)
{
    const ScopedRoleLock lock(m_mutex, m_role);
    const std::optional<WireHeader> header = ReadHeader(payload);
    if (!header)
    {
        NoteRefused({TransportChannel::Prices, market.name, {}});
        return;
    }
    if (!IsHeard(market, header->epoch))
    {
        return;
    }
    ZelInstrument* const instrument = market.FindByIndex(header->index);
    if (instrument == nullptr || instrument->state == ZelInstrument::State::Idle)
    {
        return;
    }
    ++m_counts.messages;
    if (header->kind == WireKind::Trades)
    {
        OnTrades(*instrument, header->sequence, payload);
    }
    else
    {
        OnBook(*instrument, header->sequence, payload);
    }
}

void ZelProvider::OnBook(ZelInstrument& instrument, std::uint64_t sequence, std::span<const std::byte> payload)
{
    using State = ZelInstrument::State;
    const bool isImage = static_cast<WireKind>(payload[1]) == WireKind::Image;
    if (instrument.state == State::Live && sequence <= instrument.sequence)
    {
        return; // an image that another server has asked for
    }
    if (!isImage && (instrument.state == State::Awaiting || sequence != instrument.sequence + 1))
    {
        if (instrument.state == State::Live)
        {
            ++m_counts.gaps;
            Await(instrument);
            Wake();
        }
        return;
    }
    if (!ReadBook(payload, m_message))
    {
        NoteRefused({TransportChannel::Prices, instrument.market.name, {}});
        return; // the next message shows the gap
    }
    instrument.sequence = sequence;
    if (instrument.state == State::Awaiting)
    {
        instrument.state = State::Live;
        ++m_counts.live;
        instrument.feed.SetStale(false);
    }
    m_counts.images += isImage ? 1 : 0;
    instrument.feed.Publish(m_message, m_pools);
}

/// Trades have no image: they are passed on whatever the book's state is, once each.
void ZelProvider::OnTrades(ZelInstrument& instrument, std::uint64_t sequence, std::span<const std::byte> payload)
{
    m_message.Clear();
    if (!ReadTrades(payload, m_message.trades))
    {
        NoteRefused({TransportChannel::Prices, instrument.market.name, {}});
        return;
    }
    if (instrument.state == ZelInstrument::State::Live)
    {
        if (sequence <= instrument.sequence)
        {
            return;
        }
        if (sequence != instrument.sequence + 1)
        {
            ++m_counts.gaps;
            Await(instrument);
            Wake();
        }
        instrument.sequence = sequence;
    }
    instrument.feed.Publish(m_message, m_pools);
}

} // namespace ps_ns
