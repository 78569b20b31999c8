#include "async/thread_pool.h"

#include "logging/logging.h"

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/strand.hpp>

#include <array>
#include <atomic>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace ps_ns
{
namespace
{

const std::shared_ptr<const zel::logging::Source>& LogSource()
{
    static const auto source = std::make_shared<const zel::logging::Source>("executor");
    return source;
}

/// The task that runs on this thread: what it posts belongs to its generation.
struct Running
{
    const void* pool = nullptr;
    unsigned generation = 0;
};
thread_local Running t_running;

void RunGuarded(const std::function<void()>& task) noexcept
{
    try
    {
        task();
    }
    catch (const std::exception& error)
    {
        zel::logging::Log(30, LogSource(), [&](std::ostream& text) { text << "a task threw: " << error.what(); });
    }
    catch (...)
    {
        zel::logging::Log(30, LogSource(),
                          [](std::ostream& text) { text << "a task threw something that is no exception"; });
    }
}

} // namespace

class ThreadPool::Impl
{
public:
    explicit Impl(std::size_t threads)
        : m_work(boost::asio::make_work_guard(m_context))
    {
        for (std::size_t i = 0; i < threads; ++i)
        {
            m_threads.emplace_back([this] { m_context.run(); });
        }
    }

    template <class Strand>
    void Post(Strand& strand, std::function<void()> task)
    {
        // The token counts the task as gone however it ends. It is taken before m_stopped is read: either we see the
        // stop here, or Stop sees the token and waits for it.
        Token token(this, Enter());
        if (m_stopped.load())
        {
            return;
        }
        boost::asio::post(strand, Job{std::move(token), std::move(task)});
    }

    void Stop()
    {
        const std::lock_guard lock(m_stopMutex);
        m_stopped.store(true);
        m_context.stop();
        for (std::thread& thread : m_threads)
        {
            thread.join();
        }
        m_threads.clear();
        // What still waits is destroyed here, not with the context: a task may own, by a long way round, the strand
        // that owns this pool.
        m_work.reset();
        while (m_pending[0].load() != 0 || m_pending[1].load() != 0)
        {
            m_context.restart();
            m_context.poll();
            std::this_thread::yield();
        }
    }

    /// Begins a generation, and waits for the end of the one before. The one before that has ended: its Drain has
    /// waited for it.
    void Drain()
    {
        const std::lock_guard oneAtATime(m_drainMutex);
        const unsigned before = m_generation.fetch_add(1) % 2;
        std::unique_lock lock(m_idleMutex);
        m_idle.wait(lock, [this, before] { return m_pending[before].load() == 0; });
    }

    boost::asio::io_context& Context() { return m_context; }

private:
    class Token
    {
    public:
        /// `generation` has been entered.
        Token(Impl* pool, unsigned generation) noexcept
            : m_pool(pool)
            , m_generation(generation)
        {
        }
        Token(Token&& other) noexcept
            : m_pool(std::exchange(other.m_pool, nullptr))
            , m_generation(other.m_generation)
        {
        }
        ~Token()
        {
            if (m_pool != nullptr)
            {
                m_pool->Leave(m_generation);
            }
        }
        Token(const Token&) = delete;
        Token& operator=(const Token&) = delete;
        Token& operator=(Token&&) = delete;

        const Impl& GetPool() const noexcept { return *m_pool; }
        unsigned GetGeneration() const noexcept { return m_generation; }

    private:
        Impl* m_pool;
        unsigned m_generation; ///< 0 or 1
    };

    struct Job
    {
        void operator()() const
        {
            if (!token.GetPool().m_stopped.load())
            {
                t_running = {&token.GetPool(), token.GetGeneration()};
                RunGuarded(task);
                t_running = {};
            }
        }

        Token token; ///< first: dies after the task
        std::function<void()> task;
    };

    /// Counts a task in, and returns its generation.
    unsigned Enter() noexcept
    {
        if (t_running.pool == this)
        {
            m_pending[t_running.generation].fetch_add(1); // it is not over while the task that posts runs
            return t_running.generation;
        }
        while (true)
        {
            const unsigned generation = m_generation.load();
            m_pending[generation % 2].fetch_add(1);
            if (m_generation.load() == generation)
            {
                return generation % 2;
            }
            Leave(generation % 2); // a drain has begun meanwhile, and may have looked already
        }
    }

    void Leave(unsigned generation) noexcept
    {
        if (m_pending[generation].fetch_sub(1) == 1)
        {
            const std::lock_guard lock(m_idleMutex);
            m_idle.notify_all();
        }
    }

    std::mutex m_idleMutex;
    std::condition_variable m_idle;
    std::mutex m_drainMutex;
    std::atomic<unsigned> m_generation{0};               ///< of what is posted now, but for what tasks post
    std::array<std::atomic<std::size_t>, 2> m_pending{}; ///< by generation: tasks posted and not yet gone
    std::atomic<bool> m_stopped{false};
    std::mutex m_stopMutex;
    boost::asio::io_context m_context;
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> m_work;
    std::vector<std::thread> m_threads; ///< under m_stopMutex once constructed
};

namespace
{

template <class Pool>
class StrandExecutor final : public Executor
{
public:
    explicit StrandExecutor(std::shared_ptr<Pool> pool)
        : m_pool(std::move(pool))
        , m_strand(boost::asio::make_strand(m_pool->Context()))
    {
    }
    void Post(std::function<void()> task) override { m_pool->Post(m_strand, std::move(task)); }

private:
    const std::shared_ptr<Pool> m_pool;
    boost::asio::strand<boost::asio::io_context::executor_type> m_strand;
};

} // namespace

ThreadPool::ThreadPool(std::size_t threads)
    : m_impl(std::make_shared<Impl>(threads == 0 ? 1 : threads))
{
}

ThreadPool::~ThreadPool()
{
    Stop();
}

std::shared_ptr<Executor> ThreadPool::MakeExecutor()
{
    return std::make_shared<StrandExecutor<Impl>>(m_impl);
}

void ThreadPool::Stop()
{
    m_impl->Stop();
}

void ThreadPool::Drain()
{
    m_impl->Drain();
}

} // namespace ps_ns
