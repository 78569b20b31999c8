#pragma once

#include "common/data_queue.h"

#include <cstddef>

namespace ps_ns::testing
{

/// A data queue whose tasks run when the test says so, on the test's thread, which is the queue's thread meanwhile.
class HandDrivenQueue
{
public:
    HandDrivenQueue();

    DataQueue<DataMsgTask>& Get() noexcept { return m_queue; }
    std::size_t GetWaiting() const noexcept { return static_cast<std::size_t>(m_queue.size()); }

    /// Runs the oldest task; false when there is none. Unlike the server's reader it lets out what the task throws.
    bool RunOne();
    /// Runs everything, and what that posts; returns how many tasks ran.
    std::size_t RunAll();

private:
    DataQueue<DataMsgTask> m_queue;
};

} // namespace ps_ns::testing
