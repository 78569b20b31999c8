#pragma once

#include "composite_instrument/price_format.h"
#include "mds/problem_log.h"
#include "simple_subscription/market_table.h"

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

namespace ps_ns
{

/// An instrument as the recordings name it.
struct ScannedInstrument
{
    std::string market;
    std::string symbol;
    unsigned priceDecimals = 0; ///< the most digits that a price had behind the point
    std::uint64_t rows = 0;
    std::uint64_t firstLine = 0; ///< where it appears first
    std::size_t firstFile = 0;   ///< index of that file
};

/// What one pass over recorded files tells of them.
struct RecordingScan
{
    std::vector<ScannedInstrument> instruments; ///< in order of appearance
    std::vector<std::string> markets;           ///< in order of appearance
    std::vector<std::uint64_t> firstTimes_ns;   ///< of each file; 0: it has no rows
    std::uint64_t rows = 0;                     ///< good ones
    std::uint64_t problems = 0;
    bool isDamaged = false;  ///< a file, or its frame, ends early or cannot be read to its end
    bool wasStopped = false; ///< the rest is then not complete
};

/// Reads the files from front to back in fixed memory. Problems go to `sink`. Ends early once `stop` is true.
/// Throws std::runtime_error, naming the path, when a file cannot be opened.
RecordingScan ScanRecordings(const std::vector<std::string>& files, const ProblemSink& sink,
                             const std::atomic<bool>& stop);

/// Ids 1, 2, ... in order of appearance: for a server whose configuration names no markets.
MarketTable MakeMarketTable(const RecordingScan& scan);

/// How prices with that many digits behind the point are read and shown. The denominator is 0 where 10^decimals does
/// not fit its 32 bits.
PriceFormat MakePriceFormat(unsigned decimals);

} // namespace ps_ns
