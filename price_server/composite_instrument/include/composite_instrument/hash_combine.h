#pragma once

#include <cstdint>

namespace ps_ns
{

/// One mixing step on unsigned 64-bit arithmetic: MurmurHash2's 64-bit multiplier, and an additive constant so that
/// zero moves the hash too. Written out because Boost's function of this name is another one from release to release,
/// and the keys' hashes must not change with a library.
constexpr std::uint64_t HashCombine(std::uint64_t h, std::uint64_t k) noexcept
{
    constexpr std::uint64_t kMultiplier = 0xc6a4a7935bd1e995;
    k *= kMultiplier;
    k ^= k >> 47;
    k *= kMultiplier;

    h ^= k;
    h *= kMultiplier;
    h += 0xe6546b64;
    return h;
}

} // namespace ps_ns
