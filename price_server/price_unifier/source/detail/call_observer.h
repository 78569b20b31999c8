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
} // namespace detail

template <class Call>
void PriceDelivery::CallObserver(const std::string& name, const Call& call)
{
    try
    {
        call();
    }
    catch (const std::exception& error)
    {
        detail::LogObserverThrew(m_def, name, error.what());
    }
    catch (...)
    {
        detail::LogObserverThrew(m_def, name, nullptr);
    }
}

} // namespace ps_ns
