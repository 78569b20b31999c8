#pragma once

#include <memory>
#include <string>

namespace ps_ns::gateway
{

/// A message, or several lines of them, that many sessions may have in their queues at once.
using SharedText = std::shared_ptr<const std::string>;

} // namespace ps_ns::gateway
