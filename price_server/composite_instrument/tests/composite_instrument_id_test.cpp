#include "composite_instrument/composite_instrument_id.h"
#include "test_legs.h"

#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

using namespace ps_ns;
using namespace ps_ns::test;

// A vector of keys moves them when it grows only if that cannot fail.
static_assert(std::is_nothrow_move_constructible_v<CompositeInstrumentID>);
static_assert(std::is_copy_constructible_v<CompositeInstrumentID>);

TEST(CompositeInstrumentID, OfADirectInstrumentHasNoLegs)
{
    const CompositeInstrumentID id(MakeDef());
    EXPECT_EQ(id.instrumentId, 42U);
    EXPECT_EQ(id.marketId, 2);
    EXPECT_EQ(id.attrA, 1);
    EXPECT_EQ(id.attrB, 2);
    EXPECT_EQ(id.attrC, 3U);
    EXPECT_EQ(id.attrD, -4);
    EXPECT_EQ(id.submarketId, -1);
    EXPECT_EQ(id.attrE, 5U);
    EXPECT_TRUE(id.legIds.empty());
    EXPECT_TRUE(id.legs.empty());
}

TEST(CompositeInstrumentID, SharesTheLegsOfTheDefinition)
{
    const Leg leg = MakeInstrumentLeg(7, 2, -1);
    const CompositeInstrumentDef def = MakeDef({leg});
    const long before = leg.use_count();
    const CompositeInstrumentID id(def);
    ASSERT_EQ(id.legs.size(), 1U);
    EXPECT_EQ(id.legs[0], leg);
    EXPECT_EQ(leg.use_count(), before + 1);
}

TEST(CompositeInstrumentID, MakesAChildKeyForEachLegInOrder)
{
    const Leg nested = MakeInstrumentLeg(70, 20, -10);
    const CompositeInstrumentID id(
        MakeDef({MakeInstrumentLeg(7, -3, 4), MakeSyntheticLeg(9, 5, -6, {nested}), MakeEmptyLeg()}));
    ASSERT_EQ(id.legIds.size(), 3U);

    EXPECT_EQ(id.legIds[0].instrumentId, 7U);
    EXPECT_EQ(id.legIds[0].marketId, -3);
    EXPECT_EQ(id.legIds[0].submarketId, 4);
    EXPECT_TRUE(id.legIds[0].legs.empty());

    EXPECT_EQ(id.legIds[1].instrumentId, 9U);
    EXPECT_EQ(id.legIds[1].marketId, 5);
    EXPECT_EQ(id.legIds[1].submarketId, -6);
    ASSERT_EQ(id.legIds[1].legs.size(), 1U);
    EXPECT_EQ(id.legIds[1].legs[0], nested);

    EXPECT_EQ(id.legIds[2].instrumentId, 0U);
    EXPECT_EQ(id.legIds[2].marketId, 0);
    EXPECT_EQ(id.legIds[2].submarketId, 0);
    EXPECT_TRUE(id.legIds[2].legs.empty());
}

TEST(CompositeInstrumentID, GivesChildKeysTheParentsAttributesButTheLast)
{
    const CompositeInstrumentID id(
        MakeDef({MakeInstrumentLeg(7, 2, -1), MakeSyntheticLeg(9, 5, -6, {MakeInstrumentLeg(70, 20, -10)})}));
    for (const CompositeInstrumentID& child : id.legIds)
    {
        EXPECT_EQ(child.attrA, 1);
        EXPECT_EQ(child.attrB, 2);
        EXPECT_EQ(child.attrC, 3U);
        EXPECT_EQ(child.attrD, -4);
        EXPECT_EQ(child.attrE, 0U);
        EXPECT_TRUE(child.legIds.empty());
    }
}

TEST(CompositeInstrumentID, TakesLegsWithoutARecordAndEmptyPointersAsEmptyLegs)
{
    const CompositeInstrumentID id(
        MakeDef({MakeEmptyLeg(SyntheticLeg::kInstrument), MakeEmptyLeg(SyntheticLeg::kSynthetic), nullptr}));
    ASSERT_EQ(id.legIds.size(), 3U);
    for (const CompositeInstrumentID& child : id.legIds)
    {
        EXPECT_EQ(child.instrumentId, 0U);
        EXPECT_EQ(child.marketId, 0);
        EXPECT_EQ(child.submarketId, 0);
        EXPECT_TRUE(child.legs.empty());
    }
    EXPECT_TRUE(id == id);
}

