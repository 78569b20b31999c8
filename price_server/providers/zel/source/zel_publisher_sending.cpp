/// What goes out beside updates and trades: what is owed to who has asked, and heartbeats.

#include "logging/logging.h"
#include "zel/zel_log.h"
#include "zel/zel_publisher.h"

#include <algorithm>
#include <utility>

namespace ps_ns
{
namespace
{

constexpr std::size_t kDirectoryPart = 200'000; // bytes: a part and its header are far below what a broker takes
constexpr std::size_t kMostProgress = 50'000;   // of twelve bytes each in one heartbeat: below what a broker takes

} // namespace

// --- What is owed ----------------------------------------------------------------------------------------------------

void ZelPublisher::Note(Market& market, WireBytes request)
{
    const std::optional<WireHeader> header = ReadHeader(request);
    if (!header)
    {
        return;
    }
    if (header->kind == WireKind::DirectoryRequest)
    {
        NoteDirectory(market);
        return;
    }
    const std::optional<std::vector<std::uint32_t>> indexes = ReadImageRequest(request);
    if (!indexes || header->epoch != m_epoch)
    {
        return; // who asks in an old epoch hears of the new one first
    }
    for (const std::uint32_t index : *indexes)
    {
        if (index < market.instruments.size())
        {
            Owe(market.instruments[index]);
        }
    }
}

void ZelPublisher::Owe(InstrumentIndex number)
{
    if (!std::exchange(m_instruments[number].isOwed, true))
    {
        m_owed.push_back(number);
    }
}

void ZelPublisher::NoteDirectory(Market& market)
{
    if (market.nextPart == market.parts.size())
    {
        CutDirectory(market);
    }
    else if (market.nextPart != 0)
    {
        market.isOwedAgain = true; // who asks just now may have missed the parts that have gone out
    }
    // Who asks is new, or has missed something: the next heartbeats tell how far everything is.
    std::for_each(market.instruments.begin(), market.instruments.end(),
                  [this](InstrumentIndex number) { NoteMoved(number); });
}

/// Begins the directory anew.
void ZelPublisher::CutDirectory(Market& market) const
{
    market.parts = CutIntoParts(market);
    market.nextPart = 0;
}

/// Each part's first instrument.
std::vector<std::size_t> ZelPublisher::CutIntoParts(const Market& market) const
{
    std::vector<std::size_t> parts(1, 0);
    std::size_t size = 0;
    for (std::size_t i = 0; i < market.instruments.size(); ++i)
    {
        const Instrument& instrument = m_instruments[market.instruments[i]];
        const std::size_t entry =
            GetWireSize({0, instrument.format, instrument.firstSymbol, instrument.symbol, market.name, {}});
        size += entry;
        if (size > kDirectoryPart && i != parts.back())
        {
            parts.push_back(i);
            size = entry;
        }
    }
    return parts;
}

std::size_t ZelPublisher::GetOwed() const noexcept
{
    std::size_t owed = m_owed.size();
    for (const Market& market : m_markets)
    {
        owed += market.parts.size() - market.nextPart;
    }
    return owed;
}

/// Directories first: images mean nothing without them. But they leave some room for images that are waited for.
void ZelPublisher::PayOwed()
{
    const std::size_t forDirectories = m_owed.empty() ? m_options.mostAnswerBytes : m_options.mostAnswerBytes / 2;
    std::size_t sent = 0;
    for (Market& market : m_markets)
    {
        for (bool isOver = false; !isOver && market.nextPart < market.parts.size() && sent < forDirectories;)
        {
            SendNextPart(market);
            sent += m_buffer.size();
            isOver = market.nextPart == 0; // it begins anew, and may wait for the next tick
        }
    }
    for (; !m_owed.empty() && sent < m_options.mostAnswerBytes; sent += m_buffer.size())
    {
        Instrument& instrument = m_instruments[m_owed.front()];
        m_owed.pop_front();
        instrument.isOwed = false;
        SendImage(instrument);
    }
}

void ZelPublisher::SendNextPart(Market& market)
{
    WritePart(market, market.parts, market.nextPart++);
    SendControl(market);
    if (market.nextPart == market.parts.size() && std::exchange(market.isOwedAgain, false))
    {
        CutDirectory(market);
    }
}

void ZelPublisher::WritePart(const Market& market, const std::vector<std::size_t>& parts, std::size_t part)
{
    const std::size_t end = part + 1 < parts.size() ? parts[part + 1] : market.instruments.size();
    std::vector<WireInstrument> listed;
    for (std::size_t i = parts[part]; i < end; ++i)
    {
        const Instrument& instrument = m_instruments[market.instruments[i]];
        listed.push_back(
            {instrument.index, instrument.format, instrument.firstSymbol, instrument.symbol, market.name, {}});
    }
    WriteDirectory(m_buffer, {WireKind::Directory, static_cast<std::uint32_t>(part), m_epoch, market.revision},
                   static_cast<std::uint32_t>(parts.size()), listed);
}

/// The whole book as of the instrument's last message.
bool ZelPublisher::SendImage(Instrument& instrument)
{
    WriteImage(instrument);
    if (!SendPrices(instrument))
    {
        return false;
    }
    instrument.mayHaveLost = false;
    {
        const std::lock_guard lock(m_mutex);
        ++m_counts.images;
    }
    if (instrument.hasBook)
    {
        KeepAsItGoesOut(instrument);
    }
    return true;
}

void ZelPublisher::WriteImage(const Instrument& instrument)
{
    m_image.Clear();
    m_image.isImage = true;
    m_image.exchangeTime_ns = instrument.exchangeTime_ns;
    m_image.receiveTime_ns = instrument.receiveTime_ns;
    m_image.venueSequence = instrument.venueSequence;
    instrument.book.WriteImage(m_image.changes);
    WriteBook(m_buffer, {WireKind::Image, instrument.index, m_epoch, instrument.sequence}, m_image);
}

/// The next message of the instrument's book, which has it already.
bool ZelPublisher::SendBook(Instrument& instrument, const MarketMessage& message)
{
    ++instrument.sequence;
    if (instrument.mayHaveLost && !message.isImage)
    {
        return SendImage(instrument);
    }
    const WireKind kind = message.isImage ? WireKind::Image : WireKind::Update;
    WriteBook(m_buffer, {kind, instrument.index, m_epoch, instrument.sequence}, message);
    const bool isSent = SendPrices(instrument);
    instrument.mayHaveLost = instrument.mayHaveLost && !isSent;
    return isSent;
}

bool ZelPublisher::SendTrades(Instrument& instrument, const MarketMessage& message)
{
    if (instrument.mayHaveLost)
    {
        SendImage(instrument); // or the trades would show a gap
    }
    WriteTrades(m_buffer, {WireKind::Trades, instrument.index, m_epoch, ++instrument.sequence}, message.trades);
    return SendPrices(instrument);
}

// --- Sending ---------------------------------------------------------------------------------------------------------

/// Sends what is in the buffer. `wasTooLarge` remembers that the log has been told.
bool ZelPublisher::Send(const TransportAddress& to, bool& wasTooLarge)
{
    if (m_buffer.size() > kLargestWireMessage)
    {
        if (!std::exchange(wasTooLarge, true))
        {
            zel::logging::Log(30, ZelLogSource(),
                              [&](std::ostream& text)
                              {
                                  text << "a message of " << to.market << " " << to.instrument << " has "
                                       << m_buffer.size() << " bytes, more than a broker takes: it is not sent, and "
                                       << "neither are others of the kind";
                              });
        }
        return false;
    }
    if (m_epoch == 0 || !m_transport.Publish(to, m_buffer))
    {
        return false;
    }
    const std::lock_guard lock(m_mutex);
    m_counts.bytes += m_buffer.size();
    return true;
}

bool ZelPublisher::SendControl(Market& market)
{
    return Send({TransportChannel::Control, market.name, {}}, market.wasTooLarge);
}

bool ZelPublisher::SendPrices(Instrument& instrument)
{
    return Send({TransportChannel::Prices, m_markets[instrument.market].name, instrument.firstSymbol},
                instrument.wasTooLarge);
}

/// Tells of what has moved, as much as one message holds; the rest is the next one's.
void ZelPublisher::SendHeartbeat(Market& market)
{
    WireHeartbeat heartbeat;
    heartbeat.sendTime_ns = m_options.wallTime_ns();
    for (; !market.moved.empty() && heartbeat.progress.size() < kMostProgress; market.moved.pop_front())
    {
        Instrument& instrument = m_instruments[market.moved.front()];
        instrument.hasMoved = false;
        heartbeat.progress.push_back({instrument.index, instrument.sequence});
    }
    WriteHeartbeat(m_buffer, {WireKind::Heartbeat, 0, m_epoch, market.revision}, heartbeat);
    SendControl(market);
}

} // namespace ps_ns
