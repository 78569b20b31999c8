#include "mds/paced_runner.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <stdexcept>
#include <vector>

namespace ps_ns
{
namespace
{

using std::chrono::nanoseconds;
using ::testing::ElementsAre;

constexpr IPaceClock::TimePoint kBegin{nanoseconds(1'000'000)};

std::int64_t Since(IPaceClock::TimePoint due)
{
    return (due - kBegin).count();
}

TEST(Pace, KeepsTheDistancesOfTheSource)
{
    Pace pace(1.0, 0);
    EXPECT_EQ(Since(pace.GetDue({1, 500}, kBegin)), 0);
    EXPECT_EQ(Since(pace.GetDue({1, 800}, kBegin)), 300);
    EXPECT_EQ(Since(pace.GetDue({1, 800}, kBegin)), 300);
    EXPECT_EQ(Since(pace.GetDue({1, 1'500}, kBegin + nanoseconds(900))), 1'000);
}

TEST(Pace, DividesThemByTheSpeed)
{
    Pace pace(4.0, 0);
    EXPECT_EQ(Since(pace.GetDue({1, 500}, kBegin)), 0);
    EXPECT_EQ(Since(pace.GetDue({1, 900}, kBegin)), 100);
}

TEST(Pace, CutsALongSilence)
{
    Pace pace(1.0, 1'000);
    EXPECT_EQ(Since(pace.GetDue({1, 500}, kBegin)), 0);
    EXPECT_EQ(Since(pace.GetDue({1, 1'000'000'000}, kBegin)), 1'000);
    EXPECT_EQ(Since(pace.GetDue({1, 1'000'000'007}, kBegin)), 1'007);
}

TEST(Pace, BeginsAnewWithEachEpoch)
{
    Pace pace(1.0, 0);
    EXPECT_EQ(Since(pace.GetDue({1, 500}, kBegin)), 0);
    EXPECT_EQ(Since(pace.GetDue({1, 900}, kBegin)), 400);
    EXPECT_EQ(Since(pace.GetDue({2, 500}, kBegin + nanoseconds(400))), 400);
    EXPECT_EQ(Since(pace.GetDue({2, 600}, kBegin + nanoseconds(400))), 500);
}

/// Steps at given times; the test's own clock moves by itself when somebody sleeps.
class FakeWork : public IPacedWork
{
public:
    explicit FakeWork(std::deque<std::uint64_t> times)
        : m_times(std::move(times))
    {
    }
    void Prepare(const std::atomic<bool>&) override { m_isPrepared = true; }
    std::optional<NextMessage> PeekNext() override
    {
        return m_times.empty() ? std::nullopt : std::optional(NextMessage{1, m_times.front()});
    }
    bool WaitForRoom() override { return true; }
    void Wake() override {}
    bool Step() override
    {
        if (m_times.empty())
        {
            return false;
        }
        m_times.pop_front();
        ++steps;
        return true;
    }
    std::atomic<int> steps{0};
    bool m_isPrepared = false;

private:
    std::deque<std::uint64_t> m_times;
};

class LeapingClock : public IPaceClock
{
public:
    TimePoint Now() const override { return m_now; }
    void SleepUntil(TimePoint until, StopSignal&) override
    {
        sleeps.push_back((until - m_now).count());
        m_now = until;
    }
    std::vector<std::int64_t> sleeps;

private:
    TimePoint m_now = kBegin;
};

void JoinAtEnd(PacedRunner& runner)
{
    while (!runner.HasEnded())
    {
        std::this_thread::yield();
    }
    runner.Stop();
}

TEST(PacedRunner, TakesEachStepAtItsTime)
{
    FakeWork work({100, 150, 150, 400});
    const auto clock = std::make_shared<LeapingClock>();
    PacedRunner runner(work, Pace(0.5, 0), clock);
    runner.Start();
    JoinAtEnd(runner);
    EXPECT_TRUE(work.m_isPrepared);
    EXPECT_EQ(work.steps.load(), 4);
    EXPECT_THAT(clock->sleeps, ElementsAre(100, 500));
}

TEST(PacedRunner, NeverSleepsAtFullSpeed)
{
    FakeWork work({100, 150'000'000'000});
    const auto clock = std::make_shared<LeapingClock>();
    PacedRunner runner(work, Pace(0.0, 0), clock);
    runner.Start();
    JoinAtEnd(runner);
    EXPECT_EQ(work.steps.load(), 2);
    EXPECT_TRUE(clock->sleeps.empty());
}

TEST(PacedRunner, StopsInTheMiddleOfALongWait)
{
    FakeWork work({0, 3'600'000'000'000});
    PacedRunner runner(work, Pace(1.0, 0), std::make_shared<SteadyPaceClock>());
    runner.Start();
    while (work.steps.load() == 0)
    {
        std::this_thread::yield();
    }
    const auto begin = std::chrono::steady_clock::now();
    runner.Stop();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5)); // the wait would be an hour
    EXPECT_EQ(work.steps.load(), 1);
}

TEST(PacedRunner, EndsWhenItsWorkThrows)
{
    class Throwing : public FakeWork
    {
    public:
        Throwing()
            : FakeWork({1})
        {
        }
        bool Step() override { throw std::runtime_error("broken"); }
    };
    Throwing work;
    PacedRunner runner(work, Pace(0.0, 0), std::make_shared<LeapingClock>());
    runner.Start();
    JoinAtEnd(runner);
    EXPECT_TRUE(runner.HasEnded());
    EXPECT_TRUE(runner.HasFailed());
}

TEST(PacedRunner, HasNotFailedWhenItsWorkCameToItsEnd)
{
    FakeWork work({100});
    PacedRunner runner(work, Pace(0.0, 0), std::make_shared<LeapingClock>());
    runner.Start();
    JoinAtEnd(runner);
    EXPECT_FALSE(runner.HasFailed());
}

} // namespace
} // namespace ps_ns
