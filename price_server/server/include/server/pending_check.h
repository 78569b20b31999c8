#pragma once

#include "common/data_queue.h"
#include "common/timer_task.h"
#include "price_unifier/source/composite_subscription_mgr.h"

#include <memory>

namespace ps_ns
{

/// Has the manager ask again and again for the symbols whose provider is undecided: a one-shot timer whose action runs
/// on the data-queue thread and starts the next.
///
/// Threads: Start is the owner's; it dies after the queue has run dry and refuses tasks.
class PendingCheck
{
public:
    static constexpr long kInterval_ms = 200;

    PendingCheck(CompositeSubscriptionMgr& manager, DataQueue<DataMsgTask>& queue)
        : m_manager(manager)
        , m_queue(queue)
    {
    }
    PendingCheck(const PendingCheck&) = delete;
    PendingCheck& operator=(const PendingCheck&) = delete;

    /// The first check is the queue's next action. The manager's Shutdown ends the chain.
    void Start();

private:
    void Check();

    CompositeSubscriptionMgr& m_manager;
    DataQueue<DataMsgTask>& m_queue;
    std::shared_ptr<TimerTask<DataQueue<DataMsgTask>, Task>> m_timer; ///< queue thread: nobody else holds it
};

} // namespace ps_ns
