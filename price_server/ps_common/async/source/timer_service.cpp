#include "async/timer_service.h"

#include "async/async_task.h"
#include "logging/logging.h"

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include <exception>
#include <mutex>
#include <thread>
#include <utility>

namespace ps_ns
{
namespace
{

const std::shared_ptr<const zel::logging::Source>& LogSource()
{
    static const auto source = std::make_shared<const zel::logging::Source>("timer_service");
    return source;
}

/// Runs what the context has until it is stopped; a callback that throws is logged and ends nothing.
void RunContext(boost::asio::io_context& context)
{
    const auto work = boost::asio::make_work_guard(context);
    while (!context.stopped())
    {
        try
        {
            context.run();
        }
        catch (const std::exception& error)
        {
            zel::logging::Log(30, LogSource(),
                              [&](std::ostream& text) { text << "a timer's callback threw: " << error.what(); });
        }
        catch (...)
        {
            zel::logging::Log(30, LogSource(),
                              [](std::ostream& text)
                              { text << "a timer's callback threw something that is no exception"; });
        }
    }
}

/// One thread that waits for all timers of one dispatcher.
class AsioTimerService final : public ITimerService
{
public:
    AsioTimerService()
        : m_context(std::make_shared<boost::asio::io_context>(1))
    {
    }

    /// May run on the service's own thread, when a callback lets go of the last owner: that thread then ends by itself
    /// when the callback returns, and takes the context along.
    ~AsioTimerService() override
    {
        Shutdown();
        if (m_thread.joinable())
        {
            m_thread.detach();
        }
    }

    void Arm(std::weak_ptr<AsyncTask> task, unsigned long armingId, std::chrono::milliseconds delay) override
    {
        const std::lock_guard lock(m_mutex);
        if (m_stopped)
        {
            return;
        }
        auto timer = std::make_shared<boost::asio::steady_timer>(*m_context, delay);
        timer->async_wait(
            [timer, task = std::move(task), armingId](const boost::system::error_code& error)
            {
                if (const auto held = task.lock())
                {
                    held->asioHandler(error, armingId);
                }
            });
        if (!m_thread.joinable())
        {
            m_thread = std::thread([context = m_context] { RunContext(*context); });
            m_threadId = m_thread.get_id();
        }
    }

    void Shutdown() override
    {
        {
            const std::lock_guard lock(m_mutex);
            m_stopped = true;
            m_context->stop();
            if (m_threadId == std::this_thread::get_id())
            {
                return; // the caller is a callback: it cannot wait for itself; the next Shutdown or the destructor
                        // joins
            }
        }
        // Of two callers at once the second waits here until the first has joined.
        const std::lock_guard lock(m_joinMutex);
        if (m_thread.joinable())
        {
            m_thread.join();
        }
    }

    Clock::time_point Now() const override { return Clock::now(); }

private:
    const std::shared_ptr<boost::asio::io_context> m_context; ///< shared with the thread, which may outlive the service
    std::mutex m_mutex;
    std::mutex m_joinMutex;
    bool m_stopped = false;     ///< under m_mutex
    std::thread::id m_threadId; ///< under m_mutex; set by the first Arm
    std::thread m_thread;       ///< started under m_mutex by the first Arm; under m_joinMutex once m_stopped is set
};

std::mutex g_factoryMutex;
TimerServiceFactory g_factory; ///< under g_factoryMutex; empty: the real service

} // namespace

TimerServiceFactory SetTimerServiceFactory(TimerServiceFactory factory)
{
    const std::lock_guard lock(g_factoryMutex);
    std::swap(g_factory, factory);
    return factory;
}

std::shared_ptr<ITimerService> MakeTimerService(const std::string& name)
{
    TimerServiceFactory factory;
    {
        const std::lock_guard lock(g_factoryMutex);
        factory = g_factory;
    }
    return factory ? factory(name) : std::make_shared<AsioTimerService>();
}

} // namespace ps_ns
