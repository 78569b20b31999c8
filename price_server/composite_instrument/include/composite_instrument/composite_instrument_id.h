#pragma once

#include "composite_instrument/composite_instrument_def.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace ps_ns
{

/// What tells composite instruments apart: the key of every instrument-keyed map. Two definitions with equal keys share
/// one composite subscription; symbol, strings and properties of the definition take no part (those of legs do).
///
/// A direct instrument has no legIds and no legs. A synthetic one has one child key for each leg, with the leg's
/// instrument id, market and submarket, the parent's attributes A to D, attribute E 0, no legIds, and the leg's own
/// legs.
///
/// Failure: only allocation can fail. Comparing and hashing never fail and never allocate.
class CompositeInstrumentID
{
public:
    explicit CompositeInstrumentID(const CompositeInstrumentDef& def);

    std::uint64_t instrumentId = 0;
    std::int16_t marketId = 0;
    std::uint8_t attrA = 0;
    std::uint8_t attrB = 0;
    std::uint32_t attrC = 0;
    std::int8_t attrD = 0;
    std::int16_t submarketId = 0;
    std::vector<CompositeInstrumentID> legIds;
    std::uint64_t attrE = 0;
    SyntheticLegs legs;

    /// By value, legs through their pointers: a leg with a NaN in it equals nothing, so such a key is not even equal to
    /// itself.
    bool operator==(const CompositeInstrumentID& other) const;

    /// Two levels of legs enter the hash, strings never: keys that differ only in a leg's symbol hash alike and compare
    /// unequal. Legs nested deeper enter neither.
    ///
    /// Not noexcept on purpose: libstdc++ caches the hash code in a map's nodes only when the hasher may throw, and a
    /// lookup among a million keys is a tenth faster with the cached code.
    struct Hasher
    {
        std::size_t operator()(const CompositeInstrumentID& id) const; // NOLINT(performance-noexcept-*)
    };

private:
    CompositeInstrumentID(const CompositeInstrumentID& parent, const SyntheticLeg& leg);
};

} // namespace ps_ns
