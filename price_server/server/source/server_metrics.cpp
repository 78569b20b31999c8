#include "server/server_metrics.h"

#include "mds/mds_provider.h"
#include "metric_family.h"
#include "price_unifier/source/composite_subscription_mgr.h"
#include "server/logging_setup.h"
#include "server/queue_probe.h"
#include "simple_subscription/market_table.h"
#include "zel/zel_provider.h"

#include <prometheus/collectable.h>
#include <prometheus/histogram.h>

#include <algorithm>
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

/// What the network provider is doing.
const char* GetFeedState(const ZelProvider& zel)
{
    const ZelState state = zel.GetState();
    return state == ZelState::Starting ? "starting" : state == ZelState::Running ? "running" : "lost";
}

/// What the in-process provider is doing.
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
        AddProviders(families);
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
            "price_server_callback_seconds", "How long the price callbacks of a change take.", MetricType::Summary, {}};
        MetricFamily longest{"price_server_longest_callback_seconds",
                             "The longest that the price callbacks of a change took since the start.",
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

    void AddProviders(std::vector<MetricFamily>& families) const
    {
        MetricFamily directory{"price_server_provider_directory_complete",
                               "1 when the provider knows all instruments of the market.",
                               MetricType::Gauge,
                               {}};
        MetricFamily state{"price_server_provider_state",
                           "1 for the state that the provider's feed is in, 0 for the others.",
                           MetricType::Gauge,
                           {}};
        if (m_sources.mds != nullptr)
        {
            const bool isComplete = AddDirectory(directory, "mds", m_sources.mds->GetDirectory());
            AddState(state, "mds", GetFeedState(*m_sources.mds, isComplete),
                     {"starting", "running", "ended", "failed"});
        }
        if (m_sources.zel != nullptr)
        {
            AddDirectory(directory, "zel", m_sources.zel->GetDirectory());
            AddState(state, "zel", GetFeedState(*m_sources.zel), {"starting", "running", "lost"});
        }
        families.push_back(std::move(directory));
        families.push_back(std::move(state));
        if (m_sources.zel != nullptr)
        {
            AddBroker(families, m_sources.zel->GetCounts());
        }
    }

    /// True when all of them are complete.
    bool AddDirectory(MetricFamily& family, const char* provider, const InstrumentDirectory& known) const
    {
        bool isComplete = true;
        for (const Market& market : m_sources.markets.GetAll())
        {
            if (known.CanKnow(market.id))
            {
                isComplete = isComplete && known.IsComplete(market.id);
                family.metric.push_back(MakeGaugeValue(known.IsComplete(market.id) ? 1 : 0,
                                                       {{"provider", provider}, {"market", market.name}}));
            }
        }
        return isComplete;
    }

    static void AddState(MetricFamily& family, const char* provider, const std::string& current,
                         std::initializer_list<const char*> names)
    {
        for (const char* const name : names)
        {
            family.metric.push_back(MakeGaugeValue(current == name ? 1 : 0, {{"provider", provider}, {"state", name}}));
        }
    }

    void AddBroker(std::vector<MetricFamily>& families, const ZelCounts& counts) const
    {
        const auto gauge = [&](const char* name, const char* help, auto value)
        { families.push_back(MakeGaugeFamily(name, help, static_cast<double>(value))); };
        const auto counter = [&](const char* name, const char* help, std::uint64_t value)
        { families.push_back(MakeCounterFamily(name, help, static_cast<double>(value))); };
        gauge("price_server_broker_connected", "1 while there is a connection to the message broker.",
              m_sources.zel->IsConnected() ? 1 : 0);
        gauge("price_server_broker_markets_lost", "Markets that have been there, and whose publisher is not heard.",
              counts.marketsLost);
        gauge("price_server_broker_instruments_followed", "Instruments that are kept up to date.", counts.followed);
        gauge("price_server_broker_instruments_stale", "Of those: whose image has not come.",
              counts.followed - counts.live);
        counter("price_server_broker_messages_total", "Price messages taken.", counts.messages);
        counter("price_server_broker_refused_messages_total", "Messages and entries that make no sense.",
                counts.refused);
        counter("price_server_broker_gaps_total", "Times that an instrument's sequence was broken.", counts.gaps);
        counter("price_server_broker_losses_total", "Times that a market's feed was lost.", counts.losses);
        counter("price_server_broker_images_total", "Images taken.", counts.images);
        counter("price_server_broker_image_requests_total", "Images asked for.", counts.imagesAsked);
        counter("price_server_broker_renames_total", "Renames made.", counts.renames);
    }

    const ServerMetricsSources m_sources;
};

} // namespace

std::shared_ptr<prometheus::Collectable> MakeServerMetrics(ServerMetricsSources sources)
{
    return std::make_shared<ServerMetrics>(std::move(sources));
}

} // namespace ps_ns
