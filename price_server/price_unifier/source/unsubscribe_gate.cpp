#include "price_unifier/source/unsubscribe_gate.h"

#include <utility>

namespace ps_ns
{

UnsubscribeGate::UnsubscribeGate(std::function<void()> completed)
    : m_completed(std::move(completed))
{
}

void UnsubscribeGate::Expect(bool forChange)
{
    const std::lock_guard lock(m_mutex);
    ++m_owed;
    m_owedToChange += forChange ? 1 : 0;
}

void UnsubscribeGate::OnAnswer(bool forChange, bool ok)
{
    {
        const std::lock_guard lock(m_mutex);
        --m_owed;
        if (forChange)
        {
            --m_owedToChange;
            m_changeOk = m_changeOk && ok;
        }
    }
    Settle();
}

void UnsubscribeGate::BeginChange(std::shared_ptr<SymbolChangeGroup> group, Answered answered)
{
    {
        const std::lock_guard lock(m_mutex);
        m_changeInFlight = true;
        m_changeFailed = false;
        m_changeOk = true;
        m_owedToChange = 1; // until FinishExpecting
        m_owed += 1;
        m_answered = std::move(answered);
        m_answerIsDue = true;
        m_group = group;
    }
    group->Join(weak_from_this());
}

void UnsubscribeGate::FinishExpecting()
{
    OnAnswer(true, true);
}

void UnsubscribeGate::EndChange()
{
    {
        const std::lock_guard lock(m_mutex);
        m_changeInFlight = false;
        m_group.reset();
    }
    Settle();
}

void UnsubscribeGate::OnSymbolChangeFailed()
{
    {
        const std::lock_guard lock(m_mutex);
        m_changeFailed = true;
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
    std::function<void()> completed;
    Answered answered;
    const std::lock_guard lock(m_mutex);
    completed.swap(m_completed);
    answered.swap(m_answered);
}

void UnsubscribeGate::Settle()
{
    // The change's answer comes first: whoever acts on it still needs the subscription that the completion gives up.
    if (!AnswerChange())
    {
        std::shared_ptr<SymbolChangeGroup> group;
        {
            const std::lock_guard lock(m_mutex);
            m_changeFailed = true; // the group tells its members once only: this gate may come second
            group = m_group;
        }
        group->Fail();
    }
    if (const std::function<void()> completed = TakeCompletion())
    {
        completed();
    }
}

/// Gives the change's answer when it is due; false when the answer was that it has failed.
bool UnsubscribeGate::AnswerChange()
{
    Answered answered;
    bool ok = true;
    {
        const std::lock_guard lock(m_mutex);
        if (m_owedToChange != 0 || !m_answered)
        {
            return true;
        }
        answered.swap(m_answered);
        ok = m_changeOk;
    }
    answered(ok);
    const std::lock_guard lock(m_mutex);
    m_answerIsDue = false;
    return ok;
}

std::function<void()> UnsubscribeGate::TakeCompletion()
{
    const std::lock_guard lock(m_mutex);
    if (m_changeFailed && !m_answerIsDue)
    {
        m_changeInFlight = false;
    }
    std::function<void()> completed;
    if (m_isTearingDown && m_owed == 0 && !m_changeInFlight)
    {
        completed.swap(m_completed);
    }
    return completed;
}

} // namespace ps_ns
