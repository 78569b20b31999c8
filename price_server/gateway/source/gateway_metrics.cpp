#include "gateway_metrics.h"

#include "client_session.h"
#include "gateway_core.h"
#include "metrics/metrics.h"

#include <prometheus/collectable.h>
#include <prometheus/metric_family.h>
#include <prometheus/text_serializer.h>

#include <algorithm>
#include <iterator>
#include <utility>

namespace ps_ns::gateway
{
namespace
{

prometheus::MetricFamily MakeFamily(const char* name, const char* help, prometheus::MetricType type, double value)
{
    prometheus::MetricFamily family{name, help, type, {}};
    prometheus::ClientMetric metric;
    (type == prometheus::MetricType::Counter ? metric.counter.value : metric.gauge.value) = value;
    family.metric.push_back(metric);
    return family;
}

/// What the sessions that are open have left out so far, beside those that have ended.
struct Losses
{
    std::uint64_t conflated = 0;
    std::uint64_t lostTrades = 0;
    std::uint64_t sentBytes = 0;
    std::uint64_t unsentBytes = 0;
};

Losses SumUp(GatewayCore& core)
{
    Losses sum{core.Counts().conflated, core.Counts().lostTrades, core.Counts().sentBytes, 0};
    for (const auto& session : core.GetSessions())
    {
        const SessionView view = session->GetView();
        sum.conflated += view.conflated;
        sum.lostTrades += view.lostTrades;
        sum.sentBytes += view.sent_bytes;
        sum.unsentBytes += view.unsent_bytes;
    }
    return sum;
}

} // namespace

std::string WriteMetrics(GatewayCore& core)
{
    using prometheus::MetricType;
    std::vector<prometheus::MetricFamily> families = zel::metrics::GetCollectable()->Collect();
    const GatewayCounts& counts = core.Counts();
    const Losses losses = SumUp(core);
    const auto add = [&](const char* name, const char* help, MetricType type, double value)
    { families.push_back(MakeFamily(name, help, type, value)); };
    const auto number = [](std::uint64_t count) { return static_cast<double>(count); };
    add("price_server_gateway_connections", "Open connections.", MetricType::Gauge, number(counts.connections));
    add("price_server_gateway_sessions", "Open WebSocket sessions.", MetricType::Gauge, number(counts.sessions));
    add("price_server_gateway_unsent_bytes", "Bytes that wait for slow sessions.", MetricType::Gauge,
        number(losses.unsentBytes));
    add("price_server_gateway_sessions_total", "WebSocket sessions opened.", MetricType::Counter,
        number(counts.sessionsEver));
    add("price_server_gateway_http_requests_total", "HTTP requests served.", MetricType::Counter,
        number(counts.requests));
    add("price_server_gateway_refused_requests_total", "HTTP requests refused because they came too fast.",
        MetricType::Counter, number(counts.refusedRequests));
    add("price_server_gateway_refused_tokens_total", "Tokens that were wrong.", MetricType::Counter,
        number(counts.refusedTokens));
    add("price_server_gateway_slow_sessions_total", "Sessions ended because they were too slow.", MetricType::Counter,
        number(counts.tooSlow));
    add("price_server_gateway_conflated_books_total", "Books left out for slow sessions.", MetricType::Counter,
        number(losses.conflated));
    add("price_server_gateway_lost_trades_total", "Trades left out for slow sessions.", MetricType::Counter,
        number(losses.lostTrades));
    add("price_server_gateway_sent_bytes_total", "Bytes of messages sent to sessions.", MetricType::Counter,
        number(losses.sentBytes));
    prometheus::MetricFamily build =
        MakeFamily("price_server_build_info", "The build that runs.", MetricType::Gauge, 1);
    build.metric.front().label = {{"version", core.GetOptions().version}, {"revision", core.GetOptions().build}};
    families.push_back(std::move(build));
    for (const auto& more : core.GetOptions().metrics)
    {
        std::vector<prometheus::MetricFamily> collected = more->Collect();
        std::move(collected.begin(), collected.end(), std::back_inserter(families));
    }
    return prometheus::TextSerializer().Serialize(families);
}

std::vector<std::pair<std::string, double>> ReadGauges()
{
    std::vector<std::pair<std::string, double>> gauges;
    for (const prometheus::MetricFamily& family : zel::metrics::GetCollectable()->Collect())
    {
        for (const prometheus::ClientMetric& metric : family.metric)
        {
            std::string labels;
            for (const auto& label : metric.label)
            {
                labels += (labels.empty() ? "{" : ",") + label.name + "=\"" + label.value + "\"";
            }
            gauges.emplace_back(family.name + (labels.empty() ? "" : labels + "}"), metric.gauge.value);
        }
    }
    return gauges;
}

} // namespace ps_ns::gateway
