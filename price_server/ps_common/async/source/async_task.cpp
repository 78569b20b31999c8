#include "async/async_task.h"

#include <utility>

namespace ps_ns
{

AsyncTask::AsyncTask(const std::string& name, std::shared_ptr<AsyncDispatcher> dispatcher,
                     std::function<bool()> callback)
    : m_name(name)
    , m_dispatcher(std::move(dispatcher))
    , m_callback(std::move(callback))
{
}

AsyncTask::~AsyncTask() = default;

void AsyncTask::asioHandler(const boost::system::error_code& error, unsigned long armingId)
{
    // Only the newest arming counts; taking it makes the timer idle, so that the callback may arm it again.
    unsigned long expected = armingId;
    if (armingId == kIdle || !m_armingId.compare_exchange_strong(expected, kIdle) || error)
    {
        return;
    }
    const bool finished = m_callback();
    static_cast<void>(finished); // finished: idle already; otherwise the callback's own Run has armed it
}

void AsyncTask::Cancel()
{
    m_cancelled.store(true);
    m_armingId.store(kIdle);
}

void AsyncTask::Run(unsigned int interval_ms)
{
    if (m_cancelled.load())
    {
        return;
    }
    const unsigned long armingId = m_lastArmingId.fetch_add(1) + 1;
    m_armingId.store(armingId);
    if (m_cancelled.load())
    {
        m_armingId.store(kIdle); // a Cancel came since the test above, and may have come before the store
        return;
    }
    m_dispatcher->m_service->Arm(weak_from_this(), armingId, std::chrono::milliseconds(interval_ms));
}

} // namespace ps_ns
