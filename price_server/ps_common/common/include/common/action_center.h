#pragma once

#include "async/async_dispatcher.h"
#include "common/channel_task.h"

#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace ps_ns
{

/// Posts functions to a queue as tasks. `Queue` is the queue, `TaskType` its task base.
///
/// Threads: ExecuteAction may be called from any thread.
/// Ownership: the queue is not owned and must outlive the action center; the dispatcher is kept alive with it.
template <class Queue, class TaskType>
class ActionCenter
{
public:
    ActionCenter(Queue* queue, std::shared_ptr<AsyncDispatcher> dispatcher)
        : m_queue(queue)
        , m_dispatcher(std::move(dispatcher))
    {
    }

    /// Posts `action`; it runs later, on the queue's reader thread, or never when the queue is shut down. `name` labels
    /// it in the reader's error messages. Throws only when an allocation fails; nothing is queued then.
    void ExecuteAction(std::function<void()> action, const std::string& name)
    {
        // The action moves into the task before the insert, so that no copy of it dies here afterwards: the last
        // reference to a client's observer must not be dropped on the caller's thread once the action has run.
        m_queue->insert(new ChannelTask<TaskType>(std::move(action), name));
    }

private:
    Queue* m_queue;
    std::shared_ptr<AsyncDispatcher> m_dispatcher;
};

} // namespace ps_ns
