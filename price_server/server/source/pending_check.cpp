#include "server/pending_check.h"

#include "common/channel_task.h"

namespace ps_ns
{

void PendingCheck::Start()
{
    // By way of the queue, so that only its thread ever touches the timer.
    m_queue.insert(new ChannelTask<Task>([this] { Check(); }, "PendingCheck"));
}

void PendingCheck::Check()
{
    m_manager.CheckProviderPendingSubscriptions();
    m_timer = m_manager.StartTimer([this] { Check(); }, kInterval_ms, "PendingCheck");
}

} // namespace ps_ns
