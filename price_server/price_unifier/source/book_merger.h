#pragma once

#include "composite_instrument/composite_component_type.h"
#include "composite_price/merged_order_book.h"
#include "price_unifier/source/component_book.h"
#include "simple_subscription/book_update.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace ps_ns
{

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

    /// Fills both sides of `book`, at most as many levels as it has room for. The components' books may be arranged
    /// anew by it, and stay what they are.
    void Merge(MergedOrderBook& book) const;

private:
    mutable std::array<ComponentBook, CompositeComponentType::kCount> m_components;
};

} // namespace ps_ns
