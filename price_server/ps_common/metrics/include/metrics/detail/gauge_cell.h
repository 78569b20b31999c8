#pragma once

#include <atomic>
#include <cstddef>

namespace zel::metrics::detail
{

/// What a gauge has been raised and lowered by, on a cache line each. The gauges that move all the time count what is
/// on its way from some threads to others: one side raises, the other lowers, and neither waits for the other's line.
///
/// Threads: any.
class GaugeCell
{
public:
    void Raise(double amount) noexcept { m_raised.fetch_add(amount, std::memory_order_relaxed); }
    void Lower(double amount) noexcept { m_lowered.fetch_add(amount, std::memory_order_relaxed); }
    /// As if what lowers it meanwhile came after it.
    void Set(double value) noexcept { m_raised.store(value + m_lowered.load()); }
    double Get() const noexcept
    {
        const double lowered = m_lowered.load(); // first: what has been raised and lowered since counts as raised alone
        return m_raised.load() - lowered;
    }

private:
    static constexpr std::size_t kLine = 64;

    alignas(kLine) std::atomic<double> m_raised{0.0};
    alignas(kLine) std::atomic<double> m_lowered{0.0};
};

} // namespace zel::metrics::detail
