#include "price_unifier/source/unsubscribe_gate.h"

#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

using namespace ps_ns;

namespace
{

using Events = std::vector<std::string>;

bool CanLock(std::mutex& mutex)
{
    const std::unique_lock lock(mutex, std::try_to_lock);
    return lock.owns_lock();
}

class UnsubscribeGateTest : public ::testing::Test
{
protected:
    /// Tells the fixture.
    struct Owner final : IUnsubscribeOwner
    {
        Owner(UnsubscribeGateTest& itsTest, std::string ownName)
            : test(itsTest)
            , name(std::move(ownName))
        {
        }
        void OnAllUnsubscribed() override { test.Note(name + " completed"); }

        UnsubscribeGateTest& test;
        const std::string name;
    };

    /// What a gate has said; it must not hold its lock while it does, nor any other gate.
    void Note(const std::string& event)
    {
        for (const std::weak_ptr<UnsubscribeGate>& weak : gates)
        {
            if (const auto gate = weak.lock())
            {
                // Another thread asks: a thread must not try a lock that it has itself.
                EXPECT_TRUE(std::async(std::launch::async, [&] { return CanLock(gate->GetMutex()); }).get()) << event;
            }
        }
        events.push_back(event);
    }

    std::shared_ptr<UnsubscribeGate> MakeGate(const std::string& name)
    {
        owners.push_back(std::make_unique<Owner>(*this, name));
        const auto gate = std::make_shared<UnsubscribeGate>(owners.back().get());
        gates.push_back(gate);
        return gate;
    }
    /// Begins a change that expects one answer.
    void BeginChange(const std::shared_ptr<UnsubscribeGate>& gate, const std::string& name)
    {
        gate->BeginChange(gate, group, [this, name](bool ok) { Note(name + (ok ? " ok" : " failed")); });
        gate->Expect(true);
        gate->FinishExpecting();
    }

    Events events;
    std::vector<std::unique_ptr<Owner>> owners;
    std::vector<std::weak_ptr<UnsubscribeGate>> gates;
    std::shared_ptr<SymbolChangeGroup> group = std::make_shared<SymbolChangeGroup>();
};

} // namespace

TEST_F(UnsubscribeGateTest, CompletesAtOnceWhenNothingIsOwed)
{
    MakeGate("A")->BeginTeardown();
    EXPECT_EQ(events, Events{"A completed"});
}

TEST_F(UnsubscribeGateTest, CompletesOnceWithTheLastAnswer)
{
    const auto gate = MakeGate("A");
    gate->Expect(false);
    gate->Expect(false);
    gate->OnAnswer(false, true);
    gate->BeginTeardown();
    EXPECT_TRUE(events.empty());
    gate->OnAnswer(false, false); // a failed answer is an answer
    gate->BeginTeardown();
    EXPECT_EQ(events, Events{"A completed"});
}

TEST_F(UnsubscribeGateTest, DoesNotCompleteBeforeTheTeardown)
{
    const auto gate = MakeGate("A");
    gate->Expect(false);
    gate->OnAnswer(false, true);
    EXPECT_TRUE(events.empty());
}

TEST_F(UnsubscribeGateTest, AnswersAChangeThatOwesNothingAtOnce)
{
    const auto gate = MakeGate("A");
    gate->BeginChange(gate, group, [this](bool ok) { Note(ok ? "ok" : "failed"); });
    EXPECT_TRUE(events.empty());
    gate->FinishExpecting();
    EXPECT_EQ(events, Events{"ok"});
}

TEST_F(UnsubscribeGateTest, AnswersAChangeAsFailedWhenAnyOfItsAnswersHasFailed)
{
    for (const bool isFirst : {true, false})
    {
        const auto gate = MakeGate("A");
        gate->BeginChange(gate, group, [this](bool ok) { Note(ok ? "ok" : "failed"); });
        gate->Expect(true);
        gate->Expect(true);
        gate->OnAnswer(true, !isFirst);
        gate->OnAnswer(true, isFirst);
        EXPECT_TRUE(events.empty());
        gate->FinishExpecting();
        EXPECT_EQ(events, Events{"failed"});
        events.clear();
    }
}

TEST_F(UnsubscribeGateTest, HoldsTheCompletionBackUntilTheChangeHasResubscribed)
{
    const auto gate = MakeGate("A");
    BeginChange(gate, "A");
    gate->BeginTeardown();
    gate->OnAnswer(true, true);
    EXPECT_EQ(events, Events{"A ok"});
    gate->EndChange();
    EXPECT_EQ(events, (Events{"A ok", "A completed"}));
}

TEST_F(UnsubscribeGateTest, CompletesAfterItsOwnFailedAnswer)
{
    const auto gate = MakeGate("A");
    BeginChange(gate, "A");
    gate->BeginTeardown();
    gate->OnAnswer(true, false);
    EXPECT_EQ(events, (Events{"A failed", "A completed"}));
}

TEST_F(UnsubscribeGateTest, CompletesAfterASiblingsFailureButNotBeforeItsOwnAnswer)
{
    const auto a = MakeGate("A");
    const auto b = MakeGate("B");
    const auto c = MakeGate("C");
    BeginChange(a, "A");
    BeginChange(b, "B");
    BeginChange(c, "C");
    a->BeginTeardown();
    b->BeginTeardown();
    b->OnAnswer(true, true);
    EXPECT_EQ(events, Events{"B ok"});
    c->OnAnswer(true, false);
    EXPECT_EQ(events, (Events{"B ok", "C failed", "B completed"}));
    a->OnAnswer(true, true);
    EXPECT_EQ(events, (Events{"B ok", "C failed", "B completed", "A ok", "A completed"}));
}

TEST_F(UnsubscribeGateTest, HoldsNothingBackForASiblingThatJoinsAfterTheFailure)
{
    const auto a = MakeGate("A");
    BeginChange(a, "A");
    a->OnAnswer(true, false);
    const auto b = MakeGate("B");
    BeginChange(b, "B");
    b->BeginTeardown();
    b->OnAnswer(true, true);
    EXPECT_EQ(events, (Events{"A failed", "B ok", "B completed"}));
}

TEST_F(UnsubscribeGateTest, CompletesAlsoWhenASiblingHasFailedBeforeItsOwnFailure)
{
    const auto a = MakeGate("A");
    const auto b = MakeGate("B");
    BeginChange(a, "A");
    BeginChange(b, "B");
    a->BeginTeardown();
    b->BeginTeardown();
    a->OnAnswer(true, false);
    b->OnAnswer(true, false);
    EXPECT_EQ(events, (Events{"A failed", "A completed", "B failed", "B completed"}));
}

TEST_F(UnsubscribeGateTest, WaitsForAnswersOutsideTheChangeToo)
{
    const auto gate = MakeGate("A");
    gate->Expect(false); // a provider switch
    BeginChange(gate, "A");
    gate->OnAnswer(true, true);
    EXPECT_EQ(events, Events{"A ok"});
    gate->BeginTeardown();
    gate->EndChange();
    EXPECT_EQ(events, Events{"A ok"});
    gate->OnAnswer(false, false);
    EXPECT_EQ(events, (Events{"A ok", "A completed"}));
}

TEST_F(UnsubscribeGateTest, SaysNothingOnceDisarmed)
{
    const auto gate = MakeGate("A");
    BeginChange(gate, "A");
    gate->Disarm();
    gate->OnAnswer(true, true);
    gate->EndChange();
    gate->BeginTeardown();
    EXPECT_TRUE(events.empty());
}
