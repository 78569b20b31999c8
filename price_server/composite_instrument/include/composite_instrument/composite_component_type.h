#pragma once

#include <cstddef>

namespace ps_ns
{

/// The sources of a composite book.
struct CompositeComponentType
{
    enum Type : int
    {
        Direct = 0,    ///< the venue's own book of the symbol
        Implied = 1,   ///< worked out from related books; a provider knows it as "IM_" + symbol
        Aggregated = 2 ///< the same asset from several venues; a provider knows it as "AI_" + symbol
    };
    static constexpr std::size_t kCount = 3;
};

} // namespace ps_ns
