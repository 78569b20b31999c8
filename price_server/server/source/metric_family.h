#pragma once

#include <prometheus/metric_family.h>

#include <utility>
#include <vector>

namespace ps_ns
{

using MetricLabels = std::vector<prometheus::ClientMetric::Label>;

inline prometheus::ClientMetric MakeGaugeValue(double value, MetricLabels labels = {})
{
    prometheus::ClientMetric metric;
    metric.gauge.value = value;
    metric.label = std::move(labels);
    return metric;
}

inline prometheus::MetricFamily MakeGaugeFamily(const char* name, const char* help, double value,
                                                MetricLabels labels = {})
{
    return {name, help, prometheus::MetricType::Gauge, {MakeGaugeValue(value, std::move(labels))}};
}

inline prometheus::MetricFamily MakeCounterFamily(const char* name, const char* help, double value)
{
    prometheus::ClientMetric metric;
    metric.counter.value = value;
    return {name, help, prometheus::MetricType::Counter, {metric}};
}

} // namespace ps_ns
