#pragma once

#include "async/async_dispatcher.h"
#include "async/executor.h"
#include "metrics/metrics.h"

#include <memory>

namespace ps_ns
{

/// What all composite subscriptions of a submarket have in common: one record for all of them, rather than three shared
/// pointers in each.
///
/// Threads: any; constant once made. Who moves the gauge takes a copy of the handle.
struct SubscriptionSurroundings
{
    std::shared_ptr<Executor> executor;      ///< runs their deliveries
    std::shared_ptr<AsyncDispatcher> timers; ///< drives conflation and monitoring
    zel::metrics::Gauge staleGauge;          ///< "subscriptions_stale"
};

} // namespace ps_ns
