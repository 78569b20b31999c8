#pragma once

#include "simple_subscription/symbol_change_group.h"

#include <functional>
#include <memory>
#include <mutex>

namespace ps_ns
{

/// Counts the answers that providers owe a composite subscription, and decides when two things may be said: that a
/// symbol change's unsubscribe is done, and that the whole subscription is.
///
/// | state of a symbol change | entered by | the subscription's completion is |
/// |---|---|---|
/// | none | start; EndChange; after a failed change's answer | reported as soon as nothing is owed |
/// | unsubscribing | BeginChange | held back |
/// | answered | the last answer owed to the change | held back, unless it or a sibling has failed |
///
/// The manager keeps raw pointers to subscriptions under a symbol change; holding the completion back is what keeps
/// them from being deleted meanwhile.
///
/// Threads: any. Callbacks are made without the lock.
class UnsubscribeGate final : public ISymbolChangeMember, public std::enable_shared_from_this<UnsubscribeGate>
{
public:
    using Answered = std::function<void(bool ok)>;

    /// `completed` is called once, as the last thing ever, after BeginTeardown.
    explicit UnsubscribeGate(std::function<void()> completed);

    /// One more answer is owed, for the symbol change under way or for any other reason.
    void Expect(bool forChange);
    void OnAnswer(bool forChange, bool ok);

    /// A symbol change unsubscribes: `answered` is called once, when all answers expected for it are there and
    /// FinishExpecting has been called.
    void BeginChange(std::shared_ptr<SymbolChangeGroup> group, Answered answered);
    void FinishExpecting();
    /// The change has resubscribed.
    void EndChange();
    void OnSymbolChangeFailed() override;
    /// The subscription is to end. Idempotent.
    void BeginTeardown();

    /// Says nothing more: the subscription is being deleted.
    void Disarm() noexcept;

private:
    void Settle();
    bool AnswerChange();
    std::function<void()> TakeCompletion();

    std::mutex m_mutex;
    // All under m_mutex.
    std::function<void()> m_completed;
    bool m_isTearingDown = false;
    unsigned m_owed = 0;
    bool m_changeInFlight = false;
    bool m_changeFailed = false;
    unsigned m_owedToChange = 0;
    bool m_changeOk = true;
    Answered m_answered;        ///< empty once it is being called
    bool m_answerIsDue = false; ///< until the call has returned
    std::shared_ptr<SymbolChangeGroup> m_group;
};

} // namespace ps_ns
