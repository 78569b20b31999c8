/// What is put with the broker for the time after this publisher.

#include "zel/zel_publisher.h"

#include <algorithm>
#include <utility>

namespace ps_ns
{
namespace
{

constexpr std::chrono::milliseconds kBetweenTries{200}; // with a broker that keeps nothing
constexpr std::size_t kMostLooked = 64;                 // instruments without a change, in one Tick

} // namespace

void ZelPublisher::NoteToKeep(InstrumentIndex number, std::chrono::milliseconds wait)
{
    if (m_options.keepsLastValues && !std::exchange(m_instruments[number].isToBeKept, true))
    {
        m_toKeep.emplace_back(number, m_options.now() + wait);
    }
}

/// The broker is another one, or has lost what it kept.
void ZelPublisher::KeepAllAnew()
{
    for (const auto& [number, time] : std::exchange(m_toKeep, {}))
    {
        m_instruments[number].isToBeKept = false;
    }
    for (InstrumentIndex number = 0; number < m_instruments.size(); ++number)
    {
        m_instruments[number].keptEpoch = 0;
        if (m_instruments[number].hasBook)
        {
            NoteToKeep(number, std::chrono::milliseconds(0));
        }
    }
    for (Market& market : m_markets)
    {
        market.keptParts.clear();
    }
    m_notKeptBefore = {};
}

/// As much as there is credit for, when nobody waits for anything.
void ZelPublisher::KeepSome(TimePoint now)
{
    if (!m_options.keepsLastValues || m_epoch == 0 || GetOwed() != 0 || now < m_notKeptBefore)
    {
        return;
    }
    const std::int64_t most = m_options.lastValueBytes_perSecond / 10;
    const auto passed = std::min<TimePoint::duration>(now - m_creditAt, std::chrono::seconds(1));
    const auto passed_ms = std::chrono::duration_cast<std::chrono::milliseconds>(passed).count();
    if (passed_ms != 0)
    {
        m_creditAt = now;
        m_keepCredit = std::min(most, m_keepCredit + m_options.lastValueBytes_perSecond * passed_ms / 1000);
    }
    const bool isTaken =
        std::all_of(m_markets.begin(), m_markets.end(), [&](Market& market) { return KeepDirectory(market, now); }) &&
        KeepChanged(now) && KeepUnchanged(now);
    if (!isTaken)
    {
        m_notKeptBefore = now + kBetweenTries;
    }
}

void ZelPublisher::SaveLastValues()
{
    constexpr std::int64_t kMostBytes = 256'000'000;
    if (!m_options.keepsLastValues || m_epoch == 0)
    {
        return;
    }
    m_keepCredit = kMostBytes;
    const TimePoint now = m_options.now();
    for (auto& [number, time] : m_toKeep)
    {
        time = now;
    }
    if (std::all_of(m_markets.begin(), m_markets.end(), [&](Market& market) { return KeepDirectory(market, now); }))
    {
        KeepChanged(now);
    }
    m_keepCredit = 0;
}

/// False, as of the next three: the broker takes nothing.
bool ZelPublisher::KeepDirectory(Market& market, TimePoint now)
{
    const bool isDone = market.nextKeptPart == market.keptParts.size();
    if (market.keptParts.empty() || market.keptRevision != market.revision ||
        (isDone && now - market.keptAt > m_options.lastValueRefresh))
    {
        market.keptParts = CutIntoParts(market);
        market.nextKeptPart = 0;
        market.keptRevision = market.revision;
        market.keptAt = now;
    }
    for (; market.nextKeptPart < market.keptParts.size() && m_keepCredit > 0; ++market.nextKeptPart)
    {
        WritePart(market, market.keptParts, market.nextKeptPart);
        if (!Keep({TransportChannel::LastValues, market.name, {}, static_cast<std::uint32_t>(market.nextKeptPart)},
                  market.wasTooLarge))
        {
            return false;
        }
    }
    return true;
}

bool ZelPublisher::KeepChanged(TimePoint now)
{
    while (!m_toKeep.empty() && m_toKeep.front().second <= now && m_keepCredit > 0)
    {
        Instrument& instrument = m_instruments[m_toKeep.front().first];
        const bool isThere = instrument.keptEpoch == m_epoch && instrument.keptSequence == instrument.sequence;
        if (!isThere && !KeepImage(instrument, now))
        {
            return false;
        }
        instrument.isToBeKept = false;
        m_toKeep.pop_front();
    }
    return true;
}

/// Round and round.
bool ZelPublisher::KeepUnchanged(TimePoint now)
{
    for (std::size_t looked = 0; looked < std::min(kMostLooked, m_instruments.size()) && m_keepCredit > 0; ++looked)
    {
        Instrument& instrument = m_instruments[m_nextRefreshed % m_instruments.size()];
        if (instrument.hasBook && !instrument.isToBeKept && now - instrument.keptAt > m_options.lastValueRefresh &&
            !KeepImage(instrument, now))
        {
            return false;
        }
        ++m_nextRefreshed;
    }
    return true;
}

bool ZelPublisher::KeepImage(Instrument& instrument, TimePoint now)
{
    WriteImage(instrument);
    return KeepWritten(instrument, now);
}

/// The buffer has its image.
bool ZelPublisher::KeepWritten(Instrument& instrument, TimePoint now)
{
    if (!Keep({TransportChannel::LastValues, m_markets[instrument.market].name, instrument.firstSymbol},
              instrument.wasTooLarge))
    {
        return false;
    }
    instrument.keptAt = now;
    instrument.keptEpoch = m_epoch;
    instrument.keptSequence = instrument.sequence;
    const std::lock_guard lock(m_mutex);
    ++m_counts.kept;
    return true;
}

/// As it is in the buffer. Without credit it waits for its turn.
void ZelPublisher::KeepAsItGoesOut(Instrument& instrument)
{
    if (m_options.keepsLastValues && m_keepCredit > 0)
    {
        KeepWritten(instrument, m_options.now());
    }
}

/// What is too large for the broker counts as put there: another try would do no better.
bool ZelPublisher::Keep(const TransportAddress& to, bool& wasTooLarge)
{
    if (!Send(to, wasTooLarge))
    {
        return m_buffer.size() > kLargestWireMessage;
    }
    m_keepCredit -= static_cast<std::int64_t>(m_buffer.size());
    return true;
}

} // namespace ps_ns
