#include "mds/update_pool.h"

#include "mds/update_pools.h"

#include <gtest/gtest.h>

#include <thread>

namespace ps_ns
{
namespace
{

TEST(UpdatePool, UsesTheSameObjectAndItsBufferAgain)
{
    UpdatePools pools(8);
    std::shared_ptr<BookUpdate> update = pools.books.Acquire();
    update->changes.resize(100);
    update->sequence = 5;
    const BookUpdate* const object = update.get();
    const void* const buffer = update->changes.data();
    update.reset();
    update = pools.books.Acquire();
    EXPECT_EQ(update.get(), object);
    EXPECT_EQ(update->sequence, 0U);
    EXPECT_TRUE(update->changes.empty());
    update->changes.resize(100);
    EXPECT_EQ(update->changes.data(), buffer);
}

TEST(UpdatePool, DoesNotKeepTheBufferOfAHugeImage)
{
    UpdatePools pools(8);
    pools.books.Acquire()->changes.resize(2 * kLargestKeptBuffer);
    EXPECT_EQ(pools.books.Acquire()->changes.capacity(), 0U);
}

TEST(UpdatePool, CountsWhatIsUnderWayInAllItsPools)
{
    UpdatePools pools(8);
    const auto update = pools.books.Acquire();
    auto copy = update;
    const auto trades = pools.trades.Acquire();
    EXPECT_EQ(pools.budget->GetInFlight(), 2U);
    copy.reset();
    EXPECT_EQ(pools.budget->GetInFlight(), 2U);
    pools.books.Acquire().reset();
    EXPECT_EQ(pools.budget->GetInFlight(), 2U);
    EXPECT_EQ(pools.budget->GetMostInFlight(), 3U);
}

TEST(UpdatePool, LetsItsObjectsOutliveIt)
{
    std::shared_ptr<BookUpdate> update;
    std::weak_ptr<BookUpdate> observer;
    {
        UpdatePools pools(8);
        update = pools.books.Acquire();
        observer = update;
    }
    update->changes.resize(3);
    update.reset();
    EXPECT_TRUE(observer.expired());
}

TEST(InFlightBudget, LetsWhoeverWantsMoreThanTheLimitGoWhenNothingIsUnderWay)
{
    InFlightBudget budget(2);
    EXPECT_TRUE(budget.WaitForRoom(5));
    EXPECT_TRUE(budget.WaitForRoom(2));
}

TEST(InFlightBudget, WaitsUntilSomethingComesBack)
{
    InFlightBudget budget(1);
    budget.Take();
    bool hadRoom = false;
    std::thread waiter([&] { hadRoom = budget.WaitForRoom(1); });
    while (!budget.IsWaiting())
    {
        std::this_thread::yield();
    }
    budget.GiveBack();
    waiter.join();
    EXPECT_TRUE(hadRoom);
}

TEST(InFlightBudget, EndsEveryWaitWhenStopped)
{
    InFlightBudget budget(1);
    budget.Take();
    bool hadRoom = true;
    std::thread waiter([&] { hadRoom = budget.WaitForRoom(1); });
    while (!budget.IsWaiting())
    {
        std::this_thread::yield();
    }
    budget.Stop();
    waiter.join();
    EXPECT_FALSE(hadRoom);
    EXPECT_FALSE(budget.WaitForRoom(1));
}

} // namespace
} // namespace ps_ns
