#include "composite_instrument/synthetic_leg.h"
#include "test_legs.h"

#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <thread>
#include <utility>
#include <vector>

using namespace ps_ns;
using namespace ps_ns::test;

namespace
{

LegInstrument SomeInstrument()
{
    LegInstrument instrument;
    instrument.instrumentId = 7;
    instrument.marketId = 2;
    instrument.submarketId = -1;
    instrument.def = {"BTCUSDT", "USDM"};
    instrument.ratio = 0.5;
    instrument.expiry_ns = 11;
    instrument.lotSize = 12;
    return instrument;
}

SyntheticInstrumentInfo SomeInfo()
{
    SyntheticInstrumentInfo info;
    info.instrumentId = 9;
    info.marketId = 5;
    info.submarketId = -6;
    info.expiry_ns = 11;
    info.lotSize = 12;
    info.name = "SPREAD";
    info.properties[1] = "a";
    info.legs = {MakeInstrumentLeg(7, 2, -1), MakeEmptyLeg()};
    return info;
}

} // namespace

TEST(SyntheticLeg, OfAnInstrumentEqualsOneWithTheSameRecord)
{
    EXPECT_TRUE(*MakeLeg(0, SomeInstrument(), 3) == *MakeLeg(0, SomeInstrument(), 3));
}

TEST(SyntheticLeg, OfAnInstrumentDiffersInEachFieldOfTheRecord)
{
    const std::vector<std::pair<const char*, std::function<void(LegInstrument&)>>> changes{
        {"instrumentId", [](LegInstrument& record) { record.instrumentId = 0; }},
        {"marketId", [](LegInstrument& record) { record.marketId = 0; }},
        {"symbol", [](LegInstrument& record) { record.def.symbol = ""; }},
        {"submarketId", [](LegInstrument& record) { record.submarketId = 0; }},
        {"exchange", [](LegInstrument& record) { record.def.exchange = ""; }},
        {"ratio", [](LegInstrument& record) { record.ratio = -0.5; }},
        {"expiry", [](LegInstrument& record) { record.expiry_ns = 0; }},
        {"lotSize", [](LegInstrument& record) { record.lotSize = 0; }},
    };
    const Leg leg = MakeLeg(0, SomeInstrument());
    for (const auto& [field, change] : changes)
    {
        LegInstrument record = SomeInstrument();
        change(record);
        EXPECT_FALSE(*leg == *MakeLeg(0, record)) << field;
        EXPECT_FALSE(*MakeLeg(0, record) == *leg) << field;
    }
}

TEST(SyntheticLeg, DiffersInKindAndParameter)
{
    EXPECT_FALSE(*MakeLeg(0, SomeInstrument(), 3) == *MakeLeg(0, SomeInstrument(), 4));
    EXPECT_FALSE(*MakeLeg(0, SomeInstrument()) == *MakeSyntheticLeg(SomeInfo()));
    EXPECT_FALSE(*MakeEmptyLeg(2) == *MakeEmptyLeg(3));
}

TEST(SyntheticLeg, ComparesTheRatioByValue)
{
    LegInstrument negativeZero = SomeInstrument();
    negativeZero.ratio = -0.0;
    LegInstrument zero = SomeInstrument();
    zero.ratio = 0.0;
    EXPECT_TRUE(*MakeLeg(0, negativeZero) == *MakeLeg(0, zero));
}

TEST(SyntheticLeg, WithANaNRatioEqualsNothingItselfIncluded)
{
    LegInstrument record = SomeInstrument();
    record.ratio = std::numeric_limits<double>::quiet_NaN();
    const Leg leg = MakeLeg(0, record);
    EXPECT_FALSE(*leg == *leg);
    EXPECT_FALSE(HaveEqualLegs({leg}, {leg}));
}

TEST(SyntheticLeg, OfASyntheticDiffersInEachComparedField)
{
    const std::vector<std::pair<const char*, std::function<void(SyntheticInstrumentInfo&)>>> changes{
        {"instrumentId", [](SyntheticInstrumentInfo& info) { info.instrumentId = 0; }},
        {"marketId", [](SyntheticInstrumentInfo& info) { info.marketId = 0; }},
        {"submarketId", [](SyntheticInstrumentInfo& info) { info.submarketId = 0; }},
        {"expiry", [](SyntheticInstrumentInfo& info) { info.expiry_ns = 0; }},
        {"lotSize", [](SyntheticInstrumentInfo& info) { info.lotSize = 0; }},
        {"name", [](SyntheticInstrumentInfo& info) { info.name = ""; }},
        {"number of legs", [](SyntheticInstrumentInfo& info) { info.legs.pop_back(); }},
        {"order of legs", [](SyntheticInstrumentInfo& info) { std::swap(info.legs[0], info.legs[1]); }},
        {"a leg's symbol",
         [](SyntheticInstrumentInfo& info) { info.legs[0] = MakeInstrumentLeg(7, 2, -1, "ETHUSDT"); }},
    };
    const Leg leg = MakeSyntheticLeg(SomeInfo());
    EXPECT_TRUE(*leg == *MakeSyntheticLeg(SomeInfo()));
    for (const auto& [field, change] : changes)
    {
        SyntheticInstrumentInfo info = SomeInfo();
        change(info);
        EXPECT_FALSE(*leg == *MakeSyntheticLeg(info)) << field;
        EXPECT_FALSE(*MakeSyntheticLeg(info) == *leg) << field;
    }
}

