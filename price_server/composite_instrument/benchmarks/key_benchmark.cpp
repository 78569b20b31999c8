#include "composite_instrument/composite_instrument_id.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <random>
#include <unordered_map>
#include <vector>

using namespace ps_ns;

namespace
{

constexpr std::size_t kKeys = 100'000;

std::shared_ptr<const SyntheticLeg> MakeLeg(std::uint64_t instrumentId)
{
    auto record = std::make_shared<LegInstrument>();
    record->instrumentId = instrumentId;
    record->marketId = 2;
    record->submarketId = -1;
    record->def = {"BTCUSDT", "USDM"};
    auto leg = std::make_shared<SyntheticLeg>();
    leg->instrument = std::move(record);
    return leg;
}

CompositeInstrumentID MakeDirectKey(std::uint64_t instrumentId)
{
    CompositeInstrumentDef def;
    def.instrumentId = instrumentId;
    def.marketId = 2;
    def.attrA = 1;
    return CompositeInstrumentID(def);
}

CompositeInstrumentID MakeTwoLegKey(std::uint64_t instrumentId)
{
    CompositeInstrumentDef def;
    def.instrumentId = instrumentId;
    def.marketId = 2;
    def.legs = {MakeLeg(2 * instrumentId), MakeLeg(2 * instrumentId + 1)};
    return CompositeInstrumentID(def);
}

using MakeKey = CompositeInstrumentID (*)(std::uint64_t);
using Map = std::unordered_map<CompositeInstrumentID, unsigned long, CompositeInstrumentID::Hasher>;

void HashKey(benchmark::State& state, MakeKey makeKey)
{
    const CompositeInstrumentID key = makeKey(42);
    const CompositeInstrumentID::Hasher hash;
    for (auto iteration : state)
    {
        static_cast<void>(iteration);
        benchmark::DoNotOptimize(hash(key));
    }
}

/// Looks up keys made afresh, in an order that the processor cannot foresee. `firstKey` is the instrument id of the
/// first one; the map has those from 0 on.
void LookUp(benchmark::State& state, MakeKey makeKey, std::uint64_t firstKey)
{
    Map map;
    std::vector<CompositeInstrumentID> asked;
    asked.reserve(kKeys);
    for (std::uint64_t id = 0; id < kKeys; ++id)
    {
        map.emplace(makeKey(id), id);
        asked.push_back(makeKey(firstKey + id));
    }
    std::shuffle(asked.begin(), asked.end(), std::mt19937_64(1));

    std::size_t next = 0;
    std::size_t found = 0;
    for (auto iteration : state)
    {
        static_cast<void>(iteration);
        found += map.find(asked[next]) != map.end() ? 1U : 0U;
        next = next + 1 < kKeys ? next + 1 : 0;
    }
    const bool allFound = found == static_cast<std::size_t>(state.iterations());
    if (firstKey == 0 ? !allFound : found != 0)
    {
        state.SkipWithError("a lookup went wrong");
    }
}

} // namespace

BENCHMARK_CAPTURE(HashKey, direct, &MakeDirectKey);
BENCHMARK_CAPTURE(HashKey, two_legs, &MakeTwoLegKey);
BENCHMARK_CAPTURE(LookUp, direct_hit_among_100k, &MakeDirectKey, 0);
BENCHMARK_CAPTURE(LookUp, direct_miss_among_100k, &MakeDirectKey, kKeys);
BENCHMARK_CAPTURE(LookUp, two_legs_hit_among_100k, &MakeTwoLegKey, 0);
BENCHMARK_CAPTURE(LookUp, two_legs_miss_among_100k, &MakeTwoLegKey, kKeys);

BENCHMARK_MAIN();
