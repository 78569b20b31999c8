#pragma once

#include "price_unifier/source/composite_subscription_mgr.h"
#include "price_unifier/source/price_delivery.h"

#include <chrono>
#include <exception>
#include <string>

namespace ps_ns
{

namespace detail
{
/// Writes, at level 30, what an observer has thrown; `what` null: something that is no exception.
void LogObserverThrew(const CompositeInstrumentDef& def, const std::string& name, const char* what);

/// Calls an observer of `def`; what it throws is logged, so that those behind it are served.
template <class Call>
void CallObserver(const CompositeInstrumentDef& def, const std::string& name, const Call& call)
{
    try
    {
        call();
    }
    catch (const std::exception& error)
    {
        LogObserverThrew(def, name, error.what());
    }
    catch (...)
    {
        LogObserverThrew(def, name, nullptr);
    }
}
} // namespace detail

template <class Call>
void PriceDelivery::CallObserver(const std::string& name, const Call& call)
{
    detail::CallObserver(m_def, name, call);
}

template <class Call>
void PriceDelivery::CallTimed(const std::string& name, bool isTrade, const Call& call)
{
    const auto begin = std::chrono::steady_clock::now();
    CallObserver(name, call);
    const auto duration =
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - begin);
    const auto duration_ns = static_cast<unsigned long>(duration.count());
    if (isTrade)
    {
        m_manager->UpdateTradesTime(duration_ns);
        m_counts.trades.fetch_add(1, std::memory_order_relaxed);
    }
    else
    {
        m_manager->UpdateSnapshotTime(duration_ns);
        m_counts.books.fetch_add(1, std::memory_order_relaxed);
    }
}

} // namespace ps_ns
