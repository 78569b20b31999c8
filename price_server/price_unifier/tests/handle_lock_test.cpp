#include "testing/manager_bench.h"

#include <gtest/gtest.h>

using namespace ps_ns;
using namespace ps_ns::testing;
using ps_messages_ns::SubscriptionResult;

namespace
{

/// When the lock of the handle maps is held: asked in the middle of requests, from behind a line that they write. What
/// a queue that is shut down writes for a task that it refuses tells when the request posts.
class HandleLock : public ::testing::Test
{
protected:
    HandleLock() { bench.manager->Subscribe(MakeDef("X"), {}, observer, 1); }

    /// What was seen behind each line with `part` in it while `request` ran.
    template <class Request>
    std::vector<bool> SeenBehind(const std::string& part, const Request& request)
    {
        std::vector<bool> seen;
        const LogHook hook(part, [&] { seen.push_back(bench.Access().IsHandleLockHeld()); });
        request();
        return seen;
    }
    template <class Request>
    std::vector<bool> SeenWhenPosting(const Request& request)
    {
        bench.queue.Get().shutdown();
        return SeenBehind("is in Shutdown mode", request);
    }

    using Seen = std::vector<bool>;
    ManagerBench bench;
    const std::shared_ptr<RecordingObserver> observer = bench.MakeObserver("A");
};

} // namespace

TEST_F(HandleLock, IsReleasedBeforeASubscribePosts)
{
    EXPECT_EQ(SeenWhenPosting([&] { bench.manager->Subscribe(MakeDef("Y"), {}, observer, 1); }), Seen{false});
}

TEST_F(HandleLock, IsReleasedBeforeAnUnsubscribePosts)
{
    EXPECT_EQ(SeenWhenPosting([&] { bench.manager->Unsubscribe(1); }), Seen{false});
}

TEST_F(HandleLock, IsHeldWhileTheRequestsOnAHandlesScopesPost)
{
    EXPECT_EQ(SeenWhenPosting([&] { bench.manager->AddScope(1, {}, 2); }), Seen{true});
    EXPECT_EQ(SeenWhenPosting([&] { bench.manager->RemoveScope(1, 2); }), Seen{true});
    EXPECT_EQ(SeenWhenPosting([&] { bench.manager->ChangeScope(1, {}, 2, true); }), Seen{true});
    EXPECT_FALSE(bench.Access().IsHandleLockHeld());
}

TEST_F(HandleLock, IsHeldUntilARefusalIsWritten)
{
    EXPECT_EQ(SeenBehind("rejected as a duplicate", [&] { bench.manager->Subscribe(MakeDef("X"), {}, observer, 1); }),
              Seen{true});
    EXPECT_EQ(SeenBehind("KEEL SDK", [&] { bench.manager->Subscribe(MakeSyntheticDef("S"), {}, observer, 1); }),
              Seen{true});
    const std::string unknown = "failed - there is no subscription";
    EXPECT_EQ(SeenBehind(unknown, [&] { bench.manager->Unsubscribe(99); }), Seen{true});
    EXPECT_EQ(SeenBehind(unknown, [&] { bench.manager->AddScope(99, {}, 1); }), Seen{true});
    EXPECT_EQ(SeenBehind(unknown, [&] { bench.manager->RemoveScope(99, 1); }), Seen{true});
    EXPECT_EQ(SeenBehind(unknown, [&] { bench.manager->ChangeScope(99, {}, 1, true); }), Seen{true});
    EXPECT_FALSE(bench.Access().IsHandleLockHeld());
}

TEST_F(HandleLock, IsReleasedBeforeAMissingReverseEntryIsReportedSoThatOtherRequestsGoThrough)
{
    const auto other = bench.manager->Subscribe(MakeDef("Y"), {}, observer, 1).first;
    bench.Run();
    bench.events.Clear();
    bench.Access().HandleByInstrument().erase(CompositeInstrumentID(MakeDef("X")));
    std::vector<bool> answers;
    const LogHook hook("could not find the entry",
                       [&]
                       {
                           const bool isHeld = bench.Access().IsHandleLockHeld();
                           EXPECT_FALSE(isHeld);
                           if (!isHeld) // would wait for itself for ever
                           {
                               answers.push_back(bench.manager->AddScope(other, {9, 0, false, false}, 2));
                               answers.push_back(bench.manager->Unsubscribe(other));
                           }
                       });
    EXPECT_TRUE(bench.manager->Unsubscribe(1));
    EXPECT_EQ(answers, (Seen{true, true}));
    bench.Run();
    EXPECT_EQ(bench.events.Filter("zel."),
              (std::vector<std::string>{"zel.ChangeScope Y depth=9 interval=0 trades=0 customFields=0",
                                        "zel.Unsubscribe Y", "zel.Unsubscribe X"}));
}

TEST_F(HandleLock, IsNotHeldWhileAnObserverIsCalledBackSoThatItMayMakeRequests)
{
    bench.Run();
    bench.events.Clear();
    std::vector<bool> answers;
    observer->onCallback = [&]
    {
        if (answers.empty() && !bench.Access().IsHandleLockHeld())
        {
            answers.push_back(bench.manager->AddScope(1, {9, 0, false, false}, 2));
            answers.push_back(bench.manager->Unsubscribe(1));
        }
    };
    bench.manager->RemoveScope(1, 77); // unknown: reported by a callback on the queue's thread
    bench.Run();
    EXPECT_EQ(answers, (Seen{true, true}));
    EXPECT_TRUE(bench.Access().Subscriptions().empty());
}
