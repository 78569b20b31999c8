#pragma once

#include "composite_price/level_table.h"
#include "composite_price/order_book.h"
#include "simple_subscription/book_update.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace ps_ns
{

/// The book of one component, kept up to date change by change, of which only the top is ever looked at. Each side is a
/// flat array of the levels near the top, sorted by price with the best level last, and a table of the others in no
/// order: books have thousands of levels, and finding a price among them, or making room for it, would cost more than
/// all the rest. When the array has become too short for what is asked, the best levels of the table join it; when it
/// has become too long, its worst ones leave it. Who asks for deep books has long arrays: far from the top a level that
/// goes leaves a hole, a level without a quantity, in which a new one near it finds its place.
///
/// Threads: one at a time.
class ComponentBook
{
public:
    using Levels = std::vector<OrderBook::Level>;

    static constexpr std::size_t kFewestKept = 64;

    /// What is not near the top.
    struct Rest
    {
        std::size_t kept; ///< levels near the top when they are counted out anew; up to twice as many may be
        LevelTable levels;
        std::int64_t bound = 0; ///< all levels here are worse, all near the top are not; unless there are none here
    };

    struct Side
    {
        Levels levels;              ///< near the top: worst level first, best level last; no quantity: a hole
        std::size_t holes = 0;      ///< at most half of `levels`
        std::unique_ptr<Rest> rest; ///< null: there has been none yet
        std::size_t GetKept() const noexcept { return rest != nullptr ? rest->kept : kFewestKept; }
    };

    /// Applies the changes in order; an image empties the book first. A quantity of zero removes the level, and
    /// removing a level that is not there is harmless: a venue may not have shown it.
    void Apply(const BookUpdate& update);
    void Clear() noexcept;

    /// Sees to it that the best so many levels of both sides, or all there are, stand near the top. The book stays what
    /// it is.
    void Expose(std::size_t depth)
    {
        if (IsShort(m_bids, depth) || IsShort(m_asks, depth))
        {
            Fill(depth);
        }
    }

    const Side& GetBids() const noexcept { return m_bids; }
    const Side& GetAsks() const noexcept { return m_asks; }

private:
    static bool IsShort(const Side& side, std::size_t depth) noexcept
    {
        return side.levels.size() - side.holes < depth && side.rest != nullptr && !side.rest->levels.IsEmpty();
    }

    void Fill(std::size_t depth);
    void Load(const BookUpdate& image);
    void Apply(const BookUpdate::Change& change);

    Side m_bids;
    Side m_asks;
};

} // namespace ps_ns
