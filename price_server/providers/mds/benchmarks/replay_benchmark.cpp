#include "mds/level_book.h"
#include "mds/mds_provider.h"
#include "mds/recording_reader.h"
#include "mds/recording_scan.h"
#include "mds/replay_source.h"

#include <benchmark/benchmark.h>

namespace ps_ns
{
namespace
{

const std::string kRecording = std::string(PRICE_SERVER_DATA) + "/three_segments/usdm.csv.zst";

std::vector<std::string> MakeLines()
{
    ProblemLog problems(kRecording, KeepSilent());
    const auto stream = OpenByteStream(kRecording);
    std::string text;
    std::string part(65'536, '\0');
    while (const std::size_t got = stream->Read(part.data(), part.size()))
    {
        text.append(part, 0, got);
    }
    std::vector<std::string> lines;
    for (std::size_t begin = 0; begin < text.size();)
    {
        const std::size_t end = text.find('\n', begin);
        lines.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    lines.erase(lines.begin());
    return lines;
}

/// Text of a row to its values, nothing else.
void ParseRows(benchmark::State& state)
{
    const std::vector<std::string> lines = MakeLines();
    RowParser parser;
    RecordingRow row;
    for (auto _ : state)
    {
        for (const std::string& line : lines)
        {
            benchmark::DoNotOptimize(parser.Parse(line, row));
        }
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(lines.size()));
}
BENCHMARK(ParseRows)->Unit(benchmark::kMillisecond);

/// Compressed file to rows.
void ReadRows(benchmark::State& state)
{
    std::int64_t rows = 0;
    for (auto _ : state)
    {
        ProblemLog problems(kRecording, KeepSilent());
        RecordingReader reader(kRecording, problems);
        RecordingRow row;
        while (reader.Next(row))
        {
            ++rows;
        }
    }
    state.SetItemsProcessed(rows);
}
BENCHMARK(ReadRows)->Unit(benchmark::kMillisecond);

/// Listens and lets go at once.
class IdleListener final : public IComponentListener
{
public:
    void OnSubscribed(ps_messages_ns::SubscriptionResult::Value, const PriceFormat&) override {}
    void OnBook(std::shared_ptr<const BookUpdate> update) override { benchmark::DoNotOptimize(update.get()); }
    void OnTrades(std::shared_ptr<const std::vector<Trade>> trades) override { benchmark::DoNotOptimize(trades.get()); }
    void OnCustomFields(std::shared_ptr<const CustomFields>) override {}
    void OnUnsubscribed(bool) override {}
};

/// Compressed file to books and updates, without the directory's pass; range(0): listeners of each instrument.
void ReplayBooks(benchmark::State& state)
{
    const std::atomic<bool> stop{false};
    const RecordingScan scan = ScanRecordings({kRecording}, KeepSilent(), stop);
    const MarketTable markets = MakeMarketTable(scan);
    std::int64_t rows = 0;
    for (auto _ : state)
    {
        state.PauseTiming();
        ReplayOptions replay;
        replay.files = {kRecording};
        MdsOptions options;
        options.isHandDriven = true;
        MdsProvider provider(std::make_unique<ReplaySource>(replay, markets), options);
        provider.Start();
        for (const DirectoryEntry& entry : provider.GetDirectory().GetEntries())
        {
            for (std::int64_t listener = 0; listener < state.range(0); ++listener)
            {
                ComponentRequest request;
                request.submarket = entry.submarket;
                request.symbol = entry.symbol;
                request.scope.trades = true;
                provider.Subscribe(request, std::make_shared<IdleListener>());
            }
        }
        state.ResumeTiming();
        while (provider.Step())
        {
        }
        rows += static_cast<std::int64_t>(scan.rows);
    }
    state.SetItemsProcessed(rows);
}
BENCHMARK(ReplayBooks)->Arg(0)->Arg(1)->Arg(10)->Unit(benchmark::kMillisecond);

} // namespace
} // namespace ps_ns

BENCHMARK_MAIN();
