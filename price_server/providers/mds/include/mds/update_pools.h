#pragma once

#include "composite_price/trade.h"
#include "mds/update_pool.h"
#include "simple_subscription/book_update.h"

#include <cstddef>
#include <memory>
#include <vector>

namespace ps_ns
{

/// A buffer that a full image has blown up is not kept: a few thousand of those would be gigabytes.
inline constexpr std::size_t kLargestKeptBuffer = 4096;

inline void Recycle(std::vector<Trade>& trades) noexcept
{
    trades.clear();
    if (trades.capacity() > kLargestKeptBuffer)
    {
        std::vector<Trade>().swap(trades);
    }
}

inline void Recycle(BookUpdate& update) noexcept
{
    std::vector<BookUpdate::Change> changes;
    if (update.changes.capacity() <= kLargestKeptBuffer)
    {
        changes.swap(update.changes);
        changes.clear();
    }
    update = BookUpdate();
    update.changes.swap(changes);
}

/// What a provider's updates are made of, all within one budget.
struct UpdatePools
{
    explicit UpdatePools(std::size_t limit)
        : budget(std::make_shared<InFlightBudget>(limit))
    {
    }

    std::shared_ptr<InFlightBudget> budget;
    UpdatePool<BookUpdate> books{budget};
    UpdatePool<std::vector<Trade>> trades{budget};
};

} // namespace ps_ns
