#include "composite_instrument/composite_instrument_id.h"

#include "composite_instrument/hash_combine.h"

namespace ps_ns
{
namespace
{

/// Extends an integer to 64 bits by its own sign.
template <class Integer>
constexpr std::uint64_t Widen(Integer value) noexcept
{
    return static_cast<std::uint64_t>(value);
}

/// Hash of the scalar fields of `id`, with those of a leg in place of its own. The order is not the declaration order.
std::uint64_t HashFields(const SyntheticLeg::Identity& identity, const CompositeInstrumentID& id) noexcept
{
    std::uint64_t h = 0;
    h = HashCombine(h, identity.instrumentId);
    h = HashCombine(h, Widen(identity.marketId));
    h = HashCombine(h, id.attrC);
    h = HashCombine(h, id.attrA);
    h = HashCombine(h, id.attrB);
    h = HashCombine(h, Widen(id.attrD));
    h = HashCombine(h, Widen(identity.submarketId));
    h = HashCombine(h, id.attrE);
    return h;
}

std::uint64_t HashFields(const CompositeInstrumentID& id) noexcept
{
    return HashFields({id.instrumentId, id.marketId, id.submarketId}, id);
}

} // namespace

CompositeInstrumentID::CompositeInstrumentID(const CompositeInstrumentDef& def)
    : instrumentId(def.instrumentId)
    , marketId(def.marketId)
    , attrA(def.attrA)
    , attrB(def.attrB)
    , attrC(def.attrC)
    , attrD(def.attrD)
    , submarketId(def.submarketId)
    , attrE(def.attrE)
    , legs(def.legs)
{
    legIds.reserve(legs.size());
    for (const auto& leg : legs)
    {
        legIds.push_back(CompositeInstrumentID(*this, GetLeg(leg)));
    }
}

CompositeInstrumentID::CompositeInstrumentID(const CompositeInstrumentID& parent, const SyntheticLeg& leg)
    : attrA(parent.attrA)
    , attrB(parent.attrB)
    , attrC(parent.attrC)
    , attrD(parent.attrD)
    , legs(leg.GetLegs())
{
    const SyntheticLeg::Identity identity = leg.GetIdentity();
    instrumentId = identity.instrumentId;
    marketId = identity.marketId;
    submarketId = identity.submarketId;
}

bool CompositeInstrumentID::operator==(const CompositeInstrumentID& other) const
{
    return instrumentId == other.instrumentId && marketId == other.marketId && attrA == other.attrA &&
           attrB == other.attrB && attrC == other.attrC && attrD == other.attrD && submarketId == other.submarketId &&
           attrE == other.attrE && legIds == other.legIds && HaveEqualLegs(legs, other.legs);
}

std::size_t CompositeInstrumentID::Hasher::operator()(const CompositeInstrumentID& id) const
{
    std::uint64_t h = HashFields(id);
    for (const CompositeInstrumentID& child : id.legIds)
    {
        h = HashCombine(h, HashFields(child));
        for (const auto& leg : child.legs)
        {
            h = HashCombine(h, HashFields(GetLeg(leg).GetIdentity(), child));
        }
    }
    return h;
}

} // namespace ps_ns
