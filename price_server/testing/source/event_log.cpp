#include "testing/event_log.h"

#include "base/queue_thread.h"
#include "testing/hand_driven_executors.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace ps_ns::testing
{

void EventLog::Add(std::string event)
{
    const std::lock_guard lock(m_mutex);
    m_events.push_back(std::move(event));
}

std::vector<std::string> EventLog::Take()
{
    const std::lock_guard lock(m_mutex);
    return std::exchange(m_events, {});
}

std::vector<std::string> EventLog::Filter(const std::string& prefix) const
{
    const std::lock_guard lock(m_mutex);
    std::vector<std::string> found;
    std::copy_if(m_events.begin(), m_events.end(), std::back_inserter(found),
                 [&](const std::string& event) { return event.starts_with(prefix); });
    return found;
}

void EventLog::Clear()
{
    const std::lock_guard lock(m_mutex);
    m_events.clear();
}

std::string GetPlace(const void* queue)
{
    if (HandDrivenExecutors::IsInsideTask())
    {
        return "executor";
    }
    return IsQueueThread(queue) ? "queue" : "caller";
}

} // namespace ps_ns::testing
