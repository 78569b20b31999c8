#include "common/action_center.h"
#include "common/data_queue.h"
#include "common/queue_reader.h"

#include <benchmark/benchmark.h>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>

#include <atomic>
#include <barrier>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

using namespace ps_ns;

namespace
{

/// The server's way to its queue thread.
class DataQueuePoster
{
public:
    DataQueuePoster() { m_reader.Start(); }
    void Post(std::function<void()> action) { m_center.ExecuteAction(std::move(action), m_noName); }

private:
    const std::string m_noName;
    DataQueue<DataMsgTask> m_queue{"benchmark", zel::metrics::Gauge()};
    ActionCenter<DataQueue<DataMsgTask>, Task> m_center{&m_queue, nullptr};
    QueueReader<> m_reader{m_queue};
};

/// The same with the gauge that the server's own queue has.
class GaugedDataQueuePoster
{
public:
    GaugedDataQueuePoster() { m_reader.Start(); }
    ~GaugedDataQueuePoster() { zel::metrics::DestroyGauge(kDepth); }
    GaugedDataQueuePoster(const GaugedDataQueuePoster&) = delete;
    GaugedDataQueuePoster& operator=(const GaugedDataQueuePoster&) = delete;
    void Post(std::function<void()> action) { m_center.ExecuteAction(std::move(action), m_noName); }

private:
    static inline const zel::metrics::Metric kDepth{"benchmark_depth", "queued tasks", {}};
    const std::string m_noName;
    DataQueue<DataMsgTask> m_queue{"benchmark", zel::metrics::CreateGauge(kDepth)};
    ActionCenter<DataQueue<DataMsgTask>, Task> m_center{&m_queue, nullptr};
    QueueReader<> m_reader{m_queue};
};

/// A mutex, a deque and a condition variable.
class LockedDequePoster
{
public:
    LockedDequePoster()
        : m_thread([this] { Loop(); })
    {
    }
    ~LockedDequePoster()
    {
        {
            const std::lock_guard lock(m_mutex);
            m_stop = true;
        }
        m_changed.notify_one();
        m_thread.join();
    }
    LockedDequePoster(const LockedDequePoster&) = delete;
    LockedDequePoster& operator=(const LockedDequePoster&) = delete;

    void Post(std::function<void()> action)
    {
        {
            const std::lock_guard lock(m_mutex);
            m_actions.push_back(std::move(action));
        }
        m_changed.notify_one();
    }

private:
    void Loop()
    {
        std::unique_lock lock(m_mutex);
        for (;;)
        {
            m_changed.wait(lock, [this] { return m_stop || !m_actions.empty(); });
            if (m_actions.empty())
            {
                return;
            }
            const std::function<void()> action = std::move(m_actions.front());
            m_actions.pop_front();
            lock.unlock();
            action();
            lock.lock();
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<std::function<void()>> m_actions; ///< under m_mutex
    bool m_stop = false;                         ///< under m_mutex
    std::thread m_thread;
};

/// An io_context with one thread.
class AsioPoster
{
public:
    AsioPoster()
        : m_thread([this] { m_context.run(); })
    {
    }
    ~AsioPoster()
    {
        m_work.reset();
        m_thread.join();
    }
    AsioPoster(const AsioPoster&) = delete;
    AsioPoster& operator=(const AsioPoster&) = delete;

    void Post(std::function<void()> action) { boost::asio::post(m_context, std::move(action)); }

private:
    boost::asio::io_context m_context;
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> m_work{m_context.get_executor()};
    std::thread m_thread;
};

using Clock = std::chrono::steady_clock;
constexpr std::size_t kActionsEach = 50'000;

/// Producers that wait for the start of each iteration together, post their actions, and wait again.
template <class Poster>
class Producers
{
public:
    Producers(Poster& poster, std::size_t count)
        : m_start(static_cast<std::ptrdiff_t>(count + 1))
        , m_end(static_cast<std::ptrdiff_t>(count + 1))
    {
        for (std::size_t producer = 0; producer < count; ++producer)
        {
            m_threads.emplace_back([this, &poster] { Loop(poster); });
        }
    }
    ~Producers()
    {
        m_stop = true;
        m_start.arrive_and_wait();
        for (std::thread& thread : m_threads)
        {
            thread.join();
        }
    }
    Producers(const Producers&) = delete;
    Producers& operator=(const Producers&) = delete;

    struct Times
    {
        double posted_s = 0; ///< until the last producer had posted its last action
        double run_s = 0;    ///< until the last action had run
    };

    Times PostAndRun()
    {
        const std::size_t all = m_threads.size() * kActionsEach;
        m_runs.store(0);
        const Clock::time_point begin = Clock::now();
        m_start.arrive_and_wait();
        m_end.arrive_and_wait();
        const Clock::time_point posted = Clock::now();
        for (std::size_t runs = m_runs.load(); runs != all; runs = m_runs.load())
        {
            std::this_thread::yield();
        }
        return {Seconds(posted - begin), Seconds(Clock::now() - begin)};
    }

private:
    static double Seconds(Clock::duration duration) { return std::chrono::duration<double>(duration).count(); }

    void Loop(Poster& poster)
    {
        for (;;)
        {
            m_start.arrive_and_wait();
            if (m_stop)
            {
                return;
            }
            for (std::size_t action = 0; action < kActionsEach; ++action)
            {
                poster.Post([this] { m_runs.store(m_runs.load(std::memory_order_relaxed) + 1); });
            }
            m_end.arrive_and_wait();
        }
    }

    std::barrier<> m_start;
    std::barrier<> m_end;
    std::atomic<std::size_t> m_runs{0}; ///< written by the consumer alone while actions are under way
    std::atomic<bool> m_stop{false};
    std::vector<std::thread> m_threads;
};

/// Time: from the start of the producers until the last action has run. "post" is the time of one post as its caller
/// sees it, "action" the time of one action until all have run; both in seconds, as the report scales them.
template <class Poster>
void PostSmallActions(benchmark::State& state)
{
    const auto producerCount = static_cast<std::size_t>(state.range(0));
    Poster poster;
    Producers<Poster> producers(poster, producerCount);
    double posted_s = 0;
    double run_s = 0;
    for (auto iteration : state)
    {
        static_cast<void>(iteration);
        const auto times = producers.PostAndRun();
        state.SetIterationTime(times.run_s);
        posted_s += times.posted_s;
        run_s += times.run_s;
    }
    const double postsEach = static_cast<double>(state.iterations()) * static_cast<double>(kActionsEach);
    state.counters["post"] = posted_s / postsEach;
    state.counters["action"] = run_s / (postsEach * static_cast<double>(producerCount));
}

} // namespace

#define PS_POST_BENCHMARK(poster)                                                                                      \
    BENCHMARK_TEMPLATE(PostSmallActions, poster)                                                                       \
        ->ArgName("producers")                                                                                         \
        ->Arg(1)                                                                                                       \
        ->Arg(2)                                                                                                       \
        ->UseManualTime()                                                                                              \
        ->Unit(benchmark::kMillisecond)

PS_POST_BENCHMARK(DataQueuePoster);
PS_POST_BENCHMARK(GaugedDataQueuePoster);
PS_POST_BENCHMARK(LockedDequePoster);
PS_POST_BENCHMARK(AsioPoster);

BENCHMARK_MAIN();
