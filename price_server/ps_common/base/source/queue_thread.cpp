#include "base/queue_thread.h"

#include <cstdio>
#include <cstdlib>

namespace ps_ns
{
namespace
{
thread_local const void* t_queue = nullptr;
}

QueueThreadScope::QueueThreadScope(const void* queue) noexcept
    : m_outer(t_queue)
{
    t_queue = queue;
}

QueueThreadScope::~QueueThreadScope()
{
    t_queue = m_outer;
}

bool IsQueueThread(const void* queue) noexcept
{
    return t_queue == queue;
}

void AssertOnQueueThread([[maybe_unused]] const void* queue) noexcept
{
#ifndef NDEBUG
    if (!IsQueueThread(queue))
    {
        std::fputs("an operation of the queue thread was called on another thread\n", stderr);
        std::abort();
    }
#endif
}

} // namespace ps_ns
