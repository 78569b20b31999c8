#include "simple_subscription/subscription_registry.h"

#include <gtest/gtest.h>

#include <latch>
#include <memory>
#include <ostream>
#include <set>
#include <thread>
#include <vector>

using namespace ps_ns;

namespace
{

/// Enrols and leaves by itself, as a composite subscription does, and tells when it is deleted.
class Enrolled final : public EnrolledSubscription
{
public:
    Enrolled(SubscriptionRegistry& registry, int& deleted)
        : m_registry(registry)
        , m_deleted(deleted)
    {
        m_registry.Enrol(this);
    }
    ~Enrolled() override
    {
        m_registry.Leave(this);
        ++m_deleted;
    }
    void Describe(std::ostream&) const override {}

private:
    SubscriptionRegistry& m_registry;
    int& m_deleted;
};

/// One that forgets to leave.
class Forgetful final : public EnrolledSubscription
{
public:
    explicit Forgetful(int& deleted)
        : m_deleted(deleted)
    {
    }
    ~Forgetful() override { ++m_deleted; }
    void Describe(std::ostream&) const override {}

private:
    int& m_deleted;
};

} // namespace

TEST(SubscriptionRegistry, DeletesWhatIsLeftWhenItDies)
{
    int deleted = 0;
    {
        SubscriptionRegistry registry;
        new Enrolled(registry, deleted); // the registry's from now on
        new Enrolled(registry, deleted);
        new Enrolled(registry, deleted);
        EXPECT_EQ(registry.GetSize(), 3U);
        EXPECT_EQ(deleted, 0);
    }
    EXPECT_EQ(deleted, 3);
}

TEST(SubscriptionRegistry, LeavesAloneWhatHasLeft)
{
    int deleted = 0;
    {
        SubscriptionRegistry registry;
        delete new Enrolled(registry, deleted);
        EXPECT_EQ(registry.GetSize(), 0U);
        EXPECT_EQ(deleted, 1);
    }
    EXPECT_EQ(deleted, 1);
}

TEST(SubscriptionRegistry, DeletesOnceWhatDoesNotLeaveByItself)
{
    int deleted = 0;
    {
        SubscriptionRegistry registry;
        registry.Enrol(new Forgetful(deleted));
        registry.Enrol(new Forgetful(deleted));
    }
    EXPECT_EQ(deleted, 2);
}

TEST(SubscriptionRegistry, CountsOneThatEnrolsTwiceOnce)
{
    int deleted = 0;
    {
        SubscriptionRegistry registry;
        registry.Enrol(new Enrolled(registry, deleted));
        EXPECT_EQ(registry.GetSize(), 1U);
    }
    EXPECT_EQ(deleted, 1);
}

TEST(SubscriptionRegistry, KeepsTheOthersWhicheverLeaves)
{
    for (std::size_t leaving = 0; leaving < 3; ++leaving)
    {
        int deleted = 0;
        SubscriptionRegistry registry;
        std::vector<const EnrolledSubscription*> enrolled{
            new Enrolled(registry, deleted), new Enrolled(registry, deleted), new Enrolled(registry, deleted)};
        delete enrolled[leaving];
        enrolled.erase(enrolled.begin() + static_cast<std::ptrdiff_t>(leaving));
        enrolled.push_back(new Enrolled(registry, deleted));
        std::multiset<const EnrolledSubscription*> visited;
        registry.ForEach([&](const EnrolledSubscription& subscription) { visited.insert(&subscription); });
        EXPECT_EQ(visited, (std::multiset<const EnrolledSubscription*>(enrolled.begin(), enrolled.end())));
        EXPECT_EQ(registry.GetSize(), 3U);
        delete enrolled[1]; // in the middle, or at an end, again
        EXPECT_EQ(registry.GetSize(), 2U);
    }
}

TEST(SubscriptionRegistry, IsLeftOnceByOneThatLeavesTwice)
{
    int deleted = 0;
    SubscriptionRegistry registry;
    new Enrolled(registry, deleted);
    auto* const leaving = new Enrolled(registry, deleted);
    registry.Leave(leaving);
    EXPECT_EQ(registry.GetSize(), 1U);
    delete leaving; // leaves again
    EXPECT_EQ(registry.GetSize(), 1U);
}

TEST(SubscriptionRegistry, VisitsEachSubscriptionOnce)
{
    int deleted = 0;
    SubscriptionRegistry registry;
    const std::set<const EnrolledSubscription*> expected{new Enrolled(registry, deleted),
                                                         new Enrolled(registry, deleted)};
    std::multiset<const EnrolledSubscription*> visited;
    registry.ForEach([&](const EnrolledSubscription& subscription) { visited.insert(&subscription); });
    EXPECT_EQ(visited, (std::multiset<const EnrolledSubscription*>(expected.begin(), expected.end())));
}

TEST(SubscriptionRegistry, IsEnteredAndLeftBySeveralThreads)
{
    constexpr int kThreads = 4;
    SubscriptionRegistry registry;
    std::latch start(kThreads);
    std::vector<std::thread> threads;
    std::vector<int> deleted(kThreads, 0);
    for (int thread = 0; thread < kThreads; ++thread)
    {
        threads.emplace_back(
            [&, thread]
            {
                int& count = deleted[static_cast<std::size_t>(thread)];
                start.arrive_and_wait();
                for (int round = 0; round < 500; ++round)
                {
                    delete new Enrolled(registry, count);
                }
            });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(registry.GetSize(), 0U);
    EXPECT_EQ(deleted, std::vector<int>(kThreads, 500));
}
