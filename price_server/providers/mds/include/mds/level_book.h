#pragma once

#include "simple_subscription/book_update.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace ps_ns
{

/// A level of a book. Units: fixed_point.h.
struct BookLevel
{
    std::int64_t price = 0;
    std::int64_t quantity = 0;
    std::uint32_t orderCount = 0; ///< 0: not known

    friend bool operator==(const BookLevel&, const BookLevel&) = default;
};

/// One side of a book: a flat array, sorted, the best level at its end, so that changes near the top move few levels.
/// Prices may be negative; sides sort by value all the same.
class LevelSide
{
public:
    explicit LevelSide(BookSideType side) noexcept
        : m_mask(side == BookSideType::Bid ? 0 : -1)
    {
    }

    /// Sets the quantity at a price; 0 removes the level, and removing what is not there does nothing.
    void Set(const BookLevel& level);

    /// Begins an image: empties the side.
    void Clear() noexcept { m_levels.clear(); }
    /// Adds a level of an image, in any order, though best first is quickest; Sort ends the image.
    void Append(const BookLevel& level) { m_levels.push_back(level); }
    /// Of levels with one price the one appended last stays; levels without a quantity go.
    void Sort();

    /// Best at the end.
    std::span<const BookLevel> GetLevels() const noexcept { return m_levels; }
    std::size_t GetSize() const noexcept { return m_levels.size(); }
    bool IsEmpty() const noexcept { return m_levels.empty(); }
    /// `rank` 0 is the best; must be below GetSize().
    const BookLevel& Get(std::size_t rank) const noexcept { return m_levels[m_levels.size() - 1 - rank]; }

    /// True when `a` is further from the other side than `b`.
    bool IsWorse(std::int64_t a, std::int64_t b) const noexcept { return Key(a) < Key(b); }

private:
    /// Grows from the worst price to the best, on both sides: ~price falls as the price grows.
    std::int64_t Key(std::int64_t price) const noexcept { return price ^ m_mask; }
    std::size_t FindPlace(std::int64_t key) const noexcept;

    std::int64_t m_mask;
    std::vector<BookLevel> m_levels;
};

/// The whole book of an instrument, as far as the venue's messages tell it.
///
/// Threads: the owner sees to it that nobody reads while another writes.
class LevelBook
{
public:
    const LevelSide& GetSide(BookSideType side) const noexcept { return side == BookSideType::Bid ? m_bids : m_asks; }

    /// Applies one message's changes; `isImage`: they replace the book.
    void Apply(std::span<const BookUpdate::Change> changes, bool isImage);

    /// Writes the book as an image: bids, then asks, best first.
    void WriteImage(std::vector<BookUpdate::Change>& changes) const;

private:
    LevelSide& Side(BookSideType side) noexcept { return side == BookSideType::Bid ? m_bids : m_asks; }

    LevelSide m_bids{BookSideType::Bid};
    LevelSide m_asks{BookSideType::Ask};
};

} // namespace ps_ns
