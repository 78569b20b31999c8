#pragma once

#include "async/executor.h"
#include "testing/event_log.h"

#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

namespace ps_ns::testing
{

/// Strands whose tasks run when the test says so, on the test's thread. Each executor keeps its own order; which
/// executor runs next is the test's choice.
///
/// Threads: one.
class HandDrivenExecutors final : public IExecutorFactory
{
public:
    HandDrivenExecutors();
    /// Destroys what has not run.
    ~HandDrivenExecutors() override;

    std::shared_ptr<Executor> MakeExecutor() override;

    std::size_t GetExecutorCount() const noexcept { return m_queues.size(); }
    std::size_t GetWaiting(std::size_t executor) const { return m_queues[executor]->size(); }
    std::size_t GetWaiting() const;

    /// Runs the oldest task of an executor; false when it has none. What the task throws comes out.
    bool RunOne(std::size_t executor);
    /// Runs everything, and what that posts; returns how many tasks ran.
    std::size_t RunAll();
    /// Destroys everything that waits; later posts are destroyed at once.
    void Stop();

    /// Called with each post before its task is queued, with the executor's number; what it throws comes out of the
    /// post, as a failed allocation would. Null: nothing is called. Posts to what is stopped do not count.
    void SetOnPost(std::function<void(std::size_t executor)> onPost);
    /// Called before an executor is made; what it throws comes out of MakeExecutor. Null: nothing is called.
    void SetOnMake(std::function<void()> onMake) { m_onMake = std::move(onMake); }
    /// Records each post as "executor.Post 0", by the executor's number, until SetOnPost says otherwise. Off unless
    /// asked for: other sequences show only what the tasks do.
    void RecordPosts(EventLog& events);

    static bool IsInsideTask() noexcept;

private:
    using Queue = std::deque<std::function<void()>>;
    struct Shared;
    class HandDrivenExecutor;
    std::vector<std::shared_ptr<Queue>> m_queues;
    std::function<void()> m_onMake;
    const std::shared_ptr<Shared> m_shared; ///< with the executors, which may outlive this
};

} // namespace ps_ns::testing
