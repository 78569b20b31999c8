#pragma once

#include "price_unifier/source/price_delivery.h"

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

} // namespace ps_ns
