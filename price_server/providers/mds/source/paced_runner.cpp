#include "mds/paced_runner.h"

#include "logging/logging.h"
#include "mds/problem_log.h"

#include <algorithm>
#include <exception>
#include <utility>

namespace ps_ns
{

void StopSignal::Set()
{
    const std::lock_guard lock(m_mutex);
    m_isSet.store(true);
    m_changed.notify_all();
}

void StopSignal::WaitUntil(TimePoint until)
{
    std::unique_lock lock(m_mutex);
    m_changed.wait_until(lock, until, [this] { return IsSet(); });
}

Pace::Pace(double speed, std::uint64_t longestGap_ns)
    : m_speed(speed)
    , m_longestGap_ns(longestGap_ns)
{
}

Pace::TimePoint Pace::GetDue(const NextMessage& next, TimePoint now)
{
    if (m_epoch != next.epoch)
    {
        m_epoch = next.epoch;
        m_begin = now;
        m_elapsed_ns = 0;
        m_last_ns = next.sourceTime_ns;
    }
    std::uint64_t gap_ns = next.sourceTime_ns > m_last_ns ? next.sourceTime_ns - m_last_ns : 0;
    if (m_longestGap_ns != 0 && gap_ns > m_longestGap_ns)
    {
        gap_ns = m_longestGap_ns;
    }
    m_elapsed_ns += gap_ns;
    m_last_ns = next.sourceTime_ns;
    const double wait_ns = Waits() ? static_cast<double>(m_elapsed_ns) / m_speed : 0.0;
    constexpr double kLongest_ns = 1e18; // thirty years: further the clock's own type does not reach
    return m_begin + std::chrono::nanoseconds(static_cast<std::int64_t>(std::min(wait_ns, kLongest_ns)));
}

PacedRunner::PacedRunner(IPacedWork& work, Pace pace, std::shared_ptr<IPaceClock> clock)
    : m_work(work)
    , m_pace(pace)
    , m_clock(std::move(clock))
{
}

PacedRunner::~PacedRunner()
{
    Stop();
}

void PacedRunner::Start()
{
    m_thread = std::thread([this] { Run(); });
}

void PacedRunner::Stop()
{
    m_stop.Set();
    m_work.Wake();
    if (m_thread.joinable())
    {
        m_thread.join();
    }
}

void PacedRunner::Run() noexcept
{
    try
    {
        m_work.Prepare(m_stop.GetFlag());
        RunSteps();
    }
    catch (const std::exception& error)
    {
        m_hasFailed.store(true);
        zel::logging::Log(30, MdsLogSource(),
                          [&](std::ostream& text) { text << "the market data feed has ended: " << error.what(); });
    }
    m_hasEnded.store(true);
}

void PacedRunner::RunSteps()
{
    while (!m_stop.IsSet())
    {
        if (m_pace.Waits())
        {
            const std::optional<NextMessage> next = m_work.PeekNext();
            if (!next)
            {
                return;
            }
            const auto now = m_clock->Now();
            if (const auto due = m_pace.GetDue(*next, now); due > now)
            {
                m_clock->SleepUntil(due, m_stop);
                if (m_stop.IsSet())
                {
                    return;
                }
            }
        }
        if (!m_work.WaitForRoom() || !m_work.Step())
        {
            return;
        }
    }
}

} // namespace ps_ns
