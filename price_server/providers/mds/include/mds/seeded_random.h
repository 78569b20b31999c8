#pragma once

#include <cstdint>

namespace ps_ns
{

/// Numbers that a seed determines, the same on every machine and with every standard library: the state advances by a
/// fixed odd step and is mixed by two multiplications.
class SeededRandom
{
public:
    explicit SeededRandom(std::uint64_t seed) noexcept
        : m_state(seed)
    {
    }

    std::uint64_t Next() noexcept
    {
        m_state += 0x9e3779b97f4a7c15U;
        std::uint64_t mixed = m_state;
        mixed = (mixed ^ (mixed >> 30)) * 0xbf58476d1ce4e5b9U;
        mixed = (mixed ^ (mixed >> 27)) * 0x94d049bb133111ebU;
        return mixed ^ (mixed >> 31);
    }

    /// 0 to `count` - 1; `count` must be positive. The bias of the remainder is below 2^-40 for what it is used for.
    std::int64_t Below(std::int64_t count) noexcept
    {
        return static_cast<std::int64_t>(Next() % static_cast<std::uint64_t>(count));
    }

    /// True once in `of` times.
    bool Once(std::int64_t of) noexcept { return Below(of) == 0; }

private:
    std::uint64_t m_state;
};

} // namespace ps_ns
