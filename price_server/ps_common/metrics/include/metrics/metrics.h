#pragma once

/// The server's gauges, exported by prometheus-cpp's core library through GetCollectable().
///
/// Every CreateGauge makes a gauge of its own, even under a name that exists already: two managers in one process do
/// not move each other's counts. A name with the same labels is exported once, as the sum of its gauges.
///
/// Ownership: the handles own the gauges; the registry knows those that are alive, and how many were registered. So a
/// gauge leaves the sum with its last handle, and a series leaves the export with its last DestroyGauge.
///
/// Threads: everything here may be called from any thread, except that one Gauge object is not assigned while another
/// thread uses that object.

#include "metrics/detail/gauge_cell.h"

#include <array>
#include <map>
#include <memory>
#include <string>
#include <utility>

namespace prometheus
{
class Collectable;
} // namespace prometheus

namespace zel::metrics
{

/// What a metric is called: its name by Prometheus' conventions, a help text, and its labels (name to value).
struct Metric
{
    std::string name;
    std::string help;
    std::map<std::string, std::string> labels;
};

/// A handle on one gauge; copies move the same gauge. A default-constructed handle is harmless: it reads 0 and moves
/// nothing. A handle keeps working after DestroyGauge; its value is then no longer exported, unless the series lives on
/// for other gauges: then it counts until its last handle lets go.
class Gauge
{
public:
    Gauge() = default;
    explicit Gauge(std::shared_ptr<detail::GaugeCell> cell) noexcept
        : m_cell(std::move(cell))
    {
    }

    void Set(double value) noexcept
    {
        if (m_cell)
        {
            m_cell->Set(value);
        }
    }
    double Get() const noexcept { return m_cell ? m_cell->Get() : 0.0; }
    Gauge& operator++() noexcept { return *this += 1.0; }
    Gauge& operator--() noexcept { return *this -= 1.0; }
    Gauge& operator+=(double amount) noexcept
    {
        if (m_cell)
        {
            m_cell->Raise(amount);
        }
        return *this;
    }
    Gauge& operator-=(double amount) noexcept
    {
        if (m_cell)
        {
            m_cell->Lower(amount);
        }
        return *this;
    }

    /// Lets go of the gauge: the handle is as if default-constructed.
    void Reset() noexcept { m_cell.reset(); }
    explicit operator bool() const noexcept { return m_cell != nullptr; }

private:
    std::shared_ptr<detail::GaugeCell> m_cell;
};

/// Registers a gauge, initially 0. Throws std::invalid_argument, naming the metric, when the name or a label's name is
/// not one that Prometheus accepts, or when the name exists with another help text. The gauge counts in the export as
/// long as a handle on it lives.
Gauge CreateGauge(const Metric& metric);

/// Takes back one CreateGauge of the same name and labels; when it was the last, the series leaves the export. A metric
/// that is not registered is ignored.
void DestroyGauge(const Metric& metric);

/// All registered gauges, for the serialiser of the metrics page. Lives as long as the process.
const std::shared_ptr<prometheus::Collectable>& GetCollectable();

/// N metrics with their instruments, by index; takes them back when it dies.
template <class Instrument, unsigned N>
class Store
{
public:
    Store() = default;
    ~Store()
    {
        for (unsigned index = 0; index < N; ++index)
        {
            DestroyGauge(m_metrics[index]);
            m_instruments[index].Reset();
        }
    }
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

    /// Registers `metric` in slot `index`, taking back what the slot held; an index of N or more is ignored. Throws
    /// what CreateGauge throws; the slot is then empty.
    void Create(unsigned index, const Metric& metric)
    {
        if (index >= N)
        {
            return;
        }
        DestroyGauge(m_metrics[index]);
        m_metrics[index] = Metric{};
        m_instruments[index].Reset();
        m_instruments[index] = CreateGauge(metric);
        m_metrics[index] = metric;
    }

    Instrument& operator[](unsigned index) noexcept { return m_instruments[index]; }
    const Instrument& operator[](unsigned index) const noexcept { return m_instruments[index]; }

private:
    std::array<Metric, N> m_metrics; ///< what each slot has registered; no name: nothing
    std::array<Instrument, N> m_instruments;
};

} // namespace zel::metrics
