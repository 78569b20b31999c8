#include "mds/replay_source.h"

#include "mds/recording_scan.h"

#include <algorithm>
#include <map>
#include <stdexcept>
#include <utility>

namespace ps_ns
{

ReplaySource::ReplaySource(ReplayOptions options, MarketTable markets, ProblemSink sink)
    : m_options(std::move(options))
    , m_markets(std::move(markets))
    , m_sink(std::move(sink))
{
    for (const std::string& path : m_options.files)
    {
        m_files.push_back({path, 0});
    }
}

void ReplaySource::Check()
{
    for (const std::string& path : m_options.files)
    {
        std::string problem;
        ProblemLog problems(path, [&](const std::string& text) { problem = text; });
        if (!RecordingReader(path, problems).ReadHeader())
        {
            throw std::runtime_error(problem);
        }
    }
}

std::vector<short> ReplaySource::GetMarketIds() const
{
    std::vector<short> ids;
    for (const Market& market : m_markets.GetAll())
    {
        ids.push_back(market.id);
    }
    return ids;
}

void ReplaySource::Open(const std::atomic<bool>& stop)
{
    const RecordingScan scan = ScanRecordings(m_options.files, m_sink, stop);
    AddInstruments(scan);
    m_isDamaged = scan.isDamaged;
    if (m_options.alignsStarts)
    {
        AlignStarts(scan.firstTimes_ns);
    }
    m_epoch = 1;
    m_merger = std::make_unique<ReplayMerger>(m_files, m_names, KeepSilent());
}

void ReplaySource::AddInstruments(const RecordingScan& scan)
{
    struct Unknown
    {
        std::uint64_t rows = 0;
        const ScannedInstrument* first = nullptr;
    };
    std::map<std::string, Unknown> unknown;
    for (const ScannedInstrument& scanned : scan.instruments)
    {
        InstrumentIndex& index = m_names[scanned.market + ',' + scanned.symbol];
        if (const Market* const market = m_markets.FindByName(scanned.market))
        {
            index = static_cast<InstrumentIndex>(m_instruments.size());
            m_instruments.push_back(
                {market->id, scanned.market, scanned.symbol, MakePriceFormat(scanned.priceDecimals)});
            continue;
        }
        index = kNoInstrument;
        Unknown& rows = unknown[scanned.market];
        rows.first = rows.first == nullptr ? &scanned : rows.first;
        rows.rows += scanned.rows;
    }
    for (const auto& [market, rows] : unknown)
    {
        ProblemLog(m_options.files[rows.first->firstFile], m_sink)
            .Report(ProblemKind::UnknownMarket, rows.first->firstLine,
                    market + ", " + std::to_string(rows.rows) + " rows skipped");
    }
}

void ReplaySource::AlignStarts(const std::vector<std::uint64_t>& firstTimes_ns)
{
    const auto firstOfAll = std::max_element(firstTimes_ns.begin(), firstTimes_ns.end());
    for (std::size_t file = 0; file < firstTimes_ns.size(); ++file)
    {
        if (firstTimes_ns[file] != 0)
        {
            m_files[file].shift_ns = static_cast<std::int64_t>(*firstOfAll - firstTimes_ns[file]);
        }
    }
}

/// Goes on to the next pass when this one is over; false: the replay has ended.
bool ReplaySource::Prepare()
{
    if (!m_merger)
    {
        return false;
    }
    if (!m_merger->IsEmpty())
    {
        return true;
    }
    if (!m_options.loops || !m_hasMessages)
    {
        return false;
    }
    m_merger = std::make_unique<ReplayMerger>(m_files, m_names, KeepSilent());
    m_hasMessages = false;
    if (m_merger->IsEmpty())
    {
        return false;
    }
    ++m_epoch;
    m_imagesOwed = m_instruments.size();
    return true;
}

std::optional<NextMessage> ReplaySource::Peek()
{
    if (!Prepare())
    {
        return std::nullopt;
    }
    return NextMessage{m_epoch, m_merger->PeekTime_ns()};
}

bool ReplaySource::Next(MarketMessage& message)
{
    if (!Prepare())
    {
        return false;
    }
    message.epoch = m_epoch;
    if (m_imagesOwed != 0)
    {
        FillEmptyImage(message);
        return true;
    }
    m_hasMessages = true;
    return m_merger->Next(message);
}

void ReplaySource::FillEmptyImage(MarketMessage& message)
{
    message.Clear();
    message.isImage = true;
    message.instrument = static_cast<InstrumentIndex>(--m_imagesOwed);
    message.sourceTime_ns = message.receiveTime_ns = m_merger->PeekTime_ns();
    message.exchangeTime_ns = 0;
    message.venueSequence = 0;
}

} // namespace ps_ns
