#pragma once

#include <algorithm>
#include <chrono>
#include <thread>

namespace ps_ns
{

/// How a queue's reader passes the time when it finds nothing: it spins for a moment, in case more is on its way, and
/// then sleeps for times that double up to a bound. Work found starts it over, so a busy reader never sleeps.
///
/// Between two looks it leaves the producers alone for some pauses, half a microsecond: each look takes the line of the
/// last node from them. A reader that is as fast as its producers then finds several tasks at a time, where one by one
/// each of them costs a third more.
///
/// The bounds are a trade: the longest sleep is what an idle server adds to a request's latency, and its inverse is how
/// often an idle server wakes up. A wake costs up to 20 us of processor time on a virtual machine: an idle reader then
/// takes about 1 % of a core with 2 ms, and well under that with 4 ms.
class SpinThenSleep
{
public:
    static constexpr int kLooks = 62;
    static constexpr int kPausesBetweenLooks = 32;
    static constexpr std::chrono::microseconds kShortestSleep{20};
    static constexpr std::chrono::microseconds kLongestSleep{4000};

    /// Called when work was found.
    void Reset() noexcept
    {
        m_looks = 0;
        m_sleep = kShortestSleep;
    }

    /// Called when there was none; returns when it is time to look again.
    void Wait()
    {
        if (m_looks < kLooks)
        {
            ++m_looks;
            for (int pause = 0; pause < kPausesBetweenLooks; ++pause)
            {
                Relax();
            }
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

    int m_looks = 0;
    std::chrono::microseconds m_sleep = kShortestSleep;
};

} // namespace ps_ns
