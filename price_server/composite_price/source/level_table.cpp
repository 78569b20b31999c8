#include "composite_price/level_table.h"

#include <algorithm>
#include <bit>
#include <utility>

namespace ps_ns
{

void LevelTable::Clear(std::size_t expected)
{
    m_places.clear();
    m_used = 0;
    m_size = 0;
    if (expected != 0)
    {
        LayOut(expected);
    }
}

void LevelTable::LayOut(std::size_t levels)
{
    constexpr std::size_t kFewest = 16;
    constexpr std::size_t kPlacesForEach = 2;
    const std::size_t count = std::bit_ceil(std::max(kFewest, kPlacesForEach * levels));
    std::vector<Place> before = std::exchange(m_places, {});
    if (before.empty())
    {
        m_places.swap(before); // with its room
    }
    m_places.assign(count, Place{});
    m_shift = static_cast<unsigned>(64 - std::countr_zero(count));
    m_used = m_size;
    for (const Place& place : before)
    {
        if (place.quantity != 0)
        {
            Find(place.price) = place;
        }
    }
}

} // namespace ps_ns
