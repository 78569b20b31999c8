#include "simulation/expectations.h"

#include "logging/logging.h"

#include <algorithm>
#include <utility>

namespace ps_ns::simulation
{

std::string SpellThrown(const std::string& what)
{
    return "thrown: " + what;
}

void Expectations::Log(int level, const std::string& text, unsigned tag)
{
    if (zel::logging::IsEnabled(level))
    {
        Add(SpellLog(level, tag, "composite_subscription_mgr", text));
    }
}

void Expectations::LogFrom(const char* source, int level, const std::string& text)
{
    if (zel::logging::IsEnabled(level))
    {
        Add(SpellLog(level, 13, source, text));
    }
}

bool Expectations::TakeThrow(const std::string& observer)
{
    const auto owed = throwsOwed.find(observer);
    if (owed == throwsOwed.end() || owed->second == 0)
    {
        return false;
    }
    --owed->second;
    return true;
}

void Expectations::Call(const std::string& observer, std::string text)
{
    Add(std::move(text));
    if (TakeThrow(observer))
    {
        faults.Count(observer == "factory" ? Fault::FactoryThrew : Fault::ObserverThrewOnQueue);
        throw ModelThrows(GetThrownText(observer));
    }
}

void Expectations::Silence(short marketId, int subscription)
{
    std::erase_if(m_executors[marketId],
                  [&](const Callback& callback) { return callback.subscription == subscription; });
}

void Expectations::Silence(short marketId, int subscription, unsigned long client)
{
    std::erase_if(m_executors[marketId], [&](const Callback& callback)
                  { return callback.subscription == subscription && callback.client == client; });
}

bool Expectations::HasCallbacks(short marketId) const
{
    const auto executor = m_executors.find(marketId);
    return executor != m_executors.end() && std::any_of(executor->second.begin(), executor->second.end(),
                                                        [](const Callback& callback) { return !callback.isOptional; });
}

std::string Expectations::PeekCallback(short marketId) const
{
    const auto executor = m_executors.find(marketId);
    return executor == m_executors.end() || executor->second.empty() ? "" : executor->second.front().text;
}

void Expectations::SkipOptional(short marketId, const std::string& until)
{
    std::deque<Callback>& executor = m_executors[marketId];
    while (!executor.empty() && executor.front().isOptional && executor.front().text != until)
    {
        executor.pop_front();
    }
}

std::vector<std::string> Expectations::TakeCallback(short marketId)
{
    std::deque<Callback>& executor = m_executors[marketId];
    const Callback callback = std::move(executor.front());
    executor.pop_front();
    std::vector<std::string> events{callback.text};
    if (!callback.isSnapshot && TakeThrow(callback.observer))
    {
        faults.Count(Fault::ObserverThrewOnExecutor);
        const std::string what = GetThrownText(callback.observer);
        // Who delivers goes on with the next client; what the manager raises has no net.
        if (callback.subscription == 0)
        {
            events.push_back(SpellThrown(what));
        }
        else if (zel::logging::IsEnabled(30))
        {
            events.push_back(SpellLog(30, 13, "price_delivery",
                                      callback.def + ": observer " + callback.observer + " threw: " + what));
        }
    }
    return events;
}

void Expectations::PostAction(Action action)
{
    if (isQueueShutDown)
    {
        faults.Count(Fault::QueueShutDown);
        LogFrom("data_queue", 0, "DataQueue hand_driven @* is in Shutdown mode. Ignoring insert for task @*");
        return;
    }
    m_actions.push_back(std::move(action));
}

void Expectations::RunAction()
{
    const Action action = std::move(m_actions.front());
    m_actions.pop_front();
    try
    {
        action();
    }
    catch (const ModelThrows& error)
    {
        Add(SpellThrown(error.what()));
    }
}

} // namespace ps_ns::simulation
