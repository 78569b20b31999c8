#include "zel_arrears.h"

#include "mds/seeded_random.h"
#include "zel_back_off.h"

#include <gtest/gtest.h>

#include <deque>

namespace ps_ns
{
namespace
{

using namespace std::chrono_literals;
using TimePoint = ZelArrears::TimePoint;

TimePoint At(std::chrono::milliseconds time)
{
    return TimePoint(1h) + time;
}

TEST(ZelArrears, AreBehindFromAPromiseOnUntilItIsMet)
{
    ZelArrears arrears;
    EXPECT_FALSE(arrears.IsBehind(0));
    arrears.Promise(5, 3, At(0ms));
    EXPECT_TRUE(arrears.IsBehind(3));
    EXPECT_TRUE(arrears.IsBehind(4));
    EXPECT_EQ(arrears.GetSince(), At(0ms));
    EXPECT_FALSE(arrears.IsBehind(5));
    arrears.Promise(7, 8, At(200ms));
    EXPECT_FALSE(arrears.IsBehind(8)) << "prices were faster";
    arrears.Promise(6, 5, At(400ms));
    EXPECT_FALSE(arrears.IsBehind(7)) << "an older promise than the last means nothing";
}

TEST(ZelArrears, AreAsOldAsTheOldestPromiseThatIsNotMet)
{
    ZelArrears arrears;
    arrears.Promise(10, 0, At(0ms));
    arrears.Promise(20, 0, At(200ms));
    arrears.Promise(30, 0, At(400ms));
    ASSERT_TRUE(arrears.IsBehind(9));
    EXPECT_EQ(arrears.GetSince(), At(0ms));
    ASSERT_TRUE(arrears.IsBehind(10));
    EXPECT_EQ(arrears.GetSince(), At(400ms)) << "the newest; what was between is forgotten";
    EXPECT_FALSE(arrears.IsBehind(30));
}

TEST(ZelArrears, NeverGrowOldAtASteadyLag)
{
    ZelArrears arrears;
    for (int beat = 0; beat < 100; ++beat) // a heartbeat each 200 ms; prices are 600 ms behind
    {
        const std::uint64_t published = 100U * static_cast<std::uint64_t>(beat + 3);
        const std::uint64_t reached = published - 300;
        arrears.Promise(published, reached, At(beat * 200ms));
        ASSERT_TRUE(arrears.IsBehind(reached));
        EXPECT_LE(At(beat * 200ms) - arrears.GetSince(), 1000ms);
    }
}

TEST(ZelArrears, CountAnewFromAnImageOnAndForgetAnEpoch)
{
    ZelArrears arrears;
    arrears.Promise(10, 0, At(0ms));
    arrears.Restart(At(900ms));
    ASSERT_TRUE(arrears.IsBehind(8));
    EXPECT_EQ(arrears.GetSince(), At(900ms));
    arrears.Clear();
    EXPECT_FALSE(arrears.IsBehind(0));
    arrears.Promise(1, 0, At(1000ms));
    EXPECT_TRUE(arrears.IsBehind(0)) << "a smaller number than the old epoch's";
}

/// Beside a list of all promises: never older than the oldest that is unmet, and not behind when none is.
TEST(ZelArrears, AgreeWithAListOfAllPromises)
{
    SeededRandom random(7);
    ZelArrears arrears;
    std::deque<std::pair<std::uint64_t, TimePoint>> unmet;
    std::uint64_t published = 0;
    std::uint64_t reached = 0;
    for (int step = 0; step < 100'000; ++step)
    {
        const TimePoint now = At(std::chrono::milliseconds(step));
        published += static_cast<std::uint64_t>(random.Below(3));
        reached += static_cast<std::uint64_t>(random.Below(static_cast<std::int64_t>(published - reached) + 1)) / 2;
        if (random.Once(10))
        {
            arrears.Promise(published, reached, now);
            unmet.emplace_back(published, now);
        }
        while (!unmet.empty() && unmet.front().first <= reached)
        {
            unmet.pop_front();
        }
        ASSERT_EQ(arrears.IsBehind(reached), !unmet.empty()) << step;
        if (!unmet.empty())
        {
            ASSERT_GE(arrears.GetSince(), unmet.front().second) << step;
            ASSERT_LE(arrears.GetSince(), unmet.back().second) << step;
        }
    }
}

TEST(ZelBackOff, DoublesItsPausesUpToTheLongest)
{
    ZelBackOff backOff;
    std::vector<int> asked;
    for (int time = 0; time < 10'000; time += 50)
    {
        if (backOff.IsDue(At(std::chrono::milliseconds(time)), 200ms, 2000ms))
        {
            asked.push_back(time);
        }
    }
    EXPECT_EQ(asked, (std::vector{0, 200, 600, 1400, 3000, 5000, 7000, 9000}));
    backOff.Reset();
    EXPECT_TRUE(backOff.IsDue(At(10'000ms), 200ms, 2000ms));
    EXPECT_FALSE(backOff.IsDue(At(10'199ms), 200ms, 2000ms));
    EXPECT_TRUE(backOff.IsDue(At(10'200ms), 200ms, 2000ms));
}

} // namespace
} // namespace ps_ns
