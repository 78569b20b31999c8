#pragma once

#include "composite_price/order_book.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace ps_ns
{

/// Levels of one side of a book by price, in no order: the quickest way to keep what nobody looks at, in one flat table
/// of places, at most five of eight in use. A level that goes keeps its place, without a
/// quantity, until the table is laid out anew: venues take away and put back the same prices all the time.
///
/// Threads: one at a time.
class LevelTable
{
public:
    using Level = OrderBook::Level;

    /// Sets the quantity at a price; 0 removes the level, and removing what is not there does nothing.
    void Set(const Level& level)
    {
        if (m_places.empty())
        {
            if (level.quantity == 0)
            {
                return;
            }
            LayOut(1);
        }
        Place* place = &Find(level.price);
        if (!place->isUsed)
        {
            if (level.quantity == 0)
            {
                return;
            }
            if (IsFull(m_used + 1))
            {
                LayOut(m_size + 1);
                place = &Find(level.price);
            }
            ++m_used;
        }
        m_size -= place->quantity != 0 ? 1 : 0;
        m_size += level.quantity != 0 ? 1 : 0;
        *place = {level.price, level.quantity, level.orderCount, true};
    }

    /// Makes room for so many more levels, so that setting them cannot fail. What removes a level never fails.
    void Reserve(std::size_t more)
    {
        if (IsFull(m_used + more))
        {
            LayOut(m_size + more);
        }
    }

    /// Asks for the memory in which a price is going to be set.
    void Prefetch(std::int64_t price) const noexcept
    {
        if (!m_places.empty())
        {
            __builtin_prefetch(&m_places[Home(price)]);
        }
    }

    /// Empties the table, and makes it ready for so many levels.
    void Clear(std::size_t expected = 0);

    std::size_t GetSize() const noexcept { return m_size; }
    bool IsEmpty() const noexcept { return m_size == 0; }

    /// Calls `visit(const Level&)` for each, in no order.
    template <class Visit>
    void ForEach(Visit&& visit) const
    {
        for (const Place& place : m_places)
        {
            if (place.quantity != 0)
            {
                visit(Level{place.price, place.quantity, place.orderCount});
            }
        }
    }

private:
    struct Place
    {
        std::int64_t price = 0;
        std::int64_t quantity = 0; ///< 0: there is no level
        std::uint32_t orderCount = 0;
        bool isUsed = false;
    };
    static_assert(sizeof(Place) == 24);

    /// More than five of eight.
    bool IsFull(std::size_t used) const noexcept { return 8 * used > 5 * m_places.size(); }
    /// Twice multiplied: prices are multiples of round numbers, and one multiplication would send them to few places.
    std::size_t Home(std::int64_t price) const noexcept
    {
        constexpr std::uint64_t kSpread = 0x9e37'79b9'7f4a'7c15;
        const std::uint64_t spread = static_cast<std::uint64_t>(price) * kSpread;
        return static_cast<std::size_t>(((spread ^ (spread >> 32)) * kSpread) >> m_shift);
    }
    /// Where the price is, or could be put.
    Place& Find(std::int64_t price) noexcept
    {
        const std::size_t mask = m_places.size() - 1;
        std::size_t at = Home(price);
        while (m_places[at].isUsed && m_places[at].price != price)
        {
            at = (at + 1) & mask;
        }
        return m_places[at];
    }
    /// Lays the table out anew, with room for so many levels; those that are there stay.
    void LayOut(std::size_t levels);

    std::vector<Place> m_places; ///< a power of two, or none
    std::size_t m_used = 0;      ///< with those that have lost their level
    std::size_t m_size = 0;
    unsigned m_shift = 64; ///< so that as many bits are left as there are places for
};

} // namespace ps_ns
