#pragma once

#include "async/async_task.h"
#include "common/channel_task.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace ps_ns
{

/// A timer that posts its action to a queue at every tick and arms itself again, until it is cancelled. It arms after
/// posting, and also when the queue refused: ticks pile up in a slow queue, never on the timer's side.
///
/// Threads: onTimer runs on the dispatcher's thread and touches only the task itself and the queue's producer side.
/// Ownership: the queue is not owned. Held by a shared pointer, as every AsyncTask.
template <class Queue, class TaskType>
class ChannelPeriodicTask final : public AsyncTask
{
public:
    ChannelPeriodicTask(const std::string& name, std::shared_ptr<AsyncDispatcher> dispatcher,
                        std::function<void()> action, Queue* queue, std::uint32_t period_ms)
        : AsyncTask(name, std::move(dispatcher), std::bind(&ChannelPeriodicTask::onTimer, this))
        , m_action(std::move(action))
        , m_period(period_ms)
        , m_queue(queue)
    {
    }

    /// Posts the action and arms the next tick. Returns false: it has armed itself.
    bool onTimer()
    {
        // The copy moves into the task before the insert, so that it does not die on the dispatcher's thread.
        std::function<void()> action = m_action;
        m_queue->insert(new ChannelTask<TaskType>(std::move(action), GetName()));
        Run(m_period);
        return false;
    }

private:
    std::function<void()> m_action;
    std::uint32_t m_period;
    Queue* m_queue;
};

} // namespace ps_ns