TEST(SyntheticLeg, DoesNotCompareProperties)
{
    SyntheticInstrumentInfo info = SomeInfo();
    info.properties = {{1, "b"}, {2, "c"}};
    EXPECT_TRUE(*MakeSyntheticLeg(SomeInfo()) == *MakeSyntheticLeg(info));
}

TEST(SyntheticLeg, ComparesLegsAllTheWayDown)
{
    const auto nest = [](const std::string& symbol)
    {
        return MakeSyntheticLeg(
            1, 1, 1, {MakeSyntheticLeg(2, 2, 2, {MakeSyntheticLeg(3, 3, 3, {MakeInstrumentLeg(4, 4, 4, symbol)})})});
    };
    EXPECT_TRUE(*nest("A") == *nest("A"));
    EXPECT_FALSE(*nest("A") == *nest("B"));
}

TEST(SyntheticLeg, WithoutItsRecordEqualsOnlyAnotherWithout)
{
    for (const std::uint32_t kind : {SyntheticLeg::kInstrument, SyntheticLeg::kSynthetic, 2U})
    {
        EXPECT_TRUE(*MakeEmptyLeg(kind) == *MakeEmptyLeg(kind)) << kind;
        EXPECT_FALSE(*MakeEmptyLeg(kind, 1) == *MakeEmptyLeg(kind, 2)) << kind;
    }
    EXPECT_FALSE(*MakeEmptyLeg(SyntheticLeg::kInstrument) == *MakeLeg(0, SomeInstrument()));
    EXPECT_FALSE(*MakeLeg(0, SomeInstrument()) == *MakeEmptyLeg(SyntheticLeg::kInstrument));
    EXPECT_FALSE(*MakeEmptyLeg(SyntheticLeg::kSynthetic) == *MakeSyntheticLeg(SomeInfo()));
    EXPECT_FALSE(*MakeSyntheticLeg(SomeInfo()) == *MakeEmptyLeg(SyntheticLeg::kSynthetic));
}

TEST(SyntheticLeg, OfAnUnknownKindIsComparedBySyntheticRecordsItMayHold)
{
    SyntheticLeg one = *MakeSyntheticLeg(SomeInfo());
    one.kind = 2;
    SyntheticLeg other = *MakeSyntheticLeg(SomeInfo());
    other.kind = 2;
    EXPECT_TRUE(one == other);
    SyntheticInstrumentInfo info = SomeInfo();
    info.name = "OTHER";
    other.synthetic = std::make_shared<SyntheticInstrumentInfo>(info);
    EXPECT_FALSE(one == other);
}

TEST(SyntheticLeg, BehindAnEmptyPointerIsAnEmptyLeg)
{
    EXPECT_TRUE(HaveEqualLegs({nullptr}, {nullptr}));
    EXPECT_TRUE(HaveEqualLegs({nullptr}, {MakeEmptyLeg()}));
    EXPECT_FALSE(HaveEqualLegs({nullptr}, {MakeInstrumentLeg(7, 2, -1)}));
    EXPECT_FALSE(HaveEqualLegs({nullptr}, {}));
    EXPECT_EQ(GetLeg(nullptr).GetIdentity().instrumentId, 0U);
    EXPECT_TRUE(GetLeg(nullptr).GetLegs().empty());
}

TEST(SyntheticLeg, TellsTheIdentityOfItsRecord)
{
    const auto instrument = MakeLeg(0, SomeInstrument())->GetIdentity();
    EXPECT_EQ(instrument.instrumentId, 7U);
    EXPECT_EQ(instrument.marketId, 2);
    EXPECT_EQ(instrument.submarketId, -1);

    const auto synthetic = MakeSyntheticLeg(SomeInfo())->GetIdentity();
    EXPECT_EQ(synthetic.instrumentId, 9U);
    EXPECT_EQ(synthetic.marketId, 5);
    EXPECT_EQ(synthetic.submarketId, -6);
}

TEST(SyntheticLeg, TellsNoIdentityForAnotherKindThanItsRecords)
{
    EXPECT_EQ(MakeLeg(2, SomeInstrument())->GetIdentity().instrumentId, 0U);
    EXPECT_EQ(MakeLeg(SyntheticLeg::kSynthetic, SomeInstrument())->GetIdentity().instrumentId, 0U);
    EXPECT_EQ(MakeEmptyLeg(SyntheticLeg::kInstrument)->GetIdentity().instrumentId, 0U);
}

TEST(SyntheticLeg, GivesItsNestedLegsOrOneSharedEmptyList)
{
    const Leg nested = MakeInstrumentLeg(7, 2, -1);
    const Leg synthetic = MakeSyntheticLeg(1, 1, 1, {nested});
    ASSERT_EQ(synthetic->GetLegs().size(), 1U);
    EXPECT_EQ(&synthetic->GetLegs(), &synthetic->synthetic->legs);

    const SyntheticLegs* const none = &MakeInstrumentLeg(7, 2, -1)->GetLegs();
    EXPECT_TRUE(none->empty());
    EXPECT_EQ(&MakeEmptyLeg()->GetLegs(), none);
    EXPECT_EQ(&MakeEmptyLeg(SyntheticLeg::kSynthetic)->GetLegs(), none);
    SyntheticLeg otherKind = *synthetic;
    otherKind.kind = 2;
    EXPECT_EQ(&otherKind.GetLegs(), none);
}
