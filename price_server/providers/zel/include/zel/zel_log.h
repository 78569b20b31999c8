#pragma once

#include <memory>

namespace zel::logging
{
class Source;
}

namespace ps_ns
{

/// The source of this room's log records.
const std::shared_ptr<const zel::logging::Source>& ZelLogSource();

} // namespace ps_ns
