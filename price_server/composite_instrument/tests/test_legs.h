#pragma once

#include "composite_instrument/composite_instrument_def.h"

#include <memory>
#include <string>
#include <utility>

/// Legs and definitions as the tests of this room want them, in one line each.
namespace ps_ns::test
{

using Leg = std::shared_ptr<const SyntheticLeg>;

inline Leg MakeLeg(std::uint32_t kind, LegInstrument instrument, std::uint32_t legParameter = 0)
{
    return std::make_shared<SyntheticLeg>(
        SyntheticLeg{kind, std::make_shared<LegInstrument>(std::move(instrument)), nullptr, legParameter});
}

/// A leg of kind 0.
inline Leg MakeInstrumentLeg(std::uint64_t id, std::int16_t market, std::int16_t submarket,
                             const std::string& symbol = "BTCUSDT", const std::string& exchange = "USDM")
{
    LegInstrument instrument;
    instrument.instrumentId = id;
    instrument.marketId = market;
    instrument.submarketId = submarket;
    instrument.def = {symbol, exchange};
    return MakeLeg(SyntheticLeg::kInstrument, std::move(instrument));
}

inline Leg MakeSyntheticLeg(SyntheticInstrumentInfo info, std::uint32_t legParameter = 0)
{
    return std::make_shared<SyntheticLeg>(SyntheticLeg{
        SyntheticLeg::kSynthetic, nullptr, std::make_shared<SyntheticInstrumentInfo>(std::move(info)), legParameter});
}

/// A leg of kind 1.
inline Leg MakeSyntheticLeg(std::uint64_t id, std::int16_t market, std::int16_t submarket, SyntheticLegs legs)
{
    SyntheticInstrumentInfo info;
    info.instrumentId = id;
    info.marketId = market;
    info.submarketId = submarket;
    info.name = "SPREAD";
    info.legs = std::move(legs);
    return MakeSyntheticLeg(std::move(info));
}

/// A leg that is neither, with no record at all.
inline Leg MakeEmptyLeg(std::uint32_t kind = 2, std::uint32_t legParameter = 0)
{
    return std::make_shared<SyntheticLeg>(SyntheticLeg{kind, nullptr, nullptr, legParameter});
}

/// A definition in which every field of the key has a value of its own.
inline CompositeInstrumentDef MakeDef(SyntheticLegs legs = {})
{
    CompositeInstrumentDef def;
    def.instrumentId = 42;
    def.marketId = 2;
    def.attrA = 1;
    def.attrB = 2;
    def.attrC = 3;
    def.attrD = -4;
    def.submarketId = -1;
    def.attrE = 5;
    def.instrument = {"BTCUSDT", "USDM"};
    def.legs = std::move(legs);
    return def;
}

} // namespace ps_ns::test
