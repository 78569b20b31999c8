#pragma once

#include "composite_instrument/composite_instrument_def.h"

#include <string>

/// How the manager's lines begin and end, as the model spells them.
namespace ps_ns::simulation::texts
{

inline const std::string kManager = "CompositeSubscriptionMgr: ";
inline const std::string kDone = "SPLUNK_IGNORE | ";

inline std::string Quote(const std::string& symbol)
{
    return '"' + symbol + '"';
}

inline std::string Of(unsigned long number)
{
    return std::to_string(number);
}

inline std::string Request(const char* operation, const CompositeInstrumentDef& def)
{
    return kManager + operation + " request for instrument " + def.ToString();
}

inline std::string WithId(const char* operation, const CompositeInstrumentDef& def, unsigned long id)
{
    return Request(operation, def) + " subscriptionID=" + Of(id);
}

inline std::string WithHandle(const char* operation, const CompositeInstrumentDef& def, unsigned long handle,
                              const std::string& observer)
{
    return Request(operation, def) + " handle=" + Of(handle) + " (observer=" + observer + ")";
}

inline std::string UnknownHandle(const char* operation, unsigned long handle)
{
    return kManager + operation + " request for instrument  handle=" + Of(handle) +
           " failed - there is no subscription";
}

} // namespace ps_ns::simulation::texts
