#pragma once

#include "zel/zel_provider.h"

#include <cstdint>

namespace ps_ns
{

/// What heartbeats have promised of an instrument, and since when that is owed. Heartbeats may overtake prices, so at a
/// steady lag the newest promise is never met; what counts is the oldest one. Kept are that one and the newest: when
/// the oldest is met, the newest takes its place with the time at which it was told. A promise in between is forgotten,
/// which makes a loss known later by at most the time between two heartbeats, and nothing owed that is not.
///
/// Threads: under the provider's lock.
class ZelArrears
{
public:
    using TimePoint = ZelOptions::Clock::time_point;

    /// A heartbeat tells of `sequence`; we have `reached`.
    void Promise(std::uint64_t sequence, std::uint64_t reached, TimePoint now)
    {
        if (sequence <= m_newest.sequence)
        {
            return;
        }
        Settle(reached);
        m_newest = {sequence, now};
        if (m_oldest.sequence == 0 && sequence > reached)
        {
            m_oldest = m_newest;
        }
    }

    /// Something is owed that has not been met yet.
    bool IsBehind(std::uint64_t reached)
    {
        Settle(reached);
        return m_oldest.sequence != 0;
    }
    /// Since when. Only while we are behind.
    TimePoint GetSince() const noexcept { return m_oldest.since; }

    /// Counts anew from now on: an image has come, and what is behind it is on its way.
    void Restart(TimePoint now) noexcept { m_oldest.since = m_newest.since = now; }
    /// In a new epoch nothing has been promised yet.
    void Clear() noexcept { m_oldest = m_newest = {}; }

private:
    struct Told
    {
        std::uint64_t sequence = 0; ///< 0: nothing
        TimePoint since{};
    };

    void Settle(std::uint64_t reached) noexcept
    {
        if (m_oldest.sequence <= reached)
        {
            m_oldest = m_newest.sequence > reached ? m_newest : Told{};
        }
    }

    Told m_oldest; ///< that has not been met
    Told m_newest;
};

} // namespace ps_ns
