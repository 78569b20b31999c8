#pragma once

#include <mutex>
#include <shared_mutex>
#include <utility>

namespace ps_ns
{

/// Lets clients' requests through to the manager between the server's start and its stop, and none afterwards.
///
/// Threads: any. Close waits for the requests that are being made, so that none overlaps with what follows it.
class ClientGate
{
public:
    void Open()
    {
        const std::unique_lock lock(m_mutex);
        m_isOpen = true;
    }
    void Close()
    {
        const std::unique_lock lock(m_mutex);
        m_isOpen = false;
    }

    /// Calls `request` when the gate is open; false: it is closed, and nothing was called. A request must not pass the
    /// gate a second time from within.
    template <class Request>
    bool Pass(Request&& request)
    {
        const std::shared_lock lock(m_mutex);
        if (!m_isOpen)
        {
            return false;
        }
        std::forward<Request>(request)();
        return true;
    }

    /// Calls `work` while no request is being made, whether the gate is open or not; requests wait meanwhile. False:
    /// one is being made, and nothing was called. Does not wait. `work` must not pass the gate.
    template <class Work>
    bool TryHold(Work&& work)
    {
        const std::unique_lock lock(m_mutex, std::try_to_lock);
        if (!lock.owns_lock())
        {
            return false;
        }
        std::forward<Work>(work)();
        return true;
    }

private:
    std::shared_mutex m_mutex;
    bool m_isOpen = false; ///< under m_mutex
};

} // namespace ps_ns
