#pragma once

#include "composite_instrument/composite_component_type.h"
#include "composite_price/merged_order_book.h"
#include "composite_price/order_book.h"
#include "simple_subscription/book_update.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace ps_ns
{

/// The book of one component, kept up to date change by change. Each side is a flat array sorted by price with the best
/// level last, so that the changes near the top, which are most of them, move few levels. Deep in the book a level that
/// goes leaves a hole, a level without a quantity, in which a new one near it finds its place: books have thousands of
/// levels, and what is between a change and the top would have to move each time.
class ComponentBook
{
public:
    using Levels = std::vector<OrderBook::Level>;

    /// One side, with its holes.
    struct Side
    {
        Levels levels;         ///< worst level first, best level last; those without a quantity are holes
        std::size_t holes = 0; ///< at most half of the levels
    };

    /// Applies the changes in order; an image empties the book first. A quantity of zero removes the level, and
    /// removing a level that is not there is harmless: a venue may not have shown it.
    void Apply(const BookUpdate& update);
    void Clear() noexcept;

    const Side& GetBids() const noexcept { return m_bids; }
    const Side& GetAsks() const noexcept { return m_asks; }

private:
    void Load(const BookUpdate& image);
    void Apply(const BookUpdate::Change& change);

    Side m_bids;
    Side m_asks;
};

/// Merges the books of an instrument's components by price. The result depends on the components' present levels only,
/// not on the order in which they came to be; prices are whole numbers, so equal prices meet exactly. A crossed or
/// locked book is kept as it is. Depth is cut last: a level counts after all components have had their say at its
/// price.
///
/// Threads: one at a time.
class BookMerger
{
public:
    void Apply(CompositeComponentType::Type component, const BookUpdate& update);
    void Clear(CompositeComponentType::Type component) noexcept;

    const ComponentBook& GetComponent(CompositeComponentType::Type component) const;

    /// Fills both sides of `book`, at most as many levels as it has room for.
    void Merge(MergedOrderBook& book) const;

private:
    std::array<ComponentBook, CompositeComponentType::kCount> m_components;
};

} // namespace ps_ns
