#include "testing/hand_driven_executors.h"

#include <string>
#include <utility>

namespace ps_ns::testing
{
namespace
{

thread_local int t_depth = 0;

} // namespace

struct HandDrivenExecutors::Shared
{
    bool isStopped = false;
    std::function<void(std::size_t executor)> onPost;
};

class HandDrivenExecutors::HandDrivenExecutor final : public Executor
{
public:
    HandDrivenExecutor(std::size_t number, std::shared_ptr<Queue> queue, std::shared_ptr<const Shared> shared)
        : m_number(number)
        , m_queue(std::move(queue))
        , m_shared(std::move(shared))
    {
    }
    void Post(std::function<void()> task) override
    {
        if (m_shared->isStopped)
        {
            return;
        }
        if (m_shared->onPost)
        {
            m_shared->onPost(m_number);
        }
        m_queue->push_back(std::move(task));
    }

private:
    const std::size_t m_number;
    const std::shared_ptr<Queue> m_queue;
    const std::shared_ptr<const Shared> m_shared;
};

HandDrivenExecutors::HandDrivenExecutors()
    : m_shared(std::make_shared<Shared>())
{
}

HandDrivenExecutors::~HandDrivenExecutors()
{
    Stop();
}

std::shared_ptr<Executor> HandDrivenExecutors::MakeExecutor()
{
    if (m_onMake)
    {
        m_onMake();
    }
    m_queues.push_back(std::make_shared<Queue>());
    return std::make_shared<HandDrivenExecutor>(m_queues.size() - 1, m_queues.back(), m_shared);
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
    m_shared->isStopped = true;
    for (const auto& queue : m_queues)
    {
        // Destroying a task may post another: take the whole queue out first.
        const Queue waiting = std::exchange(*queue, {});
    }
}

void HandDrivenExecutors::SetOnPost(std::function<void(std::size_t executor)> onPost)
{
    m_shared->onPost = std::move(onPost);
}

void HandDrivenExecutors::RecordPosts(EventLog& events)
{
    SetOnPost([&events](std::size_t executor) { events.Add("executor.Post " + std::to_string(executor)); });
}

bool HandDrivenExecutors::IsInsideTask() noexcept
{
    return t_depth > 0;
}

} // namespace ps_ns::testing
