#pragma once

#include <algorithm>
#include <chrono>
#include <thread>

namespace ps_ns
{

/// How a queue's reader passes the time when it finds nothing: it spins for a moment, in case more is on its way, and
/// then sleeps for times that double up to a bound. Work found starts it over, so a busy reader never sleeps.
///
/// The bounds are a trade: the longest sleep is what an idle server adds to a request's latency, and its inverse is how
/// often an idle server wakes up. A wake costs up to 20 us of processor time on a virtual machine: an idle reader then
/// takes about 1 % of a core with 2 ms, and well under that with 4 ms.
class SpinThenSleep
{
public:
    static constexpr int kSpins = 2000;
    static constexpr std::chrono::microseconds kShortestSleep{20};
    static constexpr std::chrono::microseconds kLongestSleep{4000};

    /// Called when work was found.
    void Reset() noexcept
    {
        m_spins = 0;
        m_sleep = kShortestSleep;
    }

    /// Called when there was none; returns when it is time to look again.
    void Wait()
    {
        if (m_spins < kSpins)
        {
            ++m_spins;
            Relax();
            return;
        }
        std::this_thread::sleep_for(m_sleep);
        m_sleep = std::min(m_sleep * 2, kLongestSleep);
    }

private:
    static void Relax() noexcept
    {
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#else
        std::this_thread::yield();
#endif
    }

    int m_spins = 0;
    std::chrono::microseconds m_sleep = kShortestSleep;
};

} // namespace ps_ns
