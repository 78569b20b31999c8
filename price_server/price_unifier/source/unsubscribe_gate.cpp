#include "price_unifier/source/unsubscribe_gate.h"

#include <utility>

namespace ps_ns
{

void UnsubscribeGate::Expect(bool forChange) noexcept
{
    ++m_owed;
    if (forChange)
    {
        ++m_change->owed;
    }
}

void UnsubscribeGate::OnAnswer(bool forChange, bool ok)
{
    std::unique_lock lock(m_mutex);
    --m_owed;
    if (forChange)
    {
        --m_change->owed;
        m_change->isOk = m_change->isOk && ok;
    }
    Settle(std::move(lock));
}

void UnsubscribeGate::BeginChange(const std::shared_ptr<void>& holder, std::shared_ptr<SymbolChangeGroup> group,
                                  Answered answered)
{
    std::shared_ptr<ISymbolChangeMember> member;
    {
        const std::lock_guard lock(m_mutex);
        if (m_change == nullptr)
        {
            m_change = std::make_unique<Change>(*this);
        }
        m_change->isInFlight = true;
        m_change->hasFailed = false;
        m_change->isOk = true;
        m_change->owed = 1; // until FinishExpecting
        m_owed += 1;
        m_change->answered = std::move(answered);
        m_change->answerIsDue = true;
        m_change->group = group;
        member = std::shared_ptr<ISymbolChangeMember>(holder, m_change.get()); // the change lives as long as the gate
    }
    group->Join(member);
}

void UnsubscribeGate::FinishExpecting()
{
    OnAnswer(true, true);
}

void UnsubscribeGate::EndChange()
{
    std::unique_lock lock(m_mutex);
    if (m_change != nullptr)
    {
        m_change->isInFlight = false;
        m_change->group.reset();
    }
    Settle(std::move(lock));
}

void UnsubscribeGate::OnChangeFailed()
{
    std::unique_lock lock(m_mutex);
    m_change->hasFailed = true;
    Settle(std::move(lock));
}

void UnsubscribeGate::BeginTeardown()
{
    std::unique_lock lock(m_mutex);
    m_isTearingDown = true;
    Settle(std::move(lock));
}

void UnsubscribeGate::Disarm() noexcept
{
    Answered answered;
    const std::lock_guard lock(m_mutex);
    m_owner = nullptr;
    if (m_change != nullptr)
    {
        answered.swap(m_change->answered);
    }
}

void UnsubscribeGate::Settle(std::unique_lock<std::mutex> lock)
{
    // The change's answer comes first: whoever acts on it still needs the subscription that the completion gives up.
    if (m_change != nullptr && !AnswerChange(lock))
    {
        m_change->hasFailed = true; // the group tells its members once only: this gate may come second
        const std::shared_ptr<SymbolChangeGroup> group = m_change->group;
        lock.unlock();
        group->Fail();
        lock.lock();
    }
    IUnsubscribeOwner* const owner = TakeOwner();
    lock.unlock();
    if (owner != nullptr)
    {
        owner->OnAllUnsubscribed();
    }
}

/// Gives the change's answer when it is due, without the lock meanwhile; false when the answer was that it has failed.
bool UnsubscribeGate::AnswerChange(std::unique_lock<std::mutex>& lock)
{
    if (m_change->owed != 0 || !m_change->answered)
    {
        return true;
    }
    const bool ok = m_change->isOk;
    {
        Answered answered;
        answered.swap(m_change->answered);
        lock.unlock();
        answered(ok);
    }
    lock.lock();
    m_change->answerIsDue = false;
    return ok;
}

/// Under m_mutex. Null when it is not time to tell, or has been told.
IUnsubscribeOwner* UnsubscribeGate::TakeOwner() noexcept
{
    if (m_change != nullptr && m_change->hasFailed && !m_change->answerIsDue)
    {
        m_change->isInFlight = false;
    }
    const bool isInFlight = m_change != nullptr && m_change->isInFlight;
    return m_isTearingDown && m_owed == 0 && !isInFlight ? std::exchange(m_owner, nullptr) : nullptr;
}

} // namespace ps_ns
