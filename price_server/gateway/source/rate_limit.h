#pragma once

#include <algorithm>
#include <chrono>

namespace ps_ns::gateway
{

/// A token bucket: so many a second in the long run, twice as many at once.
class RateLimit
{
public:
    using Clock = std::chrono::steady_clock;

    RateLimit(double perSecond, Clock::time_point now)
        : m_perSecond(perSecond)
        , m_tokens(2 * perSecond)
        , m_last(now)
    {
    }
    /// False: one too many.
    bool Take(Clock::time_point now)
    {
        const double elapsed_sec = std::chrono::duration<double>(now - m_last).count();
        m_last = now;
        m_tokens = std::min(2 * m_perSecond, m_tokens + elapsed_sec * m_perSecond);
        if (m_tokens < 1)
        {
            return false;
        }
        m_tokens -= 1;
        return true;
    }

private:
    const double m_perSecond;
    double m_tokens;
    Clock::time_point m_last;
};

} // namespace ps_ns::gateway
