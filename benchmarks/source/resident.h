#pragma once

#include <cstddef>
#include <string>

namespace compare
{

/// Measures in a process of its own, whose heap is fresh: bytes of memory of a live subscription, of `what` ("manager"
/// or "floor", "flexible manager" or "flexible floor"), with so many of them. Throws std::runtime_error.
double MeasureResident_bytes(const std::string& what, std::size_t live);

/// Is that process: prints the figure.
int PrintResident(const std::string& what, std::size_t live);

} // namespace compare
