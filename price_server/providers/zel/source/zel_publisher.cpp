#include "zel/zel_publisher.h"

#include "logging/logging.h"
#include "zel/zel_log.h"

#include <algorithm>
#include <limits>
#include <stdexcept>
#include <utility>

namespace ps_ns
{
namespace
{

constexpr short kEveryMarket = -1;
constexpr std::uint64_t kNever = std::numeric_limits<std::uint64_t>::max();

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
    constexpr std::size_t kMostWaitingBytes = 8'000'000;
    {
        const std::lock_guard lock(m_mutex);
        if (m_inbox.requests.size() >= kMostWaiting || m_inbox.bytes + payload.size() > kMostWaitingBytes)
        {
            ++m_counts.dropped;
            return;
        }
        m_inbox.requests.emplace_back(from.market, std::vector<std::byte>(payload.begin(), payload.end()));
        m_inbox.bytes += payload.size();
    }
    m_hasWork.notify_all();
}

void ZelPublisher::OnTransportState(bool isConnected)
{
    {
        const std::lock_guard lock(m_mutex);
        (isConnected ? m_inbox.hasNewState : m_inbox.hasLost) = true;
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
    if (GetOwed() != 0 && m_transport.IsConnected())
    {
        return;
    }
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
    TakeState(inbox);
    for (const auto& [name, request] : inbox.requests)
    {
        const auto market = m_marketByName.find(name);
        if (m_epoch != 0 && market != m_marketByName.end())
        {
            Note(m_markets[market->second], request);
        }
    }
    PayOwed();
    const auto now = m_options.now();
    KeepSome(now);
    if (m_epoch != 0 && now >= m_nextHeartbeat)
    {
        m_nextHeartbeat = now + m_options.heartbeat;
        ++m_heartbeats;
        std::for_each(m_markets.begin(), m_markets.end(), [this](Market& market) { SendHeartbeat(market); });
    }
    return inbox.requests.size();
}

void ZelPublisher::TakeState(const Inbox& inbox)
{
    if (inbox.hasLost)
    {
        m_lostAt = std::min(m_lostAt, m_heartbeats);
    }
    if (!inbox.hasNewState)
    {
        return;
    }
    {
        const std::lock_guard lock(m_mutex);
        ++m_counts.connections;
    }
    m_epoch == 0 ? BeginEpoch() : Resume();
    for (Market& market : m_markets)
    {
        CutDirectory(market);
        market.isOwedAgain = false;
    }
    m_nextHeartbeat = {};
    m_lostAt = kNever;
    KeepAllAnew();
}

void ZelPublisher::BeginEpoch()
{
    m_epoch = std::max<std::uint64_t>(m_options.wallTime_ns(), 1);
    for (Instrument& instrument : m_instruments)
    {
        instrument.sequence = 0;
    }
    zel::logging::Log(0, ZelLogSource(),
                      [&](std::ostream& text) { text << "publishes in epoch " << m_epoch << " from now on"; });
}

/// What was sent before the outage was noticed may be lost as well, so those that moved shortly before count too. That
/// is for speed: the next heartbeats tell how far everything is, and who lacks something asks.
void ZelPublisher::Resume()
{
    constexpr std::uint64_t kHeartbeatsBefore = 50; // ten seconds: what a broker that freezes can hold back unnoticed
    for (std::size_t i = 0; i < m_instruments.size(); ++i)
    {
        const auto number = static_cast<InstrumentIndex>(i);
        Instrument& instrument = m_instruments[i];
        instrument.mayHaveLost = true;
        NoteMoved(number);
        if (instrument.sequence != 0 && instrument.movedAt + kHeartbeatsBefore >= m_lostAt)
        {
            Owe(number);
        }
    }
    zel::logging::Log(0, ZelLogSource(),
                      [&](std::ostream& text)
                      {
                          text << "publishes on in epoch " << m_epoch << ", after images of " << m_owed.size()
                               << " instruments that moved shortly before the connection broke, or since";
                      });
}

void ZelPublisher::Publish(const MarketMessage& message)
{
    Instrument& instrument = m_instruments.at(message.instrument);
    std::uint64_t sent = 0;
    std::uint64_t unsent = 0;
    if (message.HasBook())
    {
        instrument.book.Apply(message.changes, message.isImage);
        const bool isFirst = !std::exchange(instrument.hasBook, true);
        instrument.exchangeTime_ns = message.exchangeTime_ns;
        instrument.receiveTime_ns = message.receiveTime_ns;
        instrument.venueSequence = message.venueSequence;
        ++(SendBook(instrument, message) ? sent : unsent);
        if (message.isImage)
        {
            KeepAsItGoesOut(instrument);
        }
        NoteToKeep(message.instrument, isFirst ? std::chrono::milliseconds(0) : m_options.lastValueRound);
    }
    if (!message.trades.empty())
    {
        ++(SendTrades(instrument, message) ? sent : unsent);
    }
    instrument.movedAt = m_heartbeats;
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
            SendControl(market);
            if (market.nextPart < market.parts.size())
            {
                CutDirectory(market); // all parts bear one revision
            }
        }
    }
    return made;
}

} // namespace ps_ns
