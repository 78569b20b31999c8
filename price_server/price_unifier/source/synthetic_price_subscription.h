#pragma once

#include "composite_instrument/composite_instrument_def.h"

#include <utility>

namespace ps_ns
{

class ICompositePriceObserver;

/// A synthetic instrument's subscription. This edition refuses synthetics, so nothing makes one but tests of the
/// completion that the manager offers it.
class SyntheticPriceSubscription
{
public:
    explicit SyntheticPriceSubscription(CompositeInstrumentDef definition)
        : m_definition(std::move(definition))
    {
    }

    const CompositeInstrumentDef& GetDefinition() const noexcept { return m_definition; }

private:
    const CompositeInstrumentDef m_definition;
};

} // namespace ps_ns
