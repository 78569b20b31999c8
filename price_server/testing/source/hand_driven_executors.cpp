#include "testing/hand_driven_executors.h"

#include <utility>

namespace ps_ns::testing
{
namespace
{

thread_local int t_depth = 0;

class HandDrivenExecutor final : public Executor
{
public:
    HandDrivenExecutor(std::shared_ptr<std::deque<std::function<void()>>> queue, std::shared_ptr<const bool> isStopped)
        : m_queue(std::move(queue))
        , m_isStopped(std::move(isStopped))
    {
    }
    void Post(std::function<void()> task) override
    {
        if (!*m_isStopped)
        {
            m_queue->push_back(std::move(task));
        }
    }

private:
    const std::shared_ptr<std::deque<std::function<void()>>> m_queue;
    const std::shared_ptr<const bool> m_isStopped;
};

} // namespace

HandDrivenExecutors::HandDrivenExecutors()
    : m_isStopped(std::make_shared<bool>(false))
{
}

HandDrivenExecutors::~HandDrivenExecutors()
{
    Stop();
}

std::shared_ptr<Executor> HandDrivenExecutors::MakeExecutor()
{
    m_queues.push_back(std::make_shared<Queue>());
    return std::make_shared<HandDrivenExecutor>(m_queues.back(), m_isStopped);
}

std::size_t HandDrivenExecutors::GetWaiting() const
{
    std::size_t count = 0;
    for (const auto& queue : m_queues)
    {
        count += queue->size();
    }
    return count;
}

bool HandDrivenExecutors::RunOne(std::size_t executor)
{
    Queue& queue = *m_queues[executor];
    if (queue.empty())
    {
        return false;
    }
    const std::function<void()> task = std::move(queue.front());
    queue.pop_front();
    struct Inside
    {
        Inside() { ++t_depth; }
        ~Inside() { --t_depth; }
    } inside;
    task();
    return true;
}

std::size_t HandDrivenExecutors::RunAll()
{
    std::size_t count = 0;
    for (bool anyRan = true; anyRan;)
    {
        anyRan = false;
        for (std::size_t i = 0; i < m_queues.size(); ++i)
        {
            while (RunOne(i))
            {
                anyRan = true;
                ++count;
            }
        }
    }
    return count;
}

void HandDrivenExecutors::Stop()
{
    *m_isStopped = true;
    for (const auto& queue : m_queues)
    {
        // Destroying a task may post another: take the whole queue out first.
        const Queue waiting = std::exchange(*queue, {});
    }
}

bool HandDrivenExecutors::IsInsideTask() noexcept
{
    return t_depth > 0;
}

} // namespace ps_ns::testing
