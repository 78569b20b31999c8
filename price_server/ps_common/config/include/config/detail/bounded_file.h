#pragma once

#include <cstddef>
#include <string>

namespace ps_ns::detail
{

/// Reads a regular file, or its first `limit` bytes when it is longer, and never more than those. Does not wait: a FIFO
/// or a device is refused without being read. Throws ConfigError (line 1) for whatever cannot be read.
std::string ReadBounded(const std::string& path, std::size_t limit);

} // namespace ps_ns::detail
