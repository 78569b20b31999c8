#include "mds/recording_scan.h"

#include "mds/recording_reader.h"
#include "mds/text_hash.h"

#include <algorithm>

namespace ps_ns
{
namespace
{

class Scanner
{
public:
    Scanner(RecordingScan& scan, const ProblemSink& sink, const std::atomic<bool>& stop)
        : m_scan(scan)
        , m_sink(sink)
        , m_stop(stop)
    {
    }

    void ScanFile(const std::string& path, std::size_t file)
    {
        ProblemLog problems(path, m_sink);
        RecordingReader reader(path, problems);
        RecordingRow row;
        m_scan.firstTimes_ns.push_back(0);
        std::uint64_t rows = 0;
        while (reader.Next(row))
        {
            if (rows++ == 0)
            {
                m_scan.firstTimes_ns.back() = row.receiveTime_ns;
            }
            Note(row, file, reader.GetLine());
            constexpr std::uint64_t kRowsBetweenLooks = 4096;
            if (rows % kRowsBetweenLooks == 0 && m_stop.load(std::memory_order_relaxed))
            {
                m_scan.wasStopped = true;
                break;
            }
        }
        problems.Summarise();
        m_scan.rows += rows;
        m_scan.problems += problems.GetTotal();
        m_scan.isDamaged = m_scan.isDamaged || problems.GetCount(ProblemKind::Unreadable) != 0;
    }

private:
    void Note(const RecordingRow& row, std::size_t file, std::uint64_t line)
    {
        if (m_last == nullptr || row.instrument != m_lastKey)
        {
            const auto found = m_indexByName.find(row.instrument);
            const std::size_t index = found == m_indexByName.end() ? Add(row, file, line) : found->second;
            m_lastKey = row.instrument;
            m_last = &m_scan.instruments[index];
        }
        m_last->priceDecimals = std::max(m_last->priceDecimals, row.priceDecimals);
        ++m_last->rows;
    }

    std::size_t Add(const RecordingRow& row, std::size_t file, std::uint64_t line)
    {
        const std::size_t index = m_scan.instruments.size();
        m_indexByName.emplace(row.instrument, index);
        m_scan.instruments.push_back({std::string(row.market), std::string(row.symbol), 0, 0, line, file});
        if (std::find(m_scan.markets.begin(), m_scan.markets.end(), row.market) == m_scan.markets.end())
        {
            m_scan.markets.emplace_back(row.market);
        }
        return index;
    }

    RecordingScan& m_scan;
    const ProblemSink& m_sink;
    const std::atomic<bool>& m_stop;
    TextMap<std::size_t> m_indexByName;
    ScannedInstrument* m_last = nullptr; ///< of the row before: neighbours mostly share their instrument
    std::string m_lastKey;
};

} // namespace

RecordingScan ScanRecordings(const std::vector<std::string>& files, const ProblemSink& sink,
                             const std::atomic<bool>& stop)
{
    RecordingScan scan;
    Scanner scanner(scan, sink, stop);
    for (std::size_t file = 0; file < files.size() && !scan.wasStopped; ++file)
    {
        scanner.ScanFile(files[file], file);
    }
    return scan;
}

MarketTable MakeMarketTable(const RecordingScan& scan)
{
    std::vector<Market> markets;
    for (const std::string& name : scan.markets)
    {
        Market market;
        market.id = static_cast<short>(markets.size() + 1);
        market.name = name;
        markets.push_back(std::move(market));
    }
    return MarketTable(std::move(markets));
}

PriceFormat MakePriceFormat(unsigned decimals)
{
    constexpr unsigned kLargestPower = 9; // 10^9 is the largest that fits
    PriceFormat format;
    format.fractionDigits = decimals;
    if (decimals <= kLargestPower)
    {
        format.denominator = 1;
        for (unsigned i = 0; i < decimals; ++i)
        {
            format.denominator *= 10;
        }
    }
    return format;
}

} // namespace ps_ns
