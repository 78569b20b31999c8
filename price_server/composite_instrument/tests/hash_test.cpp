#include "composite_instrument/composite_instrument_id.h"
#include "composite_instrument/hash_combine.h"
#include "test_legs.h"

#include <gtest/gtest.h>

#include <limits>

using namespace ps_ns;
using namespace ps_ns::test;

// The expected values were worked out apart from this code, with a second writing of the mixing step.

namespace
{

std::uint64_t HashOf(const CompositeInstrumentDef& def)
{
    return CompositeInstrumentID::Hasher()(CompositeInstrumentID(def));
}

} // namespace

static_assert(HashCombine(0, 0) == 0xe6546b64);
static_assert(HashCombine(1, 2) == 0x5cfa8f1ece719af1);
static_assert(HashCombine(~0ULL, ~0ULL) == 0x2ac7511f80bd4e1a);
static_assert(HashCombine(HashCombine(0, 0), 0) == 0xcb34c5ae03d8f098, "an empty leg after its first two fields");

// libstdc++ keeps the hash code in a map's nodes only when the hasher may throw.
static_assert(!noexcept(CompositeInstrumentID::Hasher()(std::declval<const CompositeInstrumentID&>())));

TEST(KeyHash, OfADirectKeyIsItsFieldsInTheFixedOrder)
{
    EXPECT_EQ(HashOf(MakeDef()), 0xc4620cb07ded05c4);

    CompositeInstrumentDef zero;
    EXPECT_EQ(HashOf(zero), 0x755e010c57fab439);
    zero.submarketId = 0;
    EXPECT_EQ(HashOf(zero), 0x25165d0be10cb9e0);
}

TEST(KeyHash, ExtendsEachFieldByItsOwnSign)
{
    CompositeInstrumentDef def;
    def.instrumentId = std::numeric_limits<std::uint64_t>::max();
    def.marketId = -7;
    def.attrA = 255;
    def.attrB = 255;
    def.attrC = 0xffffffff;
    def.attrD = -128;
    def.submarketId = -32768;
    def.attrE = 1ULL << 63;
    EXPECT_EQ(HashOf(def), 0xf90c1c80f85dd21b);
}

TEST(KeyHash, TakesTheLegsInTheirOrder)
{
    const Leg first = MakeInstrumentLeg(7, 2, -1);
    const Leg second = MakeInstrumentLeg(8, -3, 4);
    EXPECT_EQ(HashOf(MakeDef({first, second})), 0xff1926bc0995eeeb);
    EXPECT_EQ(HashOf(MakeDef({second, first})), 0x1e1603e8dc5f9137);
}

TEST(KeyHash, TakesASyntheticLegByItsOwnIdentity)
{
    EXPECT_EQ(HashOf(MakeDef({MakeSyntheticLeg(9, 5, -6, {}), MakeSyntheticLeg(10, -5, 6, {})})), 0xff4024bdc5ad3dc6);
}

TEST(KeyHash, TakesAnEmptyLegAsZeros)
{
    EXPECT_EQ(HashOf(MakeDef({MakeEmptyLeg()})), 0xebeba71ffb9525fc);
    EXPECT_EQ(HashOf(MakeDef({MakeEmptyLeg(), MakeEmptyLeg(77)})), 0xededff925d64ad64);

    CompositeInstrumentDef zero;
    zero.submarketId = 0;
    zero.legs = {MakeEmptyLeg()};
    EXPECT_EQ(HashOf(zero), 0xa1db83b80ba5d130);
}

TEST(KeyHash, TakesALegWithoutItsRecordAsAnEmptyLeg)
{
    EXPECT_EQ(HashOf(MakeDef({MakeEmptyLeg(SyntheticLeg::kInstrument)})), 0xebeba71ffb9525fc);
    EXPECT_EQ(HashOf(MakeDef({MakeEmptyLeg(SyntheticLeg::kSynthetic)})), 0xebeba71ffb9525fc);
    EXPECT_EQ(HashOf(MakeDef({nullptr})), 0xebeba71ffb9525fc);
}

TEST(KeyHash, TakesTheLegsOfALegAndNothingBelow)
{
    const Leg deepest = MakeInstrumentLeg(99, 98, 97);
    const auto withDeepest = [](SyntheticLegs legs)
    {
        const Leg nested = MakeSyntheticLeg(11, 12, -13, std::move(legs));
        return MakeDef({MakeInstrumentLeg(8, -3, 4),
                        MakeSyntheticLeg(9, 5, -6, {MakeInstrumentLeg(7, 2, -1), MakeEmptyLeg(), nested}),
                        MakeEmptyLeg()});
    };
    EXPECT_EQ(HashOf(withDeepest({deepest})), 0xbd06a78138f616ac);
    EXPECT_EQ(HashOf(withDeepest({})), 0xbd06a78138f616ac);
    EXPECT_FALSE(CompositeInstrumentID(withDeepest({deepest})) == CompositeInstrumentID(withDeepest({})));
}

TEST(KeyHash, LeavesOutTextsAndTheLegParameter)
{
    const CompositeInstrumentID one(MakeDef({MakeInstrumentLeg(7, 2, -1, "BTCUSDT")}));
    const CompositeInstrumentID otherSymbol(MakeDef({MakeInstrumentLeg(7, 2, -1, "ETHUSDT")}));
    const CompositeInstrumentID otherParameter(
        MakeDef({MakeLeg(SyntheticLeg::kInstrument, *MakeInstrumentLeg(7, 2, -1)->instrument, 1)}));
    const CompositeInstrumentID::Hasher hash;
    EXPECT_EQ(hash(one), hash(otherSymbol));
    EXPECT_EQ(hash(one), hash(otherParameter));
    EXPECT_FALSE(one == otherSymbol);
    EXPECT_FALSE(one == otherParameter);
}

TEST(KeyHash, ReadsTheLegsThroughTheChildKeysOnly)
{
    CompositeInstrumentID id(MakeDef({MakeInstrumentLeg(7, 2, -1), MakeInstrumentLeg(8, -3, 4)}));
    id.legs.clear();
    EXPECT_EQ(CompositeInstrumentID::Hasher()(id), 0xff1926bc0995eeeb);
}
