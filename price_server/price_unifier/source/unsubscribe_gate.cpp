#include "price_unifier/source/unsubscribe_gate.h"

#include <utility>

namespace ps_ns
{

void UnsubscribeGate::Expect(bool forChange)
{
    const std::lock_guard lock(m_mutex);
    ++m_owed;
    if (forChange)
    {
        ++m_change->owed;
    }
}

void UnsubscribeGate::OnAnswer(bool forChange, bool ok)
{
    {
        const std::lock_guard lock(m_mutex);
        --m_owed;
        if (forChange)
        {
            --m_change->owed;
            m_change->isOk = m_change->isOk && ok;
        }
    }
    Settle();
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
    {
        const std::lock_guard lock(m_mutex);
        if (m_change != nullptr)
        {
            m_change->isInFlight = false;
            m_change->group.reset();
        }
    }
    Settle();
}

void UnsubscribeGate::OnChangeFailed()
{
    {
        const std::lock_guard lock(m_mutex);
        m_change->hasFailed = true;
    }
    Settle();
}

void UnsubscribeGate::BeginTeardown()
{
    {
        const std::lock_guard lock(m_mutex);
        m_isTearingDown = true;
    }
    Settle();
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

void UnsubscribeGate::Settle()
{
    // The change's answer comes first: whoever acts on it still needs the subscription that the completion gives up.
    if (!AnswerChange())
    {
        std::shared_ptr<SymbolChangeGroup> group;
        {
            const std::lock_guard lock(m_mutex);
            m_change->hasFailed = true; // the group tells its members once only: this gate may come second
            group = m_change->group;
        }
        group->Fail();
    }
    if (IUnsubscribeOwner* const owner = TakeOwner())
    {
        owner->OnAllUnsubscribed();
    }
}

/// Gives the change's answer when it is due; false when the answer was that it has failed.
bool UnsubscribeGate::AnswerChange()
{
    Answered answered;
    bool ok = true;
    {
        const std::lock_guard lock(m_mutex);
        if (m_change == nullptr || m_change->owed != 0 || !m_change->answered)
        {
            return true;
        }
        answered.swap(m_change->answered);
        ok = m_change->isOk;
    }
    answered(ok);
    const std::lock_guard lock(m_mutex);
    m_change->answerIsDue = false;
    return ok;
}

IUnsubscribeOwner* UnsubscribeGate::TakeOwner()
{
    const std::lock_guard lock(m_mutex);
    if (m_change != nullptr && m_change->hasFailed && !m_change->answerIsDue)
    {
        m_change->isInFlight = false;
    }
    const bool isInFlight = m_change != nullptr && m_change->isInFlight;
    return m_isTearingDown && m_owed == 0 && !isInFlight ? std::exchange(m_owner, nullptr) : nullptr;
}

} // namespace ps_ns
