#include "testing/hand_driven_time.h"

#include "async/async_task.h"

#include <boost/system/error_code.hpp>

#include <algorithm>
#include <map>
#include <utility>

namespace ps_ns::testing
{

struct HandDrivenTime::State
{
    struct Armed
    {
        std::weak_ptr<AsyncTask> task;
        unsigned long armingId;
        std::weak_ptr<const bool> isRunning; ///< of the service that armed it
    };
    ITimerService::Clock::time_point now{std::chrono::hours(1)};
    std::multimap<ITimerService::Clock::time_point, Armed> armed;
};

namespace
{

class HandDrivenTimerService final : public ITimerService
{
public:
    explicit HandDrivenTimerService(std::shared_ptr<HandDrivenTime::State> state)
        : m_state(std::move(state))
    {
    }
    void Arm(std::weak_ptr<AsyncTask> task, unsigned long armingId, std::chrono::milliseconds delay) override
    {
        if (m_isRunning != nullptr)
        {
            m_state->armed.emplace(m_state->now + delay,
                                   HandDrivenTime::State::Armed{std::move(task), armingId, m_isRunning});
        }
    }
    void Shutdown() override { m_isRunning.reset(); }
    Clock::time_point Now() const override { return m_state->now; }

private:
    const std::shared_ptr<HandDrivenTime::State> m_state;
    std::shared_ptr<const bool> m_isRunning = std::make_shared<const bool>(true);
};

} // namespace

HandDrivenTime::HandDrivenTime()
    : m_state(std::make_shared<State>())
    , m_previous(SetTimerServiceFactory([state = m_state](const std::string&)
                                        { return std::make_shared<HandDrivenTimerService>(state); }))
{
}

HandDrivenTime::~HandDrivenTime()
{
    SetTimerServiceFactory(std::move(m_previous));
}

void HandDrivenTime::Advance(std::chrono::milliseconds duration)
{
    const auto end = m_state->now + duration;
    while (!m_state->armed.empty() && m_state->armed.begin()->first <= end)
    {
        const auto next = m_state->armed.begin();
        m_state->now = std::max(m_state->now, next->first);
        const State::Armed armed = next->second;
        m_state->armed.erase(next);
        const auto task = armed.task.lock();
        if (task != nullptr && !armed.isRunning.expired())
        {
            task->asioHandler({}, armed.armingId);
        }
    }
    m_state->now = end;
}

std::size_t HandDrivenTime::GetArmed() const
{
    return static_cast<std::size_t>(std::count_if(m_state->armed.begin(), m_state->armed.end(),
                                                  [](const auto& entry)
                                                  {
                                                      const auto task = entry.second.task.lock();
                                                      return task != nullptr && task->IsArmed() &&
                                                             !entry.second.isRunning.expired();
                                                  }));
}

ITimerService::Clock::time_point HandDrivenTime::Now() const
{
    return m_state->now;
}

} // namespace ps_ns::testing
