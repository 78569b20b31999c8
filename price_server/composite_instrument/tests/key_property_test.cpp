#include "composite_instrument/composite_instrument_id.h"
#include "test_legs.h"

#include <gtest/gtest.h>
#include <rapidcheck.h>
#include <rapidcheck/gtest.h>

#include <string>
#include <vector>

using namespace ps_ns;
using namespace ps_ns::test;

namespace
{

/// From the whole range also in small cases.
template <class Integer>
Integer Pick(Integer begin, Integer end)
{
    return *rc::gen::resize(rc::kNominalSize, rc::gen::inRange(begin, end));
}

/// One of few values, so that equal ones meet often, and negative ones among them.
template <class Integer>
Integer Few()
{
    return static_cast<Integer>(Pick(-1, 2));
}

std::string FewTexts()
{
    return std::vector<std::string>{"", "A", "\x80"}[Pick<std::size_t>(0, 3)];
}

SyntheticLegs GenerateLegs(int depth);

Leg GenerateInstrumentLeg()
{
    LegInstrument record;
    record.instrumentId = Few<std::uint64_t>();
    record.marketId = Few<std::int16_t>();
    record.submarketId = Few<std::int16_t>();
    record.def = {FewTexts(), FewTexts()};
    record.ratio = 0.5 * Pick(-1, 2); // no NaN: it equals nothing
    record.expiry_ns = Few<std::uint64_t>();
    record.lotSize = Few<std::uint64_t>();
    return MakeLeg(SyntheticLeg::kInstrument, record, Few<std::uint32_t>());
}

Leg GenerateSyntheticLeg(int depth)
{
    SyntheticInstrumentInfo info;
    info.instrumentId = Few<std::uint64_t>();
    info.marketId = Few<std::int16_t>();
    info.submarketId = Few<std::int16_t>();
    info.expiry_ns = Few<std::uint64_t>();
    info.lotSize = Few<std::uint64_t>();
    info.name = FewTexts();
    info.properties[Few<std::uint16_t>()] = FewTexts();
    info.legs = GenerateLegs(depth - 1);
    return MakeSyntheticLeg(info, Few<std::uint32_t>());
}

SyntheticLegs GenerateLegs(int depth)
{
    SyntheticLegs legs(depth > 0 ? Pick<std::size_t>(0, 3) : 0);
    for (Leg& leg : legs)
    {
        switch (Pick(0, 4))
        {
        case 0:
            leg = GenerateInstrumentLeg();
            break;
        case 1:
            leg = GenerateSyntheticLeg(depth);
            break;
        case 2:
            leg = MakeEmptyLeg(Pick(0U, 4U), Few<std::uint32_t>());
            break;
        default:
            break; // an empty pointer
        }
    }
    return legs;
}

CompositeInstrumentDef GenerateDef()
{
    CompositeInstrumentDef def;
    def.instrumentId = Few<std::uint64_t>();
    def.marketId = Few<std::int16_t>();
    def.attrA = Few<std::uint8_t>();
    def.attrB = Few<std::uint8_t>();
    def.attrC = Few<std::uint32_t>();
    def.attrD = Few<std::int8_t>();
    def.submarketId = Few<std::int16_t>();
    def.attrE = Few<std::uint64_t>();
    def.legs = GenerateLegs(4);
    return def;
}

/// A definition with the same key and other pointers, texts and properties.
SyntheticLegs CopyLegs(const SyntheticLegs& legs)
{
    SyntheticLegs copies;
    for (const Leg& leg : legs)
    {
        if (leg == nullptr)
        {
            copies.push_back(MakeEmptyLeg());
            continue;
        }
        SyntheticLeg copy = *leg;
        if (copy.instrument != nullptr)
        {
            copy.instrument = std::make_shared<LegInstrument>(*copy.instrument);
        }
        if (copy.synthetic != nullptr)
        {
            SyntheticInstrumentInfo info = *copy.synthetic;
            info.properties.clear();
            info.legs = CopyLegs(info.legs);
            copy.synthetic = std::make_shared<SyntheticInstrumentInfo>(std::move(info));
        }
        copies.push_back(std::make_shared<SyntheticLeg>(std::move(copy)));
    }
    return copies;
}

/// Another key than `id`'s, in one place chosen at random; the same when there is nothing there to change.
CompositeInstrumentDef Vary(CompositeInstrumentDef def)
{
    switch (Pick(0, 4))
    {
    case 0:
        def.attrE ^= 1;
        break;
    case 1:
        def.submarketId = static_cast<std::int16_t>(def.submarketId ^ 1);
        break;
    case 2:
        def.legs.push_back(GenerateInstrumentLeg());
        break;
    default:
        break;
    }
    return def;
}

} // namespace

RC_GTEST_PROP(GeneratedKey, EqualsAndHashesLikeOneMadeFromCopiedLegs, ())
{
    const CompositeInstrumentDef def = GenerateDef();
    CompositeInstrumentDef copy = def;
    copy.legs = CopyLegs(def.legs);
    copy.instrument = {"other", "texts"};
    const CompositeInstrumentID a(def);
    const CompositeInstrumentID b(copy);
    RC_ASSERT(a == b);
    RC_ASSERT(b == a);
    RC_ASSERT(CompositeInstrumentID::Hasher()(a) == CompositeInstrumentID::Hasher()(b));
}

RC_GTEST_PROP(GeneratedKey, IsComparedSymmetricallyAndHashesAlikeWhenEqual, ())
{
    const CompositeInstrumentDef def = GenerateDef();
    const CompositeInstrumentID a(def);
    const CompositeInstrumentID b(Vary(def));
    const bool equal = a == b;
    RC_CLASSIFY(equal);
    RC_ASSERT(equal == (b == a));
    RC_ASSERT(!equal || CompositeInstrumentID::Hasher()(a) == CompositeInstrumentID::Hasher()(b));
}

RC_GTEST_PROP(GeneratedKey, HasOneChildKeyPerLegWithTheParentsAttributes, ())
{
    const CompositeInstrumentDef def = GenerateDef();
    const CompositeInstrumentID id(def);
    RC_ASSERT(id.legs == def.legs);
    RC_ASSERT(id.legIds.size() == def.legs.size());
    for (std::size_t index = 0; index < def.legs.size(); ++index)
    {
        const CompositeInstrumentID& child = id.legIds[index];
        const SyntheticLeg& leg = GetLeg(def.legs[index]);
        RC_ASSERT(child.instrumentId == leg.GetIdentity().instrumentId);
        RC_ASSERT(child.attrA == def.attrA && child.attrD == def.attrD && child.attrE == 0U);
        RC_ASSERT(child.legIds.empty());
        RC_ASSERT(child.legs == leg.GetLegs());
    }
}

RC_GTEST_PROP(GeneratedLegs, AreComparedSymmetrically, ())
{
    const SyntheticLegs a = GenerateLegs(3);
    const SyntheticLegs b = GenerateLegs(3);
    RC_ASSERT(HaveEqualLegs(a, b) == HaveEqualLegs(b, a));
    RC_ASSERT(HaveEqualLegs(a, CopyLegs(a)));
}
