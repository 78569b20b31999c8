#include "base/queue_thread.h"

#include "base/cache_line.h"

#include <gtest/gtest.h>

#include <thread>

using namespace ps_ns;

TEST(QueueThread, IsTheOneInsideAScopeOfTheSameQueue)
{
    const int queue = 0;
    const int other = 0;
    EXPECT_FALSE(IsQueueThread(&queue));
    const QueueThreadScope scope(&queue);
    EXPECT_TRUE(IsQueueThread(&queue));
    EXPECT_FALSE(IsQueueThread(&other));
}

TEST(QueueThread, ReturnsToTheOuterScopeWhenAnInnerOneEnds)
{
    const int outer = 0;
    const int inner = 0;
    const QueueThreadScope outerScope(&outer);
    {
        const QueueThreadScope innerScope(&inner);
        EXPECT_TRUE(IsQueueThread(&inner));
    }
    EXPECT_TRUE(IsQueueThread(&outer));
}

TEST(QueueThread, BelongsToOneThreadOnly)
{
    const int queue = 0;
    const QueueThreadScope scope(&queue);
    bool seenElsewhere = true;
    std::thread([&] { seenElsewhere = IsQueueThread(&queue); }).join();
    EXPECT_FALSE(seenElsewhere);
}

#ifndef NDEBUG
TEST(QueueThreadDeathTest, EndsTheProcessWhenCalledElsewhere)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const int queue = 0;
    EXPECT_DEATH(AssertOnQueueThread(&queue), "called on another thread");
}
#endif
