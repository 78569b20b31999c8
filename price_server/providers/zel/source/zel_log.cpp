#include "zel/zel_log.h"

#include "logging/logging.h"

namespace ps_ns
{

const std::shared_ptr<const zel::logging::Source>& ZelLogSource()
{
    static const auto source = std::make_shared<const zel::logging::Source>("zel");
    return source;
}

} // namespace ps_ns
