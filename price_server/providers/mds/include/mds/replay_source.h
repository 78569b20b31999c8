#pragma once

#include "mds/market_source.h"
#include "mds/replay_merger.h"
#include "simple_subscription/market_table.h"

#include <memory>
#include <string>
#include <vector>

namespace ps_ns
{

struct RecordingScan;

struct ReplayOptions
{
    std::vector<std::string> files;
    bool loops = false; ///< starts over at the end, in a new epoch
    /// Files recorded on different days are replayed as if they had begun together. Their rows keep their times.
    bool alignsStarts = false;
};

/// Recorded files as a market source: one pass for the directory, then the messages merged by time.
///
/// When the replay starts over, a new epoch begins with an empty image of every instrument, at the time of the first
/// message: no book outlives its pass. Recordings without any message end at once, loop or not.
///
/// What is wrong with the files is reported in the directory's pass; later passes skip it in silence.
///
/// Threads: as IMarketSource.
class ReplaySource final : public IMarketSource
{
public:
    /// An instrument whose market is not in `markets` is reported and passed over.
    ReplaySource(ReplayOptions options, MarketTable markets, ProblemSink sink = LogProblems());

    /// Throws when a file cannot be opened or does not begin with a recording's header.
    void Check() override;
    std::vector<short> GetMarketIds() const override;
    void Open(const std::atomic<bool>& stop) override;
    const std::vector<SourceInstrument>& GetInstruments() const override { return m_instruments; }
    std::optional<NextMessage> Peek() override;
    bool Next(MarketMessage& message) override;
    bool IsDamaged() const override { return m_isDamaged; }

private:
    void AddInstruments(const RecordingScan& scan);
    void AlignStarts(const std::vector<std::uint64_t>& firstTimes_ns);
    bool Prepare();
    void FillEmptyImage(MarketMessage& message);

    const ReplayOptions m_options;
    const MarketTable m_markets;
    const ProblemSink m_sink;
    std::vector<ReplayMerger::File> m_files;
    std::vector<SourceInstrument> m_instruments;
    InstrumentNames m_names;
    std::unique_ptr<ReplayMerger> m_merger;
    std::uint64_t m_epoch = 0;
    bool m_isDamaged = false;     ///< a file ends early: its directory's pass has said so
    std::size_t m_imagesOwed = 0; ///< instruments, from the last down, that the new epoch has not emptied yet
    bool m_hasMessages = false;   ///< this pass has delivered something
};

} // namespace ps_ns
