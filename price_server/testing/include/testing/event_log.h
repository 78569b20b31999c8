#pragma once

#include <mutex>
#include <string>
#include <vector>

namespace ps_ns::testing
{

/// The one sequence into which everything of a test records: log records, provider calls, observer callbacks. Order is
/// asserted by comparing it whole.
///
/// Threads: any.
class EventLog
{
public:
    void Add(std::string event);

    /// All events so far, and empties the log.
    std::vector<std::string> Take();
    /// The events since the last Take that begin with `prefix`; leaves the log as it is.
    std::vector<std::string> Filter(const std::string& prefix) const;
    void Clear();

private:
    mutable std::mutex m_mutex;
    std::vector<std::string> m_events; ///< under m_mutex
};

/// Where the caller runs: "queue" inside a task of `queue`, "executor" inside a task of a hand-driven executor,
/// otherwise "caller". Recording observers write it behind each callback.
std::string GetPlace(const void* queue);

} // namespace ps_ns::testing
