#pragma once

#include "async/executor.h"

#include <cstddef>

namespace ps_ns
{

/// Threads that strands run on, over Boost.Asio.
///
/// Ownership: strands share the pool's state and may outlive the pool; what is posted after Stop is destroyed.
class ThreadPool final : public IExecutorFactory
{
public:
    /// Starts `threads` threads (at least one).
    explicit ThreadPool(std::size_t threads);
    /// Stops.
    ~ThreadPool() override;
    ThreadPool(const ThreadPool&) = delete;
    ThreadPool& operator=(const ThreadPool&) = delete;

    std::shared_ptr<Executor> MakeExecutor() override;

    /// Finishes the tasks that are running, destroys those that wait, and joins the threads. Idempotent; not to be
    /// called from a task.
    void Stop();

    /// Returns when every task posted before this call, and what those posted, has run. What is posted later by others
    /// is not waited for. Not to be called from a task.
    void Drain();

private:
    class Impl;
    std::shared_ptr<Impl> m_impl;
};

} // namespace ps_ns