TEST(CompositeInstrumentID, DiffersInEachOfItsFields)
{
    const std::vector<std::pair<const char*, std::function<void(CompositeInstrumentDef&)>>> changes{
        {"instrumentId", [](CompositeInstrumentDef& def) { def.instrumentId = 43; }},
        {"marketId", [](CompositeInstrumentDef& def) { def.marketId = -2; }},
        {"attrA", [](CompositeInstrumentDef& def) { def.attrA = 9; }},
        {"attrB", [](CompositeInstrumentDef& def) { def.attrB = 9; }},
        {"attrC", [](CompositeInstrumentDef& def) { def.attrC = 9; }},
        {"attrD", [](CompositeInstrumentDef& def) { def.attrD = 4; }},
        {"submarketId", [](CompositeInstrumentDef& def) { def.submarketId = 1; }},
        {"attrE", [](CompositeInstrumentDef& def) { def.attrE = 9; }},
        {"legs", [](CompositeInstrumentDef& def) { def.legs = {MakeInstrumentLeg(7, 2, -1)}; }},
    };
    const CompositeInstrumentID id(MakeDef());
    EXPECT_TRUE(id == CompositeInstrumentID(MakeDef()));
    for (const auto& [field, change] : changes)
    {
        CompositeInstrumentDef def = MakeDef();
        change(def);
        const CompositeInstrumentID other(def);
        EXPECT_FALSE(id == other) << field;
        EXPECT_FALSE(other == id) << field;
        EXPECT_NE(CompositeInstrumentID::Hasher()(id), CompositeInstrumentID::Hasher()(other)) << field;
    }
}

TEST(CompositeInstrumentID, IgnoresWhatElseADefinitionSays)
{
    CompositeInstrumentDef def = MakeDef();
    def.instrument = {"ETHUSDT", "SPOT"};
    def.currency = "USD";
    def.properties[1] = "a";
    def.components = {true, true, true};
    def.lotSize = 100;
    def.strike = std::numeric_limits<double>::quiet_NaN();
    EXPECT_TRUE(CompositeInstrumentID(def) == CompositeInstrumentID(MakeDef()));
}

TEST(CompositeInstrumentID, ComparesLegsByValueAndInOrder)
{
    const auto make = [](std::uint64_t first, std::uint64_t second) {
        return CompositeInstrumentID(MakeDef({MakeInstrumentLeg(first, 2, -1), MakeInstrumentLeg(second, 2, -1)}));
    };
    EXPECT_TRUE(make(7, 8) == make(7, 8));
    EXPECT_FALSE(make(7, 8) == make(8, 7));
    EXPECT_FALSE(make(7, 8) == CompositeInstrumentID(MakeDef({MakeInstrumentLeg(7, 2, -1)})));
}

TEST(CompositeInstrumentID, ComparesChildKeysAndLegsBoth)
{
    const CompositeInstrumentID id(MakeDef({MakeInstrumentLeg(7, 2, -1)}));
    CompositeInstrumentID otherChild = id;
    otherChild.legIds[0].attrE = 1;
    EXPECT_FALSE(id == otherChild);

    CompositeInstrumentID noLegs = id;
    noLegs.legs.clear();
    EXPECT_FALSE(id == noLegs);
    EXPECT_FALSE(noLegs == id);
}

TEST(CompositeInstrumentID, WithANaNInALegIsNotEvenEqualToItself)
{
    LegInstrument instrument = *MakeInstrumentLeg(7, 2, -1)->instrument;
    instrument.ratio = std::numeric_limits<double>::quiet_NaN();
    const CompositeInstrumentID id(MakeDef({MakeLeg(SyntheticLeg::kInstrument, instrument)}));
    EXPECT_FALSE(id == id);

    std::unordered_map<CompositeInstrumentID, int, CompositeInstrumentID::Hasher> map;
    map.emplace(id, 1);
    EXPECT_EQ(map.count(id), 0U);
}

TEST(CompositeInstrumentID, FindsASyntheticInstrumentInAMapByADefinitionMadeAfresh)
{
    std::unordered_map<CompositeInstrumentID, int, CompositeInstrumentID::Hasher> map;
    for (std::uint64_t leg = 0; leg < 100; ++leg)
    {
        map.emplace(CompositeInstrumentID(MakeDef({MakeInstrumentLeg(leg, 2, -1), MakeEmptyLeg()})),
                    static_cast<int>(leg));
    }
    const auto found = map.find(CompositeInstrumentID(MakeDef({MakeInstrumentLeg(63, 2, -1), MakeEmptyLeg()})));
    ASSERT_NE(found, map.end());
    EXPECT_EQ(found->second, 63);
    EXPECT_EQ(map.count(CompositeInstrumentID(MakeDef({MakeInstrumentLeg(63, 2, -1)}))), 0U);
}

TEST(CompositeInstrumentID, KeepsItsValueWhenAVectorOfKeysGrows)
{
    std::vector<CompositeInstrumentID> ids;
    for (std::uint64_t leg = 0; leg < 20; ++leg)
    {
        ids.emplace_back(MakeDef({MakeInstrumentLeg(leg, 2, -1)}));
    }
    for (std::uint64_t leg = 0; leg < 20; ++leg)
    {
        EXPECT_TRUE(ids[leg] == CompositeInstrumentID(MakeDef({MakeInstrumentLeg(leg, 2, -1)})));
    }
}
