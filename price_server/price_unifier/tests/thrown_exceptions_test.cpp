#include "flexible_fixture.h"

#include "composite_instrument/subscription_ex.h"

#include <new>
#include <stdexcept>

using namespace ps_ns;
using namespace ps_ns::testing;

namespace
{

/// What an observer or a collaborator throws in an action comes out to the queue's reader, but for the one exception
/// that a subscribe of the components may answer with. What comes behind it in the action does not happen.
class ThrownExceptions : public FlexibleSubscribe
{
protected:
    ThrownExceptions()
    {
        first->onCallback = Throw;
        direct->onCallback = Throw;
    }
    static void Throw() { throw std::runtime_error("thrown by a client"); }

    /// The one action that waits throws; the callback is all that was recorded.
    void ExpectThrownBehind(const std::string& callback)
    {
        EXPECT_EQ(bench.queue.GetWaiting(), 1U);
        EXPECT_THROW(bench.queue.RunOne(), std::runtime_error) << callback;
        EXPECT_EQ(bench.events.Take(), Events{callback});
    }
    /// A report that went to the executor throws there.
    void ExpectThrownOnTheExecutor(const std::string& callback)
    {
        bench.queue.RunAll();
        bench.events.Clear();
        EXPECT_THROW(bench.executors->RunAll(), std::runtime_error) << callback;
        EXPECT_EQ(bench.events.Take(), Events{callback});
        bench.executors->RunAll();
    }

    const std::shared_ptr<RecordingObserver> direct = bench.MakeObserver("A");
    const CompositeSubscriptionInfo scope{5, 0, false, false};
};

} // namespace

TEST_F(ThrownExceptions, ByAnObserverOfWhatIsNotSubscribedComeOut)
{
    bench.manager->Unsubscribe(def, first, 1);
    ExpectThrownBehind("F.OnUnsubscribe id=1 X result=13 component=0 @queue");
    bench.manager->ChangeScope(def, scope, first, 1, true);
    ExpectThrownBehind("F.OnChangeScope id=1 X result=13 @queue");
    auto access = bench.Access();
    access.UnsubscribeImpl(def, direct, 3);
    ExpectThrownBehind("A.OnUnsubscribe X result=13 component=0 @queue");
    access.AddScopeImpl(def, direct, 3, scope, 2, nullptr);
    ExpectThrownBehind("A.OnAddScope X handle=3 result=13 @queue");
    access.RemoveScopeImpl(def, direct, 3, 2);
    ExpectThrownBehind("A.OnRemoveScope X handle=3 result=13 @queue");
    access.ChangeScopeImpl(def, direct, 3, scope, 2, false);
    ExpectThrownBehind("A.OnChangeScope X handle=3 result=13 @queue");
}

TEST_F(ThrownExceptions, ByADirectObserverOfARefusedRequestComeOut)
{
    bench.manager->Subscribe(def, scope, bench.factory, second, 1);
    Take();
    bench.manager->Subscribe(def, scope, direct, 7);
    ExpectThrownBehind("A.OnSubscribe X result=12 component=0 @queue");
    bench.manager->AddScope(1, scope, 1);
    ExpectThrownBehind("A.OnAddScope X handle=1 result=23 @queue");
    bench.manager->RemoveScope(1, 8);
    ExpectThrownBehind("A.OnRemoveScope X handle=1 result=24 @queue");
    bench.manager->ChangeScope(1, scope, 8, false);
    ExpectThrownBehind("A.OnChangeScope X handle=1 result=24 @queue");
}

TEST_F(ThrownExceptions, ByAFlexibleObserverOfARaisedReportComeOutOnTheExecutor)
{
    bench.manager->Subscribe(def, scope, bench.factory, second, 1);
    Take();
    Subscribe(first, 1);
    ExpectThrownOnTheExecutor("F.OnSubscribe id=1 X result=23 component=0 @executor");
    bench.manager->Unsubscribe(def, first, 8);
    ExpectThrownOnTheExecutor("F.OnUnsubscribe id=8 X result=24 component=0 @executor");
    bench.manager->ChangeScope(def, scope, first, 8, false);
    ExpectThrownOnTheExecutor("F.OnChangeScope id=8 X result=24 @executor");
}

TEST_F(ThrownExceptions, ByTheFactoryComeOutBeforeAnythingIsFiled)
{
    class ThrowingFactory final : public LocalObserverFactory
    {
    public:
        std::shared_ptr<ICompositePriceObserver> CreateLocalObserver(const CompositeInstrumentDef&) override
        {
            throw SubscriptionEx("no observer to be had");
        }
    } factory;
    bench.manager->Subscribe(def, scope, factory, second, 1);
    EXPECT_THROW(bench.queue.RunAll(), SubscriptionEx);
    EXPECT_FALSE(IsLive());
    EXPECT_EQ(Take(), Events{});
    EXPECT_EQ(bench.simple->GetRegistry().GetSize(), 0U);
}

