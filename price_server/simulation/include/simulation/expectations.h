#pragma once

#include "simulation/faults.h"
#include "simulation/stage.h"

#include <deque>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace ps_ns::simulation
{

/// What an observer or a provider throws in the model, where the real one throws.
class ModelThrows : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/// What the model says must happen: the events of the step under way, the callbacks that wait on the executors, and the
/// actions that wait on the data queue.
class Expectations
{
public:
    using Action = std::function<void()>;

    /// A callback that waits on an executor.
    struct Callback
    {
        std::string text;
        std::string observer;
        std::string def;          ///< of the subscription, for the line about one that throws
        int subscription = 0;     ///< whose delivery it is; 0: raised by the manager, and not to be taken back
        unsigned long client = 0; ///< the flexible client's id; 0: the own observer
        bool isSnapshot = false;  ///< a book: it throws by an account of its own
        bool isOptional = false;  ///< comes only if there is something to send by then
    };

    // --- The step under way ---

    void Add(std::string event) { m_events.push_back(std::move(event)); }
    void Log(int level, const std::string& text, unsigned tag = 13);
    void LogFrom(const char* source, int level, const std::string& text);
    /// A callback on the spot; it may throw what the observer has been told to throw.
    void Call(const std::string& observer, std::string text);
    std::vector<std::string> TakeEvents() { return std::exchange(m_events, {}); }

    // --- Executors ---

    void Post(short marketId, Callback callback) { m_executors[marketId].push_back(std::move(callback)); }
    /// A subscription falls silent: nothing of its delivery reaches anybody any more.
    void Silence(short marketId, int subscription);
    /// Nor of one of its clients.
    void Silence(short marketId, int subscription, unsigned long client);
    /// A callback that must come waits.
    bool HasCallbacks(short marketId) const;
    /// The text of the oldest callback, optional ones included; empty: none waits.
    std::string PeekCallback(short marketId) const;
    /// Passes over optional callbacks in front of the one with this text, which did not come.
    void SkipOptional(short marketId, const std::string& until);
    /// The events of the oldest callback of an executor, which is hereby made.
    std::vector<std::string> TakeCallback(short marketId);

    // --- The data queue ---

    /// Refused with a line in the log once the queue is shut down.
    void PostAction(Action action);
    bool HasActions() const { return !m_actions.empty(); }
    std::size_t GetActionCount() const { return m_actions.size(); }
    /// Runs the oldest action; what it throws becomes an event.
    void RunAction();

    bool isQueueShutDown = false;
    std::map<std::string, unsigned> throwsOwed; ///< by observer: how many of its next callbacks throw
    FaultCounts faults;

private:
    bool TakeThrow(const std::string& observer);

    std::vector<std::string> m_events;
    std::map<short, std::deque<Callback>> m_executors;
    std::deque<Action> m_actions;
};

/// How a throw that reached the queue's reader, or the executor, is recorded.
std::string SpellThrown(const std::string& what);

} // namespace ps_ns::simulation
