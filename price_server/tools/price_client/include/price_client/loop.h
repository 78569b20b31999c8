#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/system/error_code.hpp>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

namespace ps_ns::price_client
{

/// Lets code that reads from top to bottom use asynchronous operations: Await starts one and runs the loop until it is
/// done. RequestStop makes the operation under way end early.
///
/// Threads: RequestStop from any thread, everything else from the one that made it.
class Loop
{
public:
    using Clock = std::chrono::steady_clock;

    boost::asio::io_context& GetContext() noexcept { return m_context; }

    /// From now on IsStopped is true, and the canceller is called, on the loop's thread.
    void RequestStop();
    bool IsStopped() const noexcept { return m_isStopped; }

    /// `start` gets the handler of one asynchronous operation. The operation has a time limit of its own, or the
    /// canceller ends it.
    template <class Start>
    boost::system::error_code Await(Start start)
    {
        auto result = std::make_shared<std::optional<boost::system::error_code>>();
        start([result](boost::system::error_code error, auto&&...) { *result = error; });
        RunUntil([&] { return result->has_value(); });
        return **result;
    }

    /// Runs handlers until `isDone`, which an operation under way must bring about.
    void RunUntil(const std::function<bool()>& isDone);
    /// That long, or until the stop.
    void WaitFor(std::chrono::milliseconds time);

    /// What ends the operation under way; empty: nothing does. Called at once when the stop has been requested.
    void SetCanceller(std::function<void()> cancel);

private:
    void Stop();

    boost::asio::io_context m_context{1};
    std::function<void()> m_cancel;
    bool m_isStopped = false;
};

/// Calls something again and again while the loop runs, for as long as it lives.
///
/// Threads: the loop's.
class Ticker
{
public:
    Ticker(Loop& loop, std::chrono::milliseconds period, std::function<void()> tick);
    ~Ticker();
    Ticker(const Ticker&) = delete;
    Ticker& operator=(const Ticker&) = delete;

private:
    struct State
    {
        boost::asio::steady_timer timer;
        const std::chrono::milliseconds period;
        const std::function<void()> tick;
        bool isAlive = true;
    };

    static void Arm(const std::shared_ptr<State>& state);

    const std::shared_ptr<State> m_state; ///< shared with the wait under way
};

} // namespace ps_ns::price_client
