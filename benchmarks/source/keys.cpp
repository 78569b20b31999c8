#include "clocks.h"
#include "comparison.h"
#include "composite_instrument/composite_instrument_id.h"
#include "keep.h"

#include <absl/container/flat_hash_map.h>
#include <absl/hash/hash.h>
#include <boost/container_hash/hash.hpp>
#include <boost/unordered/unordered_flat_map.hpp>
#include <boost/unordered_map.hpp>

#include <algorithm>
#include <random>
#include <unordered_map>
#include <vector>

namespace compare
{
namespace
{

using Key = ps_ns::CompositeInstrumentID;

/// The same fields as the project's hash, for keys without legs.
struct BoostHash
{
    std::size_t operator()(const Key& key) const noexcept
    {
        std::size_t h = 0;
        boost::hash_combine(h, key.instrumentId);
        boost::hash_combine(h, key.marketId);
        boost::hash_combine(h, key.attrC);
        boost::hash_combine(h, key.attrA);
        boost::hash_combine(h, key.attrB);
        boost::hash_combine(h, key.attrD);
        boost::hash_combine(h, key.submarketId);
        boost::hash_combine(h, key.attrE);
        return h;
    }
};

struct AbslHash
{
    std::size_t operator()(const Key& key) const noexcept
    {
        return absl::HashOf(key.instrumentId, key.marketId, key.attrC, key.attrA, key.attrB, key.attrD, key.submarketId,
                            key.attrE);
    }
};

Key MakeKey(std::uint64_t id)
{
    ps_ns::CompositeInstrumentDef def;
    def.instrumentId = id;
    def.marketId = 2;
    def.attrA = 1;
    return Key(def);
}

std::vector<Key> MakeShuffledKeys(std::uint64_t first, std::size_t count)
{
    std::vector<Key> keys;
    keys.reserve(count);
    for (std::uint64_t i = 0; i < count; ++i)
    {
        keys.push_back(MakeKey(first + i));
    }
    std::shuffle(keys.begin(), keys.end(), std::mt19937_64(first + 1));
    return keys;
}

/// Keys asked for, in an order that the processor cannot foresee. Their number is a multiple of how many are asked for
/// at once.
struct Asked
{
    explicit Asked(std::size_t count)
        : hits(MakeShuffledKeys(0, count))
        , misses(MakeShuffledKeys(count, count))
    {
    }
    const std::vector<Key> hits;
    const std::vector<Key> misses;
};

template <class Map>
Alternative LookUp(const std::string& name, const Asked& asked)
{
    // Not in the order in which they are asked for: maps with a node for each key would be walked through in the order
    // of their nodes' addresses.
    auto map = std::make_shared<Map>();
    for (std::uint64_t id = 0; id < asked.hits.size(); ++id)
    {
        map->emplace(MakeKey(id), id);
    }
    return {name, [map, &asked, first = std::size_t{0}]() mutable
            {
                const std::size_t looks = std::min<std::size_t>(asked.hits.size(), 200'000);
                first = (first + looks) % asked.hits.size(); // other keys than last time, when there are more
                const auto look = [&](const std::vector<Key>& keys)
                {
                    std::size_t found = 0;
                    const double time_ns = MeasureCpu_ns(
                        [&]
                        {
                            for (std::size_t i = first; i < first + looks; ++i)
                            {
                                found += map->find(keys[i]) != map->end() ? 1U : 0U;
                            }
                        });
                    Keep(found);
                    return time_ns / static_cast<double>(looks);
                };
                return Figures{{"hit, ns", look(asked.hits)}, {"miss, ns", look(asked.misses)}};
            }};
}

template <class Hash>
Alternative HashAlone(const std::string& name, const Asked& asked)
{
    return {name, [&asked]
            {
                constexpr int kTimes = 20;
                std::size_t sum = 0;
                const double time_ns = MeasureCpu_ns(
                    [&]
                    {
                        for (int time = 0; time < kTimes; ++time)
                        {
                            for (const Key& key : asked.hits)
                            {
                                sum += Hash()(key);
                            }
                        }
                    });
                Keep(sum);
                return Figures{{"hash, ns", time_ns / (kTimes * static_cast<double>(asked.hits.size()))}};
            }};
}

} // namespace

void CompareKeys(Runner& runner)
{
    const Asked few(1000);
    runner.Run({"keys",
                "hash of a direct instrument's key",
                {HashAlone<Key::Hasher>("CompositeInstrumentID::Hasher", few),
                 HashAlone<BoostHash>("boost::hash_combine", few), HashAlone<AbslHash>("absl::HashOf", few)}});
    for (const std::size_t count :
         {std::size_t{1000}, std::size_t{10'000}, std::size_t{100'000}, std::size_t{1'000'000}})
    {
        const std::string name = "look-up among " + std::to_string(count);
        if (!runner.IsWanted("keys", name))
        {
            continue;
        }
        const Asked asked(count);
        runner.Run(
            {"keys",
             name,
             {LookUp<std::unordered_map<Key, std::uint64_t, Key::Hasher>>("std::unordered_map, Hasher", asked),
              LookUp<boost::unordered_map<Key, std::uint64_t, BoostHash>>("boost::unordered_map", asked),
              LookUp<boost::unordered_flat_map<Key, std::uint64_t, BoostHash>>("boost::unordered_flat_map", asked),
              LookUp<absl::flat_hash_map<Key, std::uint64_t, AbslHash>>("absl::flat_hash_map", asked)}});
    }
}

} // namespace compare
