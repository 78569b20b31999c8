#pragma once

#include "mds/market_source.h"
#include "mds/symbol_rename.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace ps_ns
{

/// Renames that are made at one moment, as one step.
struct RenameStep
{
    std::uint64_t time_ns = 0;
    std::vector<SymbolRename> renames;
};

/// What of the renames that were asked for concerns the instruments of a source. A plain value.
///
/// A source calls its instruments by the symbols that they had at its beginning. What happened before that is in these
/// symbols already: a name that has passed from one instrument to another must not pass on once more.
struct RenamePlan
{
    std::vector<RenameStep> steps; ///< by time

    // Each rename that was asked for counts once, in one of these.
    std::size_t planned = 0;
    std::size_t over = 0;          ///< in force when the prices begin
    std::size_t notServed = 0;     ///< no market of it has the old symbol at that time
    std::size_t contradictory = 0; ///< another one of that moment gives or takes the same symbol; the first one counts

    /// "3 to come, 1 over before the prices begin, 1 of symbols that are not served"
    std::string ToString() const;
};

/// `begin_ns`: the time of the source's first message. Equal renames are one.
RenamePlan PlanRenames(std::vector<TimedRename> renames, const std::vector<SourceInstrument>& instruments,
                       std::uint64_t begin_ns);

} // namespace ps_ns
