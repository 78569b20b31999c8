#include "composite_instrument/synthetic_leg.h"

#include <algorithm>

namespace ps_ns
{
namespace
{

constexpr std::uint32_t kEmptyKind = 2;

bool AreEqual(const LegInstrument& a, const LegInstrument& b)
{
    return a.instrumentId == b.instrumentId && a.marketId == b.marketId && a.def.symbol == b.def.symbol &&
           a.submarketId == b.submarketId && a.def.exchange == b.def.exchange && a.ratio == b.ratio &&
           a.expiry_ns == b.expiry_ns && a.lotSize == b.lotSize;
}

bool AreEqual(const SyntheticInstrumentInfo& a, const SyntheticInstrumentInfo& b)
{
    return a.instrumentId == b.instrumentId && a.marketId == b.marketId && a.submarketId == b.submarketId &&
           a.expiry_ns == b.expiry_ns && a.lotSize == b.lotSize && a.name == b.name && HaveEqualLegs(a.legs, b.legs);
}

/// Compares through pointers that a client may have left empty.
template <class Record>
bool AreEqual(const std::shared_ptr<const Record>& a, const std::shared_ptr<const Record>& b)
{
    if (a == nullptr || b == nullptr)
    {
        return a == nullptr && b == nullptr;
    }
    return AreEqual(*a, *b);
}

} // namespace

SyntheticLeg::Identity SyntheticLeg::GetIdentity() const noexcept
{
    if (kind == kInstrument && instrument != nullptr)
    {
        return {instrument->instrumentId, instrument->marketId, instrument->submarketId};
    }
    if (kind == kSynthetic && synthetic != nullptr)
    {
        return {synthetic->instrumentId, synthetic->marketId, synthetic->submarketId};
    }
    return {};
}

const SyntheticLegs& SyntheticLeg::GetLegs() const
{
    static const SyntheticLegs kNullLegs;
    return kind == kSynthetic && synthetic != nullptr ? synthetic->legs : kNullLegs;
}

bool SyntheticLeg::operator==(const SyntheticLeg& other) const
{
    if (kind != other.kind || legParameter != other.legParameter)
    {
        return false;
    }
    return kind == kInstrument ? AreEqual(instrument, other.instrument) : AreEqual(synthetic, other.synthetic);
}

const SyntheticLeg& GetLeg(const std::shared_ptr<const SyntheticLeg>& leg) noexcept
{
    static const SyntheticLeg kEmptyLeg{kEmptyKind, nullptr, nullptr, 0};
    return leg != nullptr ? *leg : kEmptyLeg;
}

bool HaveEqualLegs(const SyntheticLegs& a, const SyntheticLegs& b)
{
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](const auto& left, const auto& right) { return GetLeg(left) == GetLeg(right); });
}

} // namespace ps_ns
