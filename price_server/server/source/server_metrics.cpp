#include "server/server_metrics.h"

#include "mds/mds_provider.h"
#include "metric_family.h"
#include "price_unifier/source/composite_subscription_mgr.h"
#include "server/logging_setup.h"
#include "server/queue_probe.h"
#include "simple_subscription/market_table.h"

#include <prometheus/collectable.h>
#include <prometheus/histogram.h>

#include <array>
#include <chrono>
#include <utility>

namespace ps_ns
{
namespace
{

using prometheus::MetricFamily;
using prometheus::MetricType;

double ToSeconds(std::chrono::nanoseconds time)
{
    return std::chrono::duration<double>(time).count();
}

double ToSeconds(std::uint64_t time_ns)
{
    return static_cast<double>(time_ns) / 1e9;
}

/// What the one provider is doing.
const char* GetFeedState(const MdsProvider& mds, bool isDirectoryComplete)
{
    if (mds.HasEnded())
    {
        return mds.HasFailed() ? "failed" : "ended";
    }
    return isDirectoryComplete ? "running" : "starting";
}

class ServerMetrics final : public prometheus::Collectable
{
public:
    explicit ServerMetrics(ServerMetricsSources sources)
        : m_sources(std::move(sources))
    {
    }

    std::vector<MetricFamily> Collect() const override
    {
        std::vector<MetricFamily> families;
        families.push_back(MakeGaugeFamily("price_server_ready",
                                           "1 while the server serves, 0 while it starts or drains.",
                                           m_sources.isReady() ? 1 : 0));
        AddQueue(families);
        AddCallbacks(families);
        AddProvider(families);
        families.push_back(MakeCounterFamily("price_server_log_dropped_records_total",
                                             "Log records lost because the queue of the log was full.",
                                             static_cast<double>(m_sources.logging.GetDroppedCount())));
        return families;
    }

private:
    void AddQueue(std::vector<MetricFamily>& families) const
    {
        const MetricLabels labels{{"queue", m_sources.queue.name()}};
        families.push_back(MakeGaugeFamily("data_queue_max_depth",
                                           "The most tasks that have waited in a data queue since the start.",
                                           static_cast<double>(m_sources.queue.maxSize()), labels));
        families.push_back(MakeGaugeFamily(
            "data_queue_longest_insert_seconds",
            "The longest insert of the past minute among the probe's own and those that met another producer.",
            ToSeconds(m_sources.probe.GetLongestInsert()), labels));
        families.push_back(MakeGaugeFamily("data_queue_probe_age_seconds",
                                           "How long the probe's action has been waiting to run; 0: none waits.",
                                           ToSeconds(m_sources.probe.GetAge()), labels));
        prometheus::ClientMetric latency = m_sources.probe.GetLatency().Collect();
        latency.label = labels;
        families.push_back({"data_queue_action_latency_seconds",
                            "From the insert of an action until it runs, sampled four times a second.",
                            MetricType::Histogram,
                            {std::move(latency)}});
    }

    void AddCallbacks(std::vector<MetricFamily>& families) const
    {
        MetricFamily times{
            "price_server_callback_seconds", "How long observers' price callbacks take.", MetricType::Summary, {}};
        MetricFamily longest{"price_server_longest_callback_seconds",
                             "The longest price callback since the start.",
                             MetricType::Gauge,
                             {}};
        const std::array<std::pair<const char*, const CallbackTimeStats*>, 2> kinds{
            {{"book", &m_sources.manager.GetSnapshotCallbackTime()},
             {"trades", &m_sources.manager.GetTradesCallbackTime()}}};
        for (const auto& [kind, stats] : kinds)
        {
            prometheus::ClientMetric& time = times.metric.emplace_back();
            time.label = {{"kind", kind}};
            time.summary.sample_count = stats->count.load();
            time.summary.sample_sum = ToSeconds(stats->total.load());
            longest.metric.push_back(MakeGaugeValue(ToSeconds(stats->max.load()), {{"kind", kind}}));
        }
        families.push_back(std::move(times));
        families.push_back(std::move(longest));
    }

    void AddProvider(std::vector<MetricFamily>& families) const
    {
        MetricFamily directory{"price_server_provider_directory_complete",
                               "1 when the provider knows all instruments of the market.",
                               MetricType::Gauge,
                               {}};
        bool isComplete = true;
        for (const Market& market : m_sources.markets.GetAll())
        {
            const InstrumentDirectory& known = m_sources.mds.GetDirectory();
            if (known.CanKnow(market.id))
            {
                isComplete = isComplete && known.IsComplete(market.id);
                directory.metric.push_back(MakeGaugeValue(known.IsComplete(market.id) ? 1 : 0,
                                                          {{"provider", "mds"}, {"market", market.name}}));
            }
        }
        MetricFamily state{"price_server_provider_state",
                           "1 for the state that the provider's feed is in, 0 for the others.",
                           MetricType::Gauge,
                           {}};
        const std::string current = GetFeedState(m_sources.mds, isComplete);
        for (const char* const name : {"starting", "running", "ended", "failed"})
        {
            state.metric.push_back(MakeGaugeValue(current == name ? 1 : 0, {{"provider", "mds"}, {"state", name}}));
        }
        families.push_back(std::move(directory));
        families.push_back(std::move(state));
    }

    const ServerMetricsSources m_sources;
};

} // namespace

std::shared_ptr<prometheus::Collectable> MakeServerMetrics(ServerMetricsSources sources)
{
    return std::make_shared<ServerMetrics>(std::move(sources));
}

} // namespace ps_ns
