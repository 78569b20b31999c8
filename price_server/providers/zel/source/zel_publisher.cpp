#include "zel/zel_publisher.h"

#include "logging/logging.h"
#include "zel/zel_log.h"

#include <algorithm>
#include <set>
#include <stdexcept>
#include <utility>

namespace ps_ns
{
namespace
{

constexpr std::size_t kDirectoryPart = 200'000; // bytes: a part and its header are far below what a broker takes
constexpr short kEveryMarket = -1;

} // namespace

ZelPublisher::ZelPublisher(IProviderTransport& transport, ZelPublisherOptions options)
    : m_transport(transport)
    , m_options(std::move(options))
{
}

void ZelPublisher::Start(const std::vector<SourceInstrument>& instruments)
{
    for (const SourceInstrument& listed : instruments)
    {
        const auto [place, isNew] = m_marketByName.try_emplace(listed.market, m_markets.size());
        if (isNew)
        {
            Market& market = m_markets.emplace_back();
            market.name = listed.market;
            market.id = listed.marketId;
        }
        Market& market = m_markets[place->second];
        const auto number = static_cast<InstrumentIndex>(m_instruments.size());
        Instrument& instrument = m_instruments.emplace_back();
        instrument.market = place->second;
        instrument.index = static_cast<std::uint32_t>(market.instruments.size());
        instrument.firstSymbol = instrument.symbol = listed.symbol;
        instrument.format = listed.format;
        market.instruments.push_back(number);
        market.bySymbol[listed.symbol] = number;
    }
    for (const Market& market : m_markets)
    {
        m_transport.SubscribeRequests(market.name);
    }
    m_transport.Connect(*this);
}

// --- The transport's threads -----------------------------------------------------------------------------------------

void ZelPublisher::OnTransportMessage(const TransportAddress& from, std::span<const std::byte> payload)
{
    constexpr std::size_t kMostWaiting = 100'000; // who has not been heard asks again
    {
        const std::lock_guard lock(m_mutex);
        if (m_inbox.requests.size() < kMostWaiting)
        {
            m_inbox.requests.emplace_back(from.market, std::vector<std::byte>(payload.begin(), payload.end()));
        }
    }
    m_hasWork.notify_all();
}

void ZelPublisher::OnTransportState(bool isConnected)
{
    if (!isConnected)
    {
        return;
    }
    {
        const std::lock_guard lock(m_mutex);
        m_inbox.hasNewState = true;
    }
    m_hasWork.notify_all();
}

ZelPublisherCounts ZelPublisher::GetCounts() const
{
    const std::lock_guard lock(m_mutex);
    return m_counts;
}

// --- The publisher's thread ------------------------------------------------------------------------------------------

void ZelPublisher::WaitForWork(ZelPublisherOptions::Clock::time_point until)
{
    std::unique_lock lock(m_mutex);
    m_hasWork.wait_until(lock, until, [this] { return m_inbox.hasNewState || !m_inbox.requests.empty(); });
}

std::size_t ZelPublisher::Tick()
{
    Inbox inbox;
    {
        const std::lock_guard lock(m_mutex);
        std::swap(inbox, m_inbox);
        m_counts.requests += inbox.requests.size();
    }
    if (inbox.hasNewState)
    {
        BeginEpoch();
    }
    std::set<std::pair<std::string, std::vector<std::byte>>> answered; // the same question, many times: one answer
    for (auto& request : inbox.requests)
    {
        const auto market = m_marketByName.find(request.first);
        if (m_epoch != 0 && market != m_marketByName.end() && answered.count(request) == 0)
        {
            Answer(m_markets[market->second], request.second);
            answered.insert(std::move(request));
        }
    }
    const auto now = m_options.now();
    if (m_epoch != 0 && now >= m_nextHeartbeat)
    {
        m_nextHeartbeat = now + m_options.heartbeat;
        std::for_each(m_markets.begin(), m_markets.end(), [this](Market& market) { SendHeartbeat(market); });
    }
    return inbox.requests.size();
}

void ZelPublisher::BeginEpoch()
{
    m_epoch = std::max(m_options.wallTime_ns(), m_epoch + 1);
    {
        const std::lock_guard lock(m_mutex);
        ++m_counts.epochs;
    }
    for (Instrument& instrument : m_instruments)
    {
        instrument.sequence = 0;
    }
    for (Market& market : m_markets)
    {
        SendDirectory(market);
    }
    m_nextHeartbeat = {};
}

void ZelPublisher::Publish(const MarketMessage& message)
{
    Instrument& instrument = m_instruments.at(message.instrument);
    std::uint64_t sent = 0;
    std::uint64_t unsent = 0;
    if (message.HasBook())
    {
        instrument.book.Apply(message.changes, message.isImage);
        instrument.hasBook = true;
        instrument.exchangeTime_ns = message.exchangeTime_ns;
        instrument.receiveTime_ns = message.receiveTime_ns;
        instrument.venueSequence = message.venueSequence;
        const WireKind kind = message.isImage ? WireKind::Image : WireKind::Update;
        WriteBook(m_buffer, {kind, instrument.index, m_epoch, ++instrument.sequence}, message);
        ++(SendPrices(instrument) ? sent : unsent);
    }
    if (!message.trades.empty())
    {
        WriteTrades(m_buffer, {WireKind::Trades, instrument.index, m_epoch, ++instrument.sequence}, message.trades);
        ++(SendPrices(instrument) ? sent : unsent);
    }
    NoteMoved(message.instrument);
    const std::lock_guard lock(m_mutex);
    m_counts.messages += sent;
    m_counts.unsent += unsent;
}

void ZelPublisher::NoteMoved(InstrumentIndex number)
{
    Instrument& instrument = m_instruments[number];
    if (!std::exchange(instrument.hasMoved, true))
    {
        m_markets[instrument.market].moved.push_back(number);
    }
}

std::vector<SymbolRename> ZelPublisher::Rename(std::span<const SymbolRename> renames)
{
    std::vector<SymbolRename> made;
    for (Market& market : m_markets)
    {
        std::vector<WireRename> step;
        std::vector<InstrumentIndex> movers;
        for (const SymbolRename& rename : renames)
        {
            const auto found = market.bySymbol.find(rename.oldSymbol);
            if ((rename.marketId == kEveryMarket || rename.marketId == market.id) && found != market.bySymbol.end() &&
                rename.oldSymbol != rename.newSymbol)
            {
                step.push_back({m_instruments[found->second].index, rename.oldSymbol, rename.newSymbol});
                movers.push_back(found->second);
                made.push_back({market.id, rename.oldSymbol, rename.newSymbol});
                market.bySymbol.erase(found);
            }
        }
        for (std::size_t i = 0; i < step.size(); ++i)
        {
            market.bySymbol[step[i].newSymbol] = movers[i];
            m_instruments[movers[i]].symbol = step[i].newSymbol;
        }
        if (!step.empty())
        {
            ++market.revision;
            WriteRenames(m_buffer, {WireKind::Rename, 0, m_epoch, market.revision}, step);
            Send({TransportChannel::Control, market.name, {}});
        }
    }
    return made;
}

// --- Sending ---------------------------------------------------------------------------------------------------------

/// Sends what is in the buffer.
bool ZelPublisher::Send(const TransportAddress& to)
{
    if (m_buffer.size() > kLargestWireMessage)
    {
        zel::logging::Log(30, ZelLogSource(),
                          [&](std::ostream& text)
                          {
                              text << "a message of " << to.market << " " << to.instrument << " has " << m_buffer.size()
                                   << " bytes, more than a broker takes: it is not sent";
                          });
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

bool ZelPublisher::SendPrices(const Instrument& instrument)
{
    return Send({TransportChannel::Prices, m_markets[instrument.market].name, instrument.firstSymbol});
}

void ZelPublisher::SendImage(Instrument& instrument)
{
    m_image.Clear();
    m_image.isImage = true;
    m_image.exchangeTime_ns = instrument.exchangeTime_ns;
    m_image.receiveTime_ns = instrument.receiveTime_ns;
    m_image.venueSequence = instrument.venueSequence;
    instrument.book.WriteImage(m_image.changes);
    WriteBook(m_buffer, {WireKind::Image, instrument.index, m_epoch, instrument.sequence}, m_image);
    if (SendPrices(instrument))
    {
        const std::lock_guard lock(m_mutex);
        ++m_counts.images;
    }
}

void ZelPublisher::SendDirectory(Market& market)
{
    std::vector<std::vector<WireInstrument>> parts(1);
    std::size_t size = 0;
    for (const InstrumentIndex number : market.instruments)
    {
        const Instrument& instrument = m_instruments[number];
        WireInstrument listed{instrument.index,  instrument.format, instrument.firstSymbol,
                              instrument.symbol, market.name,       {}};
        size += GetWireSize(listed);
        if (size > kDirectoryPart)
        {
            parts.emplace_back();
            size = GetWireSize(listed);
        }
        parts.back().push_back(std::move(listed));
    }
    for (std::uint32_t part = 0; part < parts.size(); ++part)
    {
        WriteDirectory(m_buffer, {WireKind::Directory, part, m_epoch, market.revision},
                       static_cast<std::uint32_t>(parts.size()), parts[part]);
        Send({TransportChannel::Control, market.name, {}});
    }
}

void ZelPublisher::SendHeartbeat(Market& market)
{
    constexpr std::size_t kMostInOne = 50'000; // twelve bytes each: below what a broker takes as one message
    WireHeartbeat heartbeat;
    heartbeat.sendTime_ns = m_options.wallTime_ns();
    const auto send = [&]
    {
        WriteHeartbeat(m_buffer, {WireKind::Heartbeat, 0, m_epoch, market.revision}, heartbeat);
        Send({TransportChannel::Control, market.name, {}});
        heartbeat.progress.clear();
    };
    for (const InstrumentIndex number : market.moved)
    {
        m_instruments[number].hasMoved = false;
        heartbeat.progress.push_back({m_instruments[number].index, m_instruments[number].sequence});
        if (heartbeat.progress.size() == kMostInOne)
        {
            send();
        }
    }
    market.moved.clear();
    send();
}

void ZelPublisher::Answer(Market& market, WireBytes request)
{
    const std::optional<WireHeader> header = ReadHeader(request);
    if (!header)
    {
        return;
    }
    if (header->kind == WireKind::DirectoryRequest)
    {
        SendDirectory(market);
        // Who asks is new, or has missed something: the next heartbeat tells how far everything is.
        std::for_each(market.instruments.begin(), market.instruments.end(),
                      [this](InstrumentIndex number) { NoteMoved(number); });
        return;
    }
    const std::optional<std::vector<std::uint32_t>> indexes = ReadImageRequest(request);
    if (!indexes || header->epoch != m_epoch)
    {
        return; // who asks in an old epoch hears of the new one first
    }
    for (const std::uint32_t index : *indexes)
    {
        if (index < market.instruments.size() && m_instruments[market.instruments[index]].hasBook)
        {
            SendImage(m_instruments[market.instruments[index]]);
        }
    }
}

} // namespace ps_ns
