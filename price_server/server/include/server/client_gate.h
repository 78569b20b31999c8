#pragma once

#include <condition_variable>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <thread>
#include <utility>

namespace ps_ns
{

/// Lets clients' requests through to the manager between the server's start and its stop, and none afterwards; and lets
/// them wait while something is done that must not come between what a client knows and what it asks for.
///
/// Threads: any. Close waits for the requests that are being made, so that none overlaps with what follows it.
class ClientGate
{
public:
    /// Requests of other threads than the one that has suspended wait while it lives. To be let go of on any thread.
    class Suspension
    {
    public:
        explicit Suspension(ClientGate& gate) noexcept
            : m_gate(&gate)
        {
        }
        Suspension(Suspension&& other) noexcept
            : m_gate(std::exchange(other.m_gate, nullptr))
        {
        }
        Suspension& operator=(Suspension&&) = delete;
        ~Suspension()
        {
            if (m_gate != nullptr)
            {
                m_gate->Resume();
            }
        }

    private:
        ClientGate* m_gate;
    };

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
        std::shared_lock lock(m_mutex);
        m_resumed.wait(lock, [this] { return !m_isSuspended || m_suspendedBy == std::this_thread::get_id(); });
        if (!m_isOpen)
        {
            return false;
        }
        std::forward<Request>(request)();
        return true;
    }

    /// Nothing when a request is being made, or the gate is suspended already. Does not wait.
    std::optional<Suspension> TrySuspend()
    {
        const std::unique_lock lock(m_mutex, std::try_to_lock);
        if (!lock.owns_lock() || m_isSuspended)
        {
            return std::nullopt;
        }
        m_isSuspended = true;
        m_suspendedBy = std::this_thread::get_id();
        return std::optional<Suspension>(std::in_place, *this);
    }

private:
    void Resume()
    {
        {
            const std::unique_lock lock(m_mutex);
            m_isSuspended = false;
        }
        m_resumed.notify_all();
    }

    std::shared_mutex m_mutex;
    std::condition_variable_any m_resumed;
    bool m_isOpen = false;         ///< under m_mutex
    bool m_isSuspended = false;    ///< under m_mutex
    std::thread::id m_suspendedBy; ///< under m_mutex
};

} // namespace ps_ns
