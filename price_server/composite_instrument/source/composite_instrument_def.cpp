#include "composite_instrument/composite_instrument_def.h"

namespace ps_ns
{

std::string CompositeInstrumentDef::ToString() const
{
    std::string text;
    text.reserve(96);
    text.append(instrument.symbol);
    text.append(" market=").append(std::to_string(marketId));
    text.append(" submarket=").append(std::to_string(submarketId));
    text.append(" id=").append(std::to_string(instrumentId));
    text.append(" exchange=").append(instrument.exchange);
    if (IsSyntheticComposite())
    {
        text.append(" legs=").append(std::to_string(legs.size()));
    }
    return text;
}

std::string CompositeInstrumentDef::ToStringShortCached() const
{
    return instrument.symbol + "@" + std::to_string(marketId);
}

} // namespace ps_ns
