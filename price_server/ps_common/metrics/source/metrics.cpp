#include "metrics/metrics.h"

#include <prometheus/check_names.h>
#include <prometheus/collectable.h>
#include <prometheus/metric_family.h>

#include <cstddef>
#include <mutex>
#include <stdexcept>
#include <utility>
#include <vector>

namespace zel::metrics
{
namespace
{

using Labels = std::map<std::string, std::string>;

/// One name with one set of labels.
struct Series
{
    double Sum() const
    {
        double sum = 0;
        for (const auto& gauge : gauges)
        {
            if (const auto alive = gauge.lock())
            {
                sum += alive->Get();
            }
        }
        return sum;
    }

    std::size_t registrations = 0;                        ///< CreateGauge less DestroyGauge
    std::vector<std::weak_ptr<detail::GaugeCell>> gauges; ///< the dead ones leave with the next Create or Destroy
};

struct Family
{
    std::string help;
    std::map<Labels, Series> series; ///< never empty
};

void DropDead(Series& series)
{
    std::erase_if(series.gauges, [](const auto& gauge) { return gauge.expired(); });
}

void CheckNames(const Metric& metric)
{
    if (!prometheus::CheckMetricName(metric.name))
    {
        throw std::invalid_argument("metric '" + metric.name + "': not a name for a metric");
    }
    for (const auto& [name, value] : metric.labels)
    {
        if (!prometheus::CheckLabelName(name))
        {
            throw std::invalid_argument("metric '" + metric.name + "': '" + name + "' is not a name for a label");
        }
    }
}

class GaugeRegistry final : public prometheus::Collectable
{
public:
    std::shared_ptr<detail::GaugeCell> Create(const Metric& metric)
    {
        CheckNames(metric);
        auto gauge = std::make_shared<detail::GaugeCell>();
        const std::lock_guard lock(m_mutex);
        const auto found = m_families.find(metric.name);
        if (found != m_families.end() && found->second.help != metric.help)
        {
            throw std::invalid_argument("metric '" + metric.name + "': help text '" + metric.help +
                                        "', but it is registered with '" + found->second.help + "'");
        }
        Family& family = found != m_families.end() ? found->second : m_families[metric.name];
        family.help = metric.help;
        Series& series = family.series[metric.labels];
        DropDead(series);
        series.gauges.push_back(gauge);
        ++series.registrations;
        return gauge;
    }

    void Destroy(const Metric& metric)
    {
        const std::lock_guard lock(m_mutex);
        const auto family = m_families.find(metric.name);
        if (family == m_families.end())
        {
            return;
        }
        const auto series = family->second.series.find(metric.labels);
        if (series == family->second.series.end())
        {
            return;
        }
        DropDead(series->second);
        if (--series->second.registrations != 0)
        {
            return;
        }
        family->second.series.erase(series);
        if (family->second.series.empty())
        {
            m_families.erase(family);
        }
    }

    std::vector<prometheus::MetricFamily> Collect() const override
    {
        std::vector<prometheus::MetricFamily> families;
        const std::lock_guard lock(m_mutex);
        for (const auto& [name, family] : m_families)
        {
            auto& exported = families.emplace_back();
            exported.name = name;
            exported.help = family.help;
            exported.type = prometheus::MetricType::Gauge;
            for (const auto& [labels, series] : family.series)
            {
                auto& metric = exported.metric.emplace_back();
                metric.gauge.value = series.Sum();
                for (const auto& [label, value] : labels)
                {
                    metric.label.push_back({label, value});
                }
            }
        }
        return families;
    }

private:
    mutable std::mutex m_mutex;
    std::map<std::string, Family> m_families; ///< under m_mutex; sorted, so that the export is
};

/// Never destroyed: a gauge may be taken back by an object that outlives main.
const std::shared_ptr<GaugeRegistry>& GetRegistry()
{
    static const auto& registry = *new auto(std::make_shared<GaugeRegistry>());
    return registry;
}

} // namespace

Gauge CreateGauge(const Metric& metric)
{
    return Gauge(GetRegistry()->Create(metric));
}

void DestroyGauge(const Metric& metric)
{
    GetRegistry()->Destroy(metric);
}

const std::shared_ptr<prometheus::Collectable>& GetCollectable()
{
    static const auto& collectable = *new std::shared_ptr<prometheus::Collectable>(GetRegistry());
    return collectable;
}

} // namespace zel::metrics
