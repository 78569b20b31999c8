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

/// A timer that posts its action to a queue each time it expires; the action then runs on the queue's reader thread.
/// It does not arm itself: whoever holds it calls Run.
///
/// Threads: onTimer runs on the dispatcher's thread and touches only the task itself and the queue's producer side.
/// Ownership: the queue is not owned. Held by a shared pointer, as every AsyncTask.
template <class Queue, class TaskType>
class TimerTask final : public AsyncTask
{
public:
    /// `delay_ms` is what the caller hands to Run.
    TimerTask(const std::string& name, std::shared_ptr<AsyncDispatcher> dispatcher, std::function<void()> action,
              std::uint32_t delay_ms, Queue* queue)
        : AsyncTask(name, std::move(dispatcher), std::bind(&TimerTask::onTimer, this))
        , m_action(std::move(action))
        , m_period(delay_ms)
        , m_queue(queue)
    {
    }

    /// Posts the action. Returns true: finished with this expiry.
    bool onTimer()
    {
        // The copy moves into the task before the insert, so that it does not die on the dispatcher's thread.
        std::function<void()> action = m_action;
        m_queue->insert(new ChannelTask<TaskType>(std::move(action), GetName()));
        return true;
    }

    std::uint32_t GetPeriod() const noexcept { return m_period; }

private:
    std::function<void()> m_action;
    std::uint32_t m_period;
    Queue* m_queue;
};

} // namespace ps_ns
