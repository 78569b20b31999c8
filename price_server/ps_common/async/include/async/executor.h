#pragma once

#include <functional>
#include <memory>

namespace ps_ns
{

/// A serial strand: runs the tasks posted to it one at a time, in the order in which they were posted. Deliveries of
/// one composite subscription share one executor, which is what keeps its callbacks in one ordered stream.
///
/// Threads: Post may be called from any thread, a running task included. Tasks run on a thread of the executor's
/// choice, never inside Post. An executor that has been stopped destroys tasks without running them.
///
/// Failure: a task that throws ends neither the executor nor its thread; the exception is logged at level 30.
class Executor
{
public:
    virtual ~Executor() = default;
    virtual void Post(std::function<void()> task) = 0;
};

/// Makes strands: the thread pool in the server, a hand-driven one in tests.
class IExecutorFactory
{
public:
    virtual ~IExecutorFactory() = default;
    virtual std::shared_ptr<Executor> MakeExecutor() = 0;
};

} // namespace ps_ns
