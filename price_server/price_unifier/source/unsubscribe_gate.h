#pragma once

#include "simple_subscription/symbol_change_group.h"

#include <functional>
#include <memory>
#include <mutex>

namespace ps_ns
{

/// Who hears that a composite subscription's unsubscribe is complete.
class IUnsubscribeOwner
{
public:
    /// From whatever thread the last answer came on. The owner may be deleted before this returns.
    virtual void OnAllUnsubscribed() = 0;

protected:
    ~IUnsubscribeOwner() = default;
};

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
/// Threads: any. Callbacks are made without the lock. Who calls keeps the gate alive until the call has returned.
class UnsubscribeGate
{
public:
    using Answered = std::function<void(bool ok)>;

    /// `owner` is called once, as the last thing ever, after BeginTeardown.
    explicit UnsubscribeGate(IUnsubscribeOwner* owner) noexcept
        : m_owner(owner)
    {
    }
    UnsubscribeGate(const UnsubscribeGate&) = delete;
    UnsubscribeGate& operator=(const UnsubscribeGate&) = delete;

    /// Guards the gate, and whatever else its owner has it guard.
    std::mutex& GetMutex() const noexcept { return m_mutex; }

    /// One more answer is owed, for the symbol change under way or for any other reason. Under the mutex, which is the
    /// caller's to take.
    void Expect(bool forChange) noexcept;
    void OnAnswer(bool forChange, bool ok);

    /// A symbol change unsubscribes: `answered` is called once, when all answers expected for it are there and
    /// FinishExpecting has been called. `holder` is what keeps this gate alive.
    void BeginChange(const std::shared_ptr<void>& holder, std::shared_ptr<SymbolChangeGroup> group, Answered answered);
    void FinishExpecting();
    /// The change has resubscribed.
    void EndChange();
    /// The subscription is to end. Idempotent.
    void BeginTeardown();

    /// Says nothing more: the subscription is being deleted.
    void Disarm() noexcept;

private:
    /// A symbol change, under way or over: most subscriptions never see one.
    struct Change final : ISymbolChangeMember
    {
        explicit Change(UnsubscribeGate& itsGate)
            : gate(itsGate)
        {
        }
        void OnSymbolChangeFailed() override { gate.OnChangeFailed(); }

        UnsubscribeGate& gate;
        bool isInFlight = false;
        bool hasFailed = false;
        bool isOk = true;
        bool answerIsDue = false; ///< until the call has returned
        unsigned owed = 0;
        Answered answered; ///< empty once it is being called
        std::shared_ptr<SymbolChangeGroup> group;
    };

    void OnChangeFailed();
    /// Says what may be said now. Takes the lock over, and lets go of it before it calls anybody.
    void Settle(std::unique_lock<std::mutex> lock);
    bool AnswerChange(std::unique_lock<std::mutex>& lock);
    IUnsubscribeOwner* TakeOwner() noexcept;

    mutable std::mutex m_mutex;
    // All under m_mutex.
    IUnsubscribeOwner* m_owner;       ///< null once it has been told, or need not be
    std::unique_ptr<Change> m_change; ///< null: there has been none
    unsigned m_owed = 0;
    bool m_isTearingDown = false;
};

} // namespace ps_ns
