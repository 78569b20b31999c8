#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace ps_ns
{

struct SymbolRename
{
    short marketId = -1;
    std::string oldSymbol;
    std::string newSymbol;

    friend bool operator==(const SymbolRename&, const SymbolRename&) = default;
};

/// A rename that happens once the source's time line has come to `time_ns`, and once only, however often it loops.
struct TimedRename
{
    std::uint64_t time_ns = 0; ///< UTC: the first moment of the new symbol
    SymbolRename rename;       ///< market -1: on every market that has the old symbol then
};

/// Renames that happen together, as steps to be made one after the other without losing anybody: A to B and B to C
/// becomes B to C, then A to B. Symbols that change places go by way of a name that no venue uses: A to that name, B to
/// A, that name to B.
std::vector<SymbolRename> OrderRenames(std::vector<SymbolRename> renames);

} // namespace ps_ns
