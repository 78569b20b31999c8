#include "server/queue_probe.h"

#include "common/channel_task.h"

#include <prometheus/histogram.h>

#include <algorithm>
#include <utility>

namespace ps_ns
{
namespace
{

/// Seconds: from an idle hand-over to a reader that is stuck.
const prometheus::Histogram::BucketBoundaries& GetBuckets()
{
    static const prometheus::Histogram::BucketBoundaries kBuckets{
        0.00001, 0.000025, 0.00005, 0.0001, 0.00025, 0.0005, 0.001, 0.0025, 0.005, 0.01,
        0.025,   0.05,     0.1,     0.25,   0.5,     1,      2.5,   5,      10};
    return kBuckets;
}

double ToSeconds(std::int64_t time_ns)
{
    return std::chrono::duration<double>(std::chrono::nanoseconds(time_ns)).count();
}

} // namespace

QueueProbe::QueueProbe(DataQueue<DataMsgTask>& queue, std::shared_ptr<AsyncDispatcher> timers,
                       std::function<void()> onRun)
    : m_queue(queue)
    , m_timers(std::move(timers))
    , m_onRun(std::move(onRun))
    , m_latency(std::make_unique<prometheus::Histogram>(GetBuckets()))
{
}

QueueProbe::~QueueProbe()
{
    if (m_timer != nullptr)
    {
        m_timer->Cancel();
    }
}

void QueueProbe::Start()
{
    m_timer = std::make_shared<AsyncTask>("QueueProbe", m_timers, [this] { return OnTimer(); });
    m_timer->Run(static_cast<unsigned>(kPeriod.count()));
}

bool QueueProbe::OnTimer()
{
    m_timer->Run(static_cast<unsigned>(kPeriod.count())); // first: it goes on whatever happens below
    Remember(m_queue.takeLongestWait_ns());
    if (m_sent_ns.load() == kNone && !m_queue.isShutdown())
    {
        Send();
    }
    return false;
}

void QueueProbe::Send()
{
    const std::int64_t begin_ns = Now_ns();
    m_sent_ns.store(begin_ns);
    try
    {
        m_queue.insert(new ChannelTask<Task>([this, begin_ns] { OnRun(begin_ns); }, "QueueProbe"));
    }
    catch (...)
    {
        m_sent_ns.store(kNone);
        throw;
    }
    const std::lock_guard lock(m_mutex);
    const std::size_t newest = (m_period + m_inserts_ns.size() - 1) % m_inserts_ns.size();
    m_inserts_ns[newest] = std::max(m_inserts_ns[newest], static_cast<std::uint64_t>(Now_ns() - begin_ns));
}

void QueueProbe::OnRun(std::int64_t begin_ns)
{
    m_latency->Observe(ToSeconds(Now_ns() - begin_ns));
    m_sent_ns.store(kNone);
    if (m_onRun)
    {
        m_onRun();
    }
}

void QueueProbe::Remember(std::uint64_t insert_ns)
{
    const std::lock_guard lock(m_mutex);
    m_inserts_ns[m_period] = insert_ns;
    m_period = (m_period + 1) % m_inserts_ns.size();
}

std::chrono::nanoseconds QueueProbe::GetAge() const
{
    const std::int64_t sent_ns = m_sent_ns.load();
    return std::chrono::nanoseconds(sent_ns == kNone ? 0 : std::max<std::int64_t>(0, Now_ns() - sent_ns));
}

std::chrono::nanoseconds QueueProbe::GetLongestInsert() const
{
    const std::lock_guard lock(m_mutex);
    return std::chrono::nanoseconds(*std::max_element(m_inserts_ns.begin(), m_inserts_ns.end()));
}

std::int64_t QueueProbe::Now_ns() const
{
    return std::chrono::nanoseconds(m_timers->Now().time_since_epoch()).count();
}

} // namespace ps_ns
