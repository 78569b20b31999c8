#include "server/queue_probe.h"

#include "async/timer_service.h"
#include "common/channel_task.h"
#include "common/queue_reader.h"

#include <gtest/gtest.h>
#include <prometheus/histogram.h>

#include <optional>
#include <utility>

namespace ps_ns
{
namespace
{

using std::chrono::milliseconds;

/// One timer, and time that only the test moves.
class OneTimer final : public ITimerService
{
public:
    void Arm(std::weak_ptr<AsyncTask> task, unsigned long armingId, milliseconds delay) override
    {
        m_armed = {std::move(task), armingId, m_now + delay};
    }
    void Shutdown() override { m_armed.reset(); }
    Clock::time_point Now() const override { return m_now; }

    /// Moves the time on, and fires the timer when it is due by then.
    void Pass(milliseconds time)
    {
        m_now += time;
        if (m_armed && m_armed->due <= m_now)
        {
            const Armed armed = *std::exchange(m_armed, std::nullopt);
            if (const auto task = armed.task.lock())
            {
                task->asioHandler({}, armed.id);
            }
        }
    }

private:
    struct Armed
    {
        std::weak_ptr<AsyncTask> task;
        unsigned long id;
        Clock::time_point due;
    };
    std::optional<Armed> m_armed;
    Clock::time_point m_now{std::chrono::hours(1)};
};

class QueueProbeTest : public testing::Test
{
protected:
    QueueProbeTest()
    {
        const auto previous = SetTimerServiceFactory([this](const std::string&) { return m_time; });
        m_timers = std::make_shared<AsyncDispatcher>("test");
        SetTimerServiceFactory(previous);
        m_probe = std::make_unique<QueueProbe>(m_queue, m_timers, [this] { ++m_runs; });
        m_probe->Start();
    }
    ~QueueProbeTest() override
    {
        m_timers->Shutdown();
        m_queue.shutdown();
        RunDry(m_queue);
    }

    prometheus::ClientMetric::Histogram GetLatency() const { return m_probe->GetLatency().Collect().histogram; }

    const std::shared_ptr<OneTimer> m_time = std::make_shared<OneTimer>();
    std::shared_ptr<AsyncDispatcher> m_timers;
    DataQueue<DataMsgTask> m_queue{"test", zel::metrics::Gauge()};
    std::unique_ptr<QueueProbe> m_probe;
    int m_runs = 0;
};

TEST_F(QueueProbeTest, SendsAnActionInEachPeriodAndSaysWhenItHasRun)
{
    EXPECT_EQ(m_queue.size(), 0U);
    for (int round = 1; round <= 3; ++round)
    {
        m_time->Pass(QueueProbe::kPeriod);
        ASSERT_EQ(m_queue.size(), 1U);
        EXPECT_EQ(m_runs, round - 1);
        RunDry(m_queue);
        EXPECT_EQ(m_runs, round);
    }
}

TEST_F(QueueProbeTest, MeasuresFromTheInsertUntilTheActionRuns)
{
    m_time->Pass(QueueProbe::kPeriod);
    m_time->Pass(milliseconds(40));
    RunDry(m_queue);
    const auto latency = GetLatency();
    EXPECT_EQ(latency.sample_count, 1U);
    EXPECT_DOUBLE_EQ(latency.sample_sum, 0.04);
    for (const auto& bucket : latency.bucket)
    {
        EXPECT_EQ(bucket.cumulative_count, bucket.upper_bound >= 0.04 ? 1U : 0U) << bucket.upper_bound;
    }
}

TEST_F(QueueProbeTest, HasOneActionUnderWayAtMostAndTellsItsAgeWhileTheReaderIsStuck)
{
    EXPECT_EQ(m_probe->GetAge().count(), 0);
    m_time->Pass(QueueProbe::kPeriod);
    for (int period = 0; period < 20; ++period)
    {
        m_time->Pass(QueueProbe::kPeriod);
    }
    EXPECT_EQ(m_queue.size(), 1U);
    EXPECT_EQ(m_probe->GetAge(), std::chrono::seconds(5));
    EXPECT_EQ(GetLatency().sample_count, 0U);
    EXPECT_EQ(m_runs, 0) << "nothing vouches for a reader that is stuck";
    RunDry(m_queue);
    EXPECT_EQ(m_probe->GetAge().count(), 0);
    EXPECT_DOUBLE_EQ(GetLatency().sample_sum, 5);
    m_time->Pass(QueueProbe::kPeriod);
    EXPECT_EQ(m_queue.size(), 1U) << "it goes on";
}

TEST_F(QueueProbeTest, SendsNothingToAQueueThatRefuses)
{
    m_queue.shutdown();
    m_time->Pass(QueueProbe::kPeriod);
    EXPECT_EQ(m_queue.size(), 0U);
    EXPECT_EQ(m_probe->GetAge().count(), 0);
}

TEST_F(QueueProbeTest, ForgetsALongInsertAfterAMinute)
{
    class Slow final : public ITimerService
    {
    public:
        void Arm(std::weak_ptr<AsyncTask> task, unsigned long id, milliseconds) override
        {
            m_task = std::move(task);
            m_id = id;
        }
        void Shutdown() override {}
        /// Each look at the clock takes `step`.
        Clock::time_point Now() const override { return m_now += step; }
        void Fire() const
        {
            if (const auto task = m_task.lock())
            {
                task->asioHandler({}, m_id);
            }
        }
        milliseconds step{0};

    private:
        std::weak_ptr<AsyncTask> m_task;
        unsigned long m_id = 0;
        mutable Clock::time_point m_now{std::chrono::hours(1)};
    };
    const auto slow = std::make_shared<Slow>();
    const auto previous = SetTimerServiceFactory([slow](const std::string&) { return slow; });
    const auto timers = std::make_shared<AsyncDispatcher>("slow");
    SetTimerServiceFactory(previous);
    QueueProbe probe(m_queue, timers, {});
    probe.Start();
    const auto passPeriod = [&]
    {
        slow->Fire();
        RunDry(m_queue);
    };
    slow->step = milliseconds(30);
    passPeriod();
    EXPECT_EQ(probe.GetLongestInsert(), milliseconds(30));
    slow->step = milliseconds(1);
    constexpr auto kPeriods = QueueProbe::kMemory / QueueProbe::kPeriod;
    for (auto period = decltype(kPeriods){1}; period < kPeriods; ++period)
    {
        passPeriod();
    }
    EXPECT_EQ(probe.GetLongestInsert(), milliseconds(30));
    passPeriod();
    EXPECT_EQ(probe.GetLongestInsert(), milliseconds(1));
}

} // namespace
} // namespace ps_ns
