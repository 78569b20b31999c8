#pragma once

#include "async/async_task.h"
#include "common/data_queue.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

namespace prometheus
{
class Histogram;
}

namespace ps_ns
{

/// Sends an action through the data queue four times a second and measures what it meets: a sample of what every other
/// action meets, which costs the others nothing.
///
/// There is one action under way at most. When the queue's reader is stuck, no sample comes; GetAge then tells for how
/// long the last one has been waiting.
///
/// Threads: Start is the owner's. The timer's thread sends, the queue's thread runs; the getters are for any thread.
/// Ownership: the queue is not owned. The probe dies after the timers have been shut down and the queue refuses tasks
/// and is empty.
class QueueProbe
{
public:
    static constexpr std::chrono::milliseconds kPeriod{250};
    static constexpr std::chrono::seconds kMemory{60};

    /// `onRun` is called on the queue's thread whenever a probe has run; may be empty.
    QueueProbe(DataQueue<DataMsgTask>& queue, std::shared_ptr<AsyncDispatcher> timers, std::function<void()> onRun);
    ~QueueProbe();
    QueueProbe(const QueueProbe&) = delete;
    QueueProbe& operator=(const QueueProbe&) = delete;

    void Start();

    /// From before the insert until the action ran, in seconds.
    const prometheus::Histogram& GetLatency() const noexcept { return *m_latency; }
    /// For how long the action that is under way has been; zero when there is none.
    std::chrono::nanoseconds GetAge() const;
    /// The longest insert of the past kMemory: of the probe's own, and of all that had to wait for another producer.
    std::chrono::nanoseconds GetLongestInsert() const;

private:
    static constexpr std::int64_t kNone = -1;

    bool OnTimer();
    void Send();
    void OnRun(std::int64_t begin_ns);
    void Remember(std::uint64_t insert_ns);
    std::int64_t Now_ns() const;

    DataQueue<DataMsgTask>& m_queue;
    const std::shared_ptr<AsyncDispatcher> m_timers;
    const std::function<void()> m_onRun;
    const std::unique_ptr<prometheus::Histogram> m_latency;
    std::atomic<std::int64_t> m_sent_ns{kNone}; ///< when the action under way was sent
    mutable std::mutex m_mutex;
    std::array<std::uint64_t, kMemory / kPeriod> m_inserts_ns{}; ///< under m_mutex; the longest of each period
    std::size_t m_period = 0;                                    ///< under m_mutex; where the next one goes
    std::shared_ptr<AsyncTask> m_timer;                          ///< set by Start
};

} // namespace ps_ns
