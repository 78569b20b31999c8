#pragma once

#include "composite_instrument/composite_instrument_def.h"

#include <cstdint>
#include <string>

namespace compare
{

/// A definition as clients have them: three strings that do not fit into std::string itself, a small map, the scalars.
inline ps_ns::CompositeInstrumentDef MakeSampleDef(std::uint64_t id)
{
    ps_ns::CompositeInstrumentDef def;
    def.instrumentId = id;
    def.marketId = 1;
    def.instrument = {"INSTRUMENT-WITH-A-NAME-" + std::to_string(id), "EXCHANGE-WITH-A-LONG-NAME"};
    def.currency = "US dollars, spelled out";
    def.properties = {{1, "one"}, {2, "two"}, {3, "a property that does not fit into a short string"}};
    return def;
}

} // namespace compare
