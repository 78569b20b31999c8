#pragma once

#include <boost/json.hpp>

#include <cstdint>
#include <string>
#include <string_view>

namespace ps_ns::price_client
{

/// The server's answers for people, with line breaks. What a venue calls something is shown without control characters.
/// Members that a server does not send show as "?".

/// Of /api/v1/status.
std::string FormatStatus(const boost::json::object& status);
/// Of /api/v1/explain.
std::string FormatExplanation(const boost::json::object& explanation);
/// Of the instruments of /api/v1/instruments: a table with a head.
std::string FormatInstruments(const boost::json::array& instruments);
/// Their names, one a line.
std::string FormatNames(const boost::json::array& instruments);
/// One object a line.
std::string FormatLines(const boost::json::array& objects);

/// "2027-01-01 10:00:01.996060737 UTC", of nanoseconds since 1970.
std::string FormatTime(std::uint64_t time_ns);

} // namespace ps_ns::price_client
