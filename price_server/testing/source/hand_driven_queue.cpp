#include "testing/hand_driven_queue.h"

#include "base/queue_thread.h"

#include <memory>

namespace ps_ns::testing
{

HandDrivenQueue::HandDrivenQueue()
    : m_queue("hand_driven", {})
{
}

bool HandDrivenQueue::RunOne()
{
    const std::unique_ptr<Task, void (*)(Task*)> task(m_queue.take(), &DisposeOf);
    if (task == nullptr)
    {
        return false;
    }
    const QueueThreadScope scope(&m_queue);
    task->execute();
    return true;
}

std::size_t HandDrivenQueue::RunAll()
{
    std::size_t count = 0;
    while (RunOne())
    {
        ++count;
    }
    return count;
}

} // namespace ps_ns::testing
