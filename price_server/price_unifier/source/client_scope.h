#pragma once

#include "async/async_task.h"
#include "composite_instrument/composite_subscription_info.h"
#include "composite_price/merged_order_book.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>

namespace ps_ns
{

class IFlexiblePriceObserver;

/// When the next book may go to one recipient, and which one it had last. Executor only.
struct DeliveryPace
{
    /// Null: none yet, or none since the scope changed. Not kept without an interval: a counted reference would cost
    /// more than the rest of a delivery, and sequences tell as much.
    std::shared_ptr<const MergedOrderBook> delivered;
    std::chrono::steady_clock::time_point nextTime{}; ///< no book before that
    std::shared_ptr<AsyncTask> timer;                 ///< made when a book had to wait for the first time
    bool isWaiting = false;                           ///< the timer will deliver
};

/// A flexible client's scope on a composite subscription, as the delivery sees it. What is not atomic or constant
/// belongs to the executor.
struct ClientScope
{
    ClientScope(unsigned long subscriptionId, std::shared_ptr<IFlexiblePriceObserver> flexibleObserver,
                const CompositeSubscriptionInfo& scope)
        : id(subscriptionId)
        , observer(std::move(flexibleObserver))
    {
        SetInfo(scope);
    }

    // What every delivery looks at, side by side: with the reference count before it, no longer than a cache line.

    /// Without an interval, in place of pace.delivered: the sequence of the view that it had last, 0 for none. Within
    /// one depth it tells a view from others.
    std::uint64_t viewSequence = 0;
    std::uint64_t sentSequence = 0; ///< of the newest book that it has had
    const unsigned long id;
    const std::shared_ptr<IFlexiblePriceObserver> observer;
    std::atomic<bool> isRemoved{false}; ///< set by the queue thread: nothing more goes to it, at once
    bool isActive = false;          ///< the replayed answers are out: data may follow, and answers that came meanwhile
    bool hasInterval = false;       ///< info.conflationInterval_ms is not 0
    CompositeSubscriptionInfo info; ///< changed by SetInfo only

    void SetInfo(const CompositeSubscriptionInfo& scope) noexcept
    {
        info = scope;
        hasInterval = scope.conflationInterval_ms != 0;
    }

    unsigned owedAnswers = 0; ///< bit by component: answered since the join, not told yet
    DeliveryPace pace;
};

} // namespace ps_ns