TEST_F(ThrownExceptions, WhileTheFirstScopeIsAddedComeOutWhateverTheirType)
{
    const auto subscribe = [&](const auto& thrower)
    {
        bench.executors->SetOnPost([thrower](std::size_t) { thrower(); });
        bench.manager->Subscribe(def, scope, bench.factory, second, 1);
    };
    const auto expectFiledOnly = [&]
    {
        bench.executors->SetOnPost(nullptr);
        EXPECT_TRUE(IsLive()); // filed before, and nothing is undone
        EXPECT_FALSE(Live().HasIndividualSubscriptions());
        EXPECT_EQ(bench.manager->GetSubscriptionCounts().first, 0U);
        // No line, no subscribe of the components, no report.
        EXPECT_EQ(Take(), Events{"factory.CreateLocalObserver X @queue"});
        bench.Access().Subscriptions().clear(); // the registry has it
    };
    subscribe([] { throw std::bad_alloc(); });
    EXPECT_THROW(bench.queue.RunAll(), std::bad_alloc);
    expectFiledOnly();
    subscribe([] { throw SubscriptionEx("looks like a failed subscribe, and is none"); });
    EXPECT_THROW(bench.queue.RunAll(), SubscriptionEx);
    expectFiledOnly();
}

TEST_F(ThrownExceptions, WhileASubscriptionIsConstructedComeOutOnBothInterfacesAndNothingIsFiled)
{
    bench.executors->SetOnMake([] { throw SubscriptionEx("looks like a failed subscribe, and is none"); });
    bench.manager->Subscribe(def, scope, direct, 1);
    EXPECT_THROW(bench.queue.RunAll(), SubscriptionEx);
    EXPECT_EQ(Take(), Events{});
    EXPECT_EQ(bench.Access().SubscriptionByHandle().size(), 1U); // the handle stays taken
    bench.manager->Subscribe(def, scope, bench.factory, second, 1);
    EXPECT_THROW(bench.queue.RunAll(), SubscriptionEx);
    EXPECT_EQ(Take(), Events{"factory.CreateLocalObserver X @queue"});
    EXPECT_FALSE(IsLive());
    EXPECT_EQ(bench.simple->GetRegistry().GetSize(), 0U);

    bench.executors->SetOnMake(nullptr);
    Subscribe(second, 1);
    EXPECT_TRUE(IsLive());
}

TEST_F(ThrownExceptions, WhileALaterScopeIsAddedComeOutAndLeaveNoTrace)
{
    bench.manager->Subscribe(def, scope, bench.factory, second, 1);
    Take();
    bench.executors->SetOnPost([](std::size_t) { throw std::bad_alloc(); });
    bench.manager->Subscribe(def, {9, 0, true, true}, bench.factory, second, 2);
    EXPECT_THROW(bench.queue.RunAll(), std::bad_alloc);
    bench.executors->SetOnPost(nullptr);
    EXPECT_EQ(Take(), Events{});
    EXPECT_EQ(Live().GetMergedScope(), scope);
    CompositeInstrumentSubscription::ScopeEntry entry;
    EXPECT_FALSE(Live().GetScope(2, entry));
}

TEST_F(ThrownExceptions, ByAFailedAllocationInTheComponentsComeOutOnBothInterfaces)
{
    bench.zel->Throws("X", [] { throw std::bad_alloc(); });
    bench.manager->Subscribe(def, scope, bench.factory, second, 1);
    EXPECT_THROW(bench.queue.RunAll(), std::bad_alloc);
    EXPECT_TRUE(IsLive());
    EXPECT_TRUE(bench.events.Filter("log 20").empty());
    bench.Access().Subscriptions().clear(); // the registry has it
    bench.zel->Throws("X", [] { throw std::bad_alloc(); });
    bench.manager->Subscribe(def, scope, direct, 1);
    EXPECT_THROW(bench.queue.RunAll(), std::bad_alloc);
    EXPECT_TRUE(IsLive());
    EXPECT_TRUE(bench.events.Filter("log 20").empty());
    EXPECT_TRUE(bench.events.Filter("A.").empty());
    EXPECT_EQ(bench.manager->GetSubscriptionCounts().first, 0U);
}

TEST_F(ThrownExceptions, OfASubscribesOwnTypeAreItsFailureFromWhereverTheComponentsThrowThem)
{
    direct->onCallback = nullptr;
    // The first post of a direct subscribe belongs to its components.
    bench.executors->SetOnPost([](std::size_t) { throw SubscriptionEx("no room for the request"); });
    bench.manager->Subscribe(def, scope, direct, 1);
    bench.queue.RunAll();
    bench.executors->SetOnPost(nullptr);
    EXPECT_EQ(bench.events.Filter("A."), Events{"A.OnSubscribe X result=25 component=0 @queue"});
    EXPECT_TRUE(bench.events.Filter("log 20").front().ends_with("Details: no room for the request"));
    EXPECT_FALSE(IsLive());
}
