#pragma once

#include "common/tick_clock.h"
#include "price_unifier/source/composite_subscription_mgr.h"

#include <atomic>
#include <cstdint>

namespace ps_ns::detail
{

/// The callbacks that one change sets off, one after another on one executor: counted one by one, timed as a whole, so
/// that a change to many observers takes two looks at the clock and not one for each. What is done between callbacks
/// can be left out of the time. Ends, and adds to the manager's record, when it dies.
///
/// Threads: one.
class CallbackRound
{
public:
    /// Where the time goes to: UpdateSnapshotTime or UpdateTradesTime.
    using Note = void (CompositeSubscriptionMgr::*)(unsigned long duration_ns);

    CallbackRound(CompositeSubscriptionMgr& manager, Note note, std::atomic<std::uint64_t>& callbacks) noexcept
        : m_manager(manager)
        , m_note(note)
        , m_callbacks(callbacks)
        , m_clock(TickClock::Get())
    {
    }
    ~CallbackRound()
    {
        Pause();
        if (m_count != 0)
        {
            (m_manager.*m_note)(m_clock.ToNanoseconds(m_ticks));
            m_callbacks.fetch_add(m_count, std::memory_order_relaxed);
        }
    }
    CallbackRound(const CallbackRound&) = delete;
    CallbackRound& operator=(const CallbackRound&) = delete;

    /// So many callbacks have been made.
    void Count(std::uint64_t callbacks) noexcept { m_count += callbacks; }
    /// What comes now are callbacks. Idempotent, as is Pause.
    void Resume() noexcept
    {
        if (!m_isTimed)
        {
            m_isTimed = true;
            m_begin = m_clock.Now();
        }
    }
    /// What comes now is something else, as it is at first.
    void Pause() noexcept
    {
        if (m_isTimed)
        {
            m_isTimed = false;
            const std::uint64_t now = m_clock.Now();
            m_ticks += now > m_begin ? now - m_begin : 0; // another core's counter may be a little behind
        }
    }

private:
    CompositeSubscriptionMgr& m_manager;
    const Note m_note;
    std::atomic<std::uint64_t>& m_callbacks;
    const TickClock& m_clock;
    std::uint64_t m_begin = 0;
    std::uint64_t m_ticks = 0;
    std::uint64_t m_count = 0;
    bool m_isTimed = false;
};

} // namespace ps_ns::detail
