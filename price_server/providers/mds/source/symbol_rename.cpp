#include "mds/symbol_rename.h"

#include <algorithm>
#include <set>
#include <utility>

namespace ps_ns
{

std::vector<SymbolRename> OrderRenames(std::vector<SymbolRename> renames)
{
    // A symbol is renamed once: what says so again would be set aside again and again.
    std::set<std::pair<short, std::string>> seen;
    std::erase_if(renames,
                  [&](const SymbolRename& rename) { return !seen.emplace(rename.marketId, rename.oldSymbol).second; });
    std::vector<SymbolRename> ordered;
    while (!renames.empty())
    {
        const auto isFree = [&](const SymbolRename& candidate)
        {
            return std::none_of(renames.begin(), renames.end(),
                                [&](const SymbolRename& other) {
                                    return &other != &candidate && other.marketId == candidate.marketId &&
                                           other.oldSymbol == candidate.newSymbol;
                                });
        };
        const auto next = std::find_if(renames.begin(), renames.end(), isFree);
        if (next != renames.end())
        {
            ordered.push_back(*next);
            renames.erase(next);
            continue;
        }
        // Every new name is somebody's old one: a circle. One of them steps aside.
        SymbolRename& first = renames.front();
        const std::string aside = "\x01" + first.oldSymbol;
        ordered.push_back({first.marketId, first.oldSymbol, aside});
        first.oldSymbol = aside;
    }
    return ordered;
}

} // namespace ps_ns
