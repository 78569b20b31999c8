#pragma once

#include "base/queue_thread.h"
#include "common/data_queue.h"
#include "common/wait_policy.h"

#include <atomic>
#include <thread>

namespace ps_ns
{

/// Runs one task and disposes of it, as the queue's thread. What it throws is logged at level 30 with the task's name,
/// and goes no further.
void RunTask(const DataQueue<DataMsgTask>& queue, Task* task) noexcept;

/// Takes some tasks at once, runs them on the calling thread in their order, and returns how many these were; 0 when
/// the queue is empty. The caller is the queue's only reader.
std::size_t RunSome(DataQueue<DataMsgTask>& queue);

/// Runs everything that is queued on the calling thread, until the queue is empty; returns how many tasks ran. The
/// caller is as for RunSome.
std::size_t RunDry(DataQueue<DataMsgTask>& queue);

/// The one thread that runs a queue's tasks, in their order.
///
/// Threads: Start and Stop are the owner's; the tasks run on the reader's own thread.
/// Ownership: the queue is not owned and must outlive the reader.
template <class WaitPolicy = SpinThenSleep>
class QueueReader
{
public:
    explicit QueueReader(DataQueue<DataMsgTask>& queue)
        : m_queue(queue)
    {
    }
    ~QueueReader() { Stop(); }
    QueueReader(const QueueReader&) = delete;
    QueueReader& operator=(const QueueReader&) = delete;

    /// Starts the thread; to be called once. Throws std::system_error when there can be no thread.
    void Start()
    {
        m_thread = std::thread([this] { Loop(); });
    }

    /// Runs what is queued, then ends the thread and joins it. Idempotent. Not to be called from a task.
    void Stop()
    {
        m_stop.store(true);
        if (m_thread.joinable())
        {
            m_thread.join();
        }
    }

private:
    void Loop()
    {
        WaitPolicy wait;
        for (;;)
        {
            // Asked before the look: what was queued before Stop is still found.
            const bool stop = m_stop.load();
            if (RunSome(m_queue) != 0)
            {
                wait.Reset();
            }
            else if (stop)
            {
                return;
            }
            else
            {
                wait.Wait();
            }
        }
    }

    DataQueue<DataMsgTask>& m_queue;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

} // namespace ps_ns
