/// What the transport says of connection and prices; control messages: zel_provider_directory.cpp.

#include "logging/logging.h"
#include "zel/zel_log.h"
#include "zel/zel_provider.h"
#include "zel_market.h"

#include <algorithm>
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
            market->askingForDirectory.Reset();
            market->WantLastValues();
        }
        m_connectedSince = m_options.now();
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
    market.WantLastValues();
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
        --market.awaited;
    }
    if (stale != 0)
    {
        market.lostAt = market.lostAt.value_or(m_options.now());
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
    if (from.channel == TransportChannel::Control)
    {
        OnControl(*market, payload);
        return;
    }
    // What comes too fast waits here, and then with the transport, which drops what is too much even for that.
    if (!m_pools.budget->WaitForRoom(2))
    {
        return;
    }
    if (from.channel == TransportChannel::LastValues)
    {
        OnLastValue(*market, from, payload);
        return;
    }
    OnPrices(*market, payload);
}

/// The first of a market is logged, and then one a minute at most.
void ZelProvider::NoteRefused(ZelMarket& market, const std::string& why)
{
    constexpr auto kBetweenRecords = std::chrono::minutes(1);
    ++m_counts.refused;
    ++market.refusedUnsaid;
    const TimePoint now = m_options.now();
    if (market.refusalLoggedAt && now - *market.refusalLoggedAt < kBetweenRecords)
    {
        return;
    }
    market.refusalLoggedAt = now;
    const std::uint64_t unsaid = std::exchange(market.refusedUnsaid, 0) - 1;
    zel::logging::Log(30, ZelLogSource(),
                      [&](std::ostream& text)
                      {
                          text << "market " << market.name << ": " << why;
                          if (unsaid != 0)
                          {
                              text << "; " << unsaid << " others were refused meanwhile";
                          }
                      });
}

/// Nothing has been heard of the epoch in use for so long, in which there was a connection, that a smaller one counts.
bool ZelProvider::MayGoBack(const ZelMarket& market) const
{
    const TimePoint since = std::max(market.lastHeard, m_connectedSince);
    return market.isLost && m_transport->IsConnected() && m_options.now() - since > m_options.longestSilence;
}

void ZelProvider::WantDirectory(ZelMarket& market)
{
    if (!std::exchange(market.wantsDirectory, true))
    {
        market.askingForDirectory.Reset();
        Wake();
    }
}

/// Notes that the market's publisher lives. False: the epoch is not the one whose directory is in use.
bool ZelProvider::IsHeard(ZelMarket& market, std::uint64_t epoch)
{
    if (epoch < market.epoch && !MayGoBack(market))
    {
        return false; // late, or of a publisher that another has replaced
    }
    if (epoch != market.epoch)
    {
        // Until its directory is there, what is shown gets nothing: the market is as silent as without a publisher.
        WantDirectory(market);
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
        NoteRefused(market, kUnreadable);
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
        NoteRefused(instrument.market, kUnreadable);
        return; // the next message shows the gap
    }
    m_message.epoch = instrument.market.shownEpoch;
    instrument.sequence = sequence;
    instrument.bookEpoch = instrument.market.epoch;
    instrument.bookSequence = sequence;
    if (instrument.state == State::Awaiting)
    {
        instrument.state = State::Live;
        ++m_counts.live;
        instrument.arrears.Restart(m_options.now()); // what comes behind the image is on its way
        instrument.feed.SetStale(false);
        --instrument.market.awaited;
    }
    m_counts.images += isImage ? 1 : 0;
    instrument.feed.Publish(m_message, m_pools);
    if (instrument.market.lostAt && instrument.market.awaited == 0)
    {
        NoteRecovered(instrument.market);
    }
}

/// All that is followed is live again.
void ZelProvider::NoteRecovered(ZelMarket& market)
{
    const auto time = std::chrono::duration_cast<std::chrono::milliseconds>(m_options.now() - *market.lostAt);
    market.lostAt.reset();
    zel::logging::Log(10, ZelLogSource(),
                      [&](std::ostream& text) {
                          text << "every book of market " << market.name << " is fresh again, " << time.count()
                               << " ms after the loss";
                      });
}

/// Trades have no image: they are passed on whatever the book's state is, once each.
void ZelProvider::OnTrades(ZelInstrument& instrument, std::uint64_t sequence, std::span<const std::byte> payload)
{
    m_message.Clear();
    if (!ReadTrades(payload, m_message.trades))
    {
        NoteRefused(instrument.market, kUnreadable);
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
