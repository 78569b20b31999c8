#pragma once

#include "async/async_dispatcher.h"

#include <boost/system/error_code.hpp>

#include <atomic>
#include <functional>
#include <memory>
#include <string>

namespace ps_ns
{

/// A timer bound to a dispatcher. Always held by a shared pointer (made with std::make_shared); lives as long as
/// somebody holds it, and does not fire afterwards.
///
/// | state | entered by | left by |
/// |---|---|---|
/// | idle | construction; an expiry whose callback returned true | Run |
/// | armed | Run (again: the earlier interval is forgotten) | expiry, Cancel, the dispatcher's shutdown |
/// | cancelled | Cancel | nothing: it is final, and a later Run does not arm |
///
/// Threads: Run and Cancel may be called from any thread, the callback included. The callback runs on the dispatcher's
/// thread. Cancel does not wait for a callback that is running.
class AsyncTask : public std::enable_shared_from_this<AsyncTask>
{
public:
    /// `callback` is called at each expiry. It returns true when it is finished with this expiry, and false when it
    /// has armed the timer again itself.
    AsyncTask(const std::string& name, std::shared_ptr<AsyncDispatcher> dispatcher, std::function<bool()> callback);
    virtual ~AsyncTask();
    AsyncTask(const AsyncTask&) = delete;
    AsyncTask& operator=(const AsyncTask&) = delete;

    /// What the dispatcher calls when an interval is over. An error (the timer was aborted), a cancelled task, or an
    /// arming that a later Run has replaced: nothing happens.
    virtual void asioHandler(const boost::system::error_code& error, unsigned long armingId);

    /// Disarms, for good.
    virtual void Cancel();

    /// Arms the timer to expire once, `interval_ms` from now.
    void Run(unsigned int interval_ms);

    const std::string& GetName() const noexcept { return m_name; }
    /// True from Run to the expiry or Cancel. A dispatcher that shuts down may leave it true: nothing fires then.
    bool IsArmed() const noexcept { return m_armingId.load() != kIdle; }

private:
    static constexpr unsigned long kIdle = 0;

    const std::string m_name;
    const std::shared_ptr<AsyncDispatcher> m_dispatcher;
    const std::function<bool()> m_callback;
    std::atomic<unsigned long> m_lastArmingId{0};
    std::atomic<unsigned long> m_armingId{kIdle}; ///< the arming that counts; kIdle: none
    std::atomic<bool> m_cancelled{false};
};

} // namespace ps_ns
