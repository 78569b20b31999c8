#pragma once

#include "zel/zel_provider.h"

#include <algorithm>
#include <chrono>

namespace ps_ns
{

/// When to ask again: at once, then after the shortest pause, then after twice as long each time, up to the longest.
///
/// Threads: under the provider's lock.
class ZelBackOff
{
public:
    using TimePoint = ZelOptions::Clock::time_point;

    /// True when it is time; the next pause begins then.
    bool IsDue(TimePoint now, std::chrono::milliseconds shortest, std::chrono::milliseconds longest)
    {
        if (m_pause.count() != 0 && now - m_askedAt < m_pause)
        {
            return false;
        }
        m_pause = m_pause.count() == 0 ? shortest : std::min(2 * m_pause, longest);
        m_askedAt = now;
        return true;
    }
    /// The next question is the first one again.
    void Reset() noexcept { m_pause = {}; }

private:
    TimePoint m_askedAt{};
    std::chrono::milliseconds m_pause{0}; ///< since then; 0: not asked yet
};

} // namespace ps_ns
