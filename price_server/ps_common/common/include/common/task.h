#pragma once

#include "common/block_pool.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <new>

namespace ps_ns
{

/// What a data queue carries: one piece of work.
///
/// Ownership: a task is made with new and belongs to the queue from the moment it is inserted. The queue's reader runs
/// execute() and then disposes of it; a queue that is shut down disposes of it at once. Disposing means: dispose() when
/// m_disposer is set, otherwise delete. Tasks of up to 128 bytes take their memory from the block pool (block_pool.h).
class Task
{
public:
    // The virtual operations come in this order, the destructor last: it is what the queue's other users expect.

    /// Hands the task to its disposer; does nothing when there is none.
    virtual void dispose()
    {
        if (m_disposer)
        {
            m_disposer(this);
        }
    }

    /// Runs the task, on the queue's reader thread.
    virtual void execute() = 0;

    virtual ~Task() = default;

    static void* operator new(std::size_t size) { return BlockPool::Allocate(size); }
    static void* operator new(std::size_t size, std::align_val_t alignment) { return ::operator new(size, alignment); }
    static void operator delete(void* task, std::size_t size) noexcept { BlockPool::Free(task, size); }
    static void operator delete(void* task, std::size_t, std::align_val_t alignment) noexcept
    {
        ::operator delete(task, alignment);
    }

    Task(const Task&) = delete;
    Task& operator=(const Task&) = delete;

    std::uint32_t m_tag = 1;               ///< for the reader; 1 on every task built here
    std::function<void(Task*)> m_disposer; ///< empty: whoever is done with the task deletes it

protected:
    Task() = default;
};

/// Disposes of a task, as its owner must: by its disposer, or else by deleting it.
inline void DisposeOf(Task* task)
{
    if (task->m_disposer)
    {
        task->dispose();
    }
    else
    {
        delete task;
    }
}

} // namespace ps_ns
