#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <span>

namespace ps_ns
{

/// One side of a book: an owned array of levels, best first, of which the first `count` are in use.
template <class Level>
class BookSide
{
public:
    /// Room for `levels` levels, all zero; `size` is only recorded.
    BookSide(std::uint32_t levels, std::uint32_t secondSize)
        : depth(levels)
        , size(secondSize)
        , m_levels(std::make_unique<Level[]>(levels))
    {
    }
    BookSide(const BookSide& other)
        : count(other.count)
        , depth(other.depth)
        , size(other.size)
        , m_levels(std::make_unique<Level[]>(other.depth))
    {
        std::copy_n(other.m_levels.get(), other.count, m_levels.get());
    }
    BookSide& operator=(const BookSide&) = delete;

    std::uint32_t count = 0; ///< levels in use
    std::uint32_t depth;     ///< levels there is room for
    std::uint32_t size;      ///< as asked for

    /// The levels in use.
    std::span<const Level> GetLevels() const noexcept { return {m_levels.get(), count}; }

    /// All levels there is room for, to fill; set `count` afterwards.
    std::span<Level> GetStorage() noexcept { return {m_levels.get(), depth}; }
    std::span<const Level> GetStorage() const noexcept { return {m_levels.get(), depth}; }

private:
    std::unique_ptr<Level[]> m_levels;
};

} // namespace ps_ns
