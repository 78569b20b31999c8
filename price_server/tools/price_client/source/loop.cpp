#include "price_client/loop.h"

#include <boost/asio/post.hpp>

#include <utility>

namespace ps_ns::price_client
{

void Loop::RequestStop()
{
    boost::asio::post(m_context, [this] { Stop(); });
}

void Loop::Stop()
{
    m_isStopped = true;
    if (m_cancel)
    {
        m_cancel();
    }
}

void Loop::RunUntil(const std::function<bool()>& isDone)
{
    while (!isDone())
    {
        if (m_context.stopped()) // it stops itself whenever it has run out of work
        {
            m_context.restart();
        }
        m_context.run_one();
    }
}

void Loop::WaitFor(std::chrono::milliseconds time)
{
    boost::asio::steady_timer timer(m_context, time);
    SetCanceller([&timer] { timer.cancel(); });
    if (!m_isStopped)
    {
        Await([&](auto handler) { timer.async_wait(std::move(handler)); });
    }
    SetCanceller({});
}

void Loop::SetCanceller(std::function<void()> cancel)
{
    m_cancel = std::move(cancel);
    if (m_isStopped && m_cancel)
    {
        m_cancel();
    }
}

Ticker::Ticker(Loop& loop, std::chrono::milliseconds period, std::function<void()> tick)
    : m_state(new State{boost::asio::steady_timer(loop.GetContext()), period, std::move(tick)})
{
    Arm(m_state);
}

Ticker::~Ticker()
{
    m_state->isAlive = false;
    m_state->timer.cancel();
}

void Ticker::Arm(const std::shared_ptr<State>& state)
{
    state->timer.expires_after(state->period);
    state->timer.async_wait(
        [state](boost::system::error_code)
        {
            if (state->isAlive)
            {
                state->tick();
            }
            if (state->isAlive)
            {
                Arm(state);
            }
        });
}

} // namespace ps_ns::price_client
