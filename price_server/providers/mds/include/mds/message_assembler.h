#pragma once

#include "mds/market_source.h"
#include "mds/recording_reader.h"
#include "mds/text_hash.h"

#include <string>

namespace ps_ns
{

/// Instruments by "market,symbol", as rows spell it. kNoInstrument: known, and to be passed over.
using InstrumentNames = TextMap<InstrumentIndex>;

/// Puts the rows of one file together to venue messages.
///
/// A message ends with the row that says so. It also ends, and is reported, where the next row bears another
/// instrument, time or venue sequence, or the file ends: then its last row was lost, and what there is of it counts.
///
/// An image that follows changes in one message replaces them; changes that follow an image become part of it.
///
/// Gaps in the venue's sequence are not looked for: the recordings keep the venue's number, but not the rule it is
/// given by. Some venues count messages, some count what happened anywhere in the segment, some send none; a jump says
/// nothing by itself.
///
/// Threads: one at a time.
class MessageAssembler
{
public:
    /// All three must outlive the assembler.
    MessageAssembler(RecordingReader& reader, const InstrumentNames& names, ProblemLog& problems);

    /// The next message; false at the end. Leaves `epoch` and `sourceTime_ns` alone.
    bool Next(MarketMessage& message);

private:
    bool NextRow();
    InstrumentIndex Find(std::string_view instrument);
    void Append(MarketMessage& message);
    bool AppendAlike(MarketMessage& message);
    bool IsOf(const MarketMessage& message) const;
    static void PutIntoImage(MarketMessage& message, const BookUpdate::Change& change);

    RecordingReader& m_reader;
    const InstrumentNames& m_names;
    ProblemLog& m_problems;
    RecordingRow m_row;
    InstrumentIndex m_rowInstrument = kNoInstrument;
    bool m_hasRow = false; ///< m_row is read and not used
    std::string m_lastName;
    InstrumentIndex m_lastInstrument = kNoInstrument;
};

} // namespace ps_ns
