#pragma once

#include "clocks.h"
#include "common/action_center.h"
#include "common/data_queue.h"
#include "common/queue_reader.h"

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/lockfree/queue.hpp>
#include <concurrentqueue/concurrentqueue.h>
#include <tbb/concurrent_queue.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

/// The ways to have a thread run functions that other threads post. Each has Post, which any thread may call, and
/// Cpu_ns, the processor time of its reader so far. Those whose queue has no waiting of its own wait as the project's
/// reader does: they spin for a moment and then sleep for growing times.
namespace compare
{

using Action = std::function<void()>;

/// The project's: the action center, the queue with its counters and its gauge, the reader.
class OurQueue
{
public:
    OurQueue()
        : m_queue("compare", zel::metrics::CreateGauge(Depth()))
        , m_center(&m_queue, nullptr)
        , m_thread([this] { Loop(); })
    {
    }
    ~OurQueue()
    {
        m_stop.store(true);
        m_thread.join();
        zel::metrics::DestroyGauge(Depth());
    }
    OurQueue(const OurQueue&) = delete;
    OurQueue& operator=(const OurQueue&) = delete;

    template <class F>
    void Post(F&& f)
    {
        m_center.ExecuteAction(std::forward<F>(f), m_noName);
    }
    std::uint64_t Cpu_ns() { return CpuOf_ns(m_thread); }

private:
    static const zel::metrics::Metric& Depth()
    {
        static const zel::metrics::Metric depth{"compare_depth", "queued tasks", {}};
        return depth;
    }
    /// As QueueReader's, which does not show its thread.
    void Loop()
    {
        ps_ns::SpinThenSleep wait;
        while (!m_stop.load())
        {
            if (ps_ns::RunSome(m_queue) != 0)
            {
                wait.Reset();
            }
            else
            {
                wait.Wait();
            }
        }
    }

    const std::string m_noName;
    ps_ns::DataQueue<ps_ns::DataMsgTask> m_queue;
    ps_ns::ActionCenter<ps_ns::DataQueue<ps_ns::DataMsgTask>, ps_ns::Task> m_center;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

/// A queue that only pushes and pops, and a reader that looks.
template <class Queue>
class PolledQueue
{
public:
    PolledQueue()
        : m_thread([this] { Loop(); })
    {
    }
    ~PolledQueue()
    {
        m_stop.store(true);
        m_thread.join();
    }
    PolledQueue(const PolledQueue&) = delete;
    PolledQueue& operator=(const PolledQueue&) = delete;

    template <class F>
    void Post(F&& f)
    {
        m_queue.Push(Action(std::forward<F>(f)));
    }
    std::uint64_t Cpu_ns() { return CpuOf_ns(m_thread); }

private:
    void Loop()
    {
        ps_ns::SpinThenSleep wait;
        Action action;
        while (!m_stop.load())
        {
            if (m_queue.Pop(action))
            {
                action();
                action = nullptr;
                wait.Reset();
            }
            else
            {
                wait.Wait();
            }
        }
    }

    Queue m_queue;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

class Moodycamel
{
public:
    void Push(Action&& action) { m_queue.enqueue(std::move(action)); }
    bool Pop(Action& action) { return m_queue.try_dequeue(action); }

private:
    moodycamel::ConcurrentQueue<Action> m_queue;
};

class Tbb
{
public:
    void Push(Action&& action) { m_queue.push(std::move(action)); }
    bool Pop(Action& action) { return m_queue.try_pop(action); }

private:
    tbb::concurrent_queue<Action> m_queue;
};

/// It holds only what is trivial to copy: a pointer to the action.
class BoostLockfree
{
public:
    ~BoostLockfree()
    {
        Action action;
        while (Pop(action))
        {
        }
    }
    void Push(Action&& action)
    {
        auto* const held = new Action(std::move(action));
        while (!m_queue.push(held))
        {
        }
    }
    bool Pop(Action& action)
    {
        Action* held = nullptr;
        if (!m_queue.pop(held))
        {
            return false;
        }
        action = std::move(*held);
        delete held;
        return true;
    }

private:
    boost::lockfree::queue<Action*> m_queue{1024};
};

class LockedDeque
{
public:
    LockedDeque()
        : m_thread([this] { Loop(); })
    {
    }
    ~LockedDeque()
    {
        {
            const std::lock_guard lock(m_mutex);
            m_stop = true;
        }
        m_changed.notify_one();
        m_thread.join();
    }
    LockedDeque(const LockedDeque&) = delete;
    LockedDeque& operator=(const LockedDeque&) = delete;

    template <class F>
    void Post(F&& f)
    {
        {
            const std::lock_guard lock(m_mutex);
            m_actions.emplace_back(std::forward<F>(f));
        }
        m_changed.notify_one();
    }
    std::uint64_t Cpu_ns() { return CpuOf_ns(m_thread); }

private:
    void Loop()
    {
        std::unique_lock lock(m_mutex);
        for (;;)
        {
            m_changed.wait(lock, [this] { return m_stop || !m_actions.empty(); });
            if (m_stop)
            {
                return;
            }
            {
                const Action action = std::move(m_actions.front());
                m_actions.pop_front();
                lock.unlock();
                action();
            }
            lock.lock();
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<Action> m_actions; ///< under m_mutex
    bool m_stop = false;          ///< under m_mutex
    std::thread m_thread;
};

/// An io_context with one thread; the function is posted as it is, without a std::function around it.
class AsioPost
{
public:
    AsioPost()
        : m_thread([this] { m_context.run(); })
    {
    }
    ~AsioPost()
    {
        m_context.stop();
        m_thread.join();
    }
    AsioPost(const AsioPost&) = delete;
    AsioPost& operator=(const AsioPost&) = delete;

    template <class F>
    void Post(F&& f)
    {
        boost::asio::post(m_context, std::forward<F>(f));
    }
    std::uint64_t Cpu_ns() { return CpuOf_ns(m_thread); }

private:
    boost::asio::io_context m_context;
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> m_work{m_context.get_executor()};
    std::thread m_thread;
};

} // namespace compare
