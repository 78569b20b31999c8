#pragma once

#include "common/data_queue.h"

#include <functional>
#include <memory>

namespace prometheus
{
class Collectable;
}

namespace ps_ns
{

class CompositeSubscriptionMgr;
class LoggingSetup;
class MarketTable;
class MdsProvider;
class QueueProbe;
class ZelProvider;

/// The parts of a server that its metrics are read from.
struct ServerMetricsSources
{
    const DataQueue<DataMsgTask>& queue;
    const QueueProbe& probe;
    const CompositeSubscriptionMgr& manager;
    const MdsProvider* mds; ///< null: there is none; as the next one
    const ZelProvider* zel;
    const MarketTable& markets;
    const LoggingSetup& logging;
    std::function<bool()> isReady;
};

/// The server's own metrics, as docs/operations.md lists them, read from its parts whenever somebody asks.
///
/// Threads: any. Ownership: the sources are not owned, and outlive every Collect.
std::shared_ptr<prometheus::Collectable> MakeServerMetrics(ServerMetricsSources sources);

} // namespace ps_ns
