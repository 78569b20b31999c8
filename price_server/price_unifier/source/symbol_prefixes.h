#pragma once

#include "logging/logging.h"

#include <memory>
#include <string>

namespace ps_ns
{

/// What a provider's symbol begins with when it is not a venue's own book. The letters do not always follow the names
/// ("SI_", "EX_"): they are what the providers use.
inline const std::string impliedSymbolPrefix = "IM_";
inline const std::string legweaverSymbolPrefix = "SI_";
inline const std::string aggregatorSymbolPrefix = "AI_";
inline const std::string simulatedSymbolPrefix = "EX_";
inline const std::string uncoveredSymbolPrefix = "UC_";

} // namespace ps_ns

namespace lbm
{

/// The log source of the triage handler.
inline const std::shared_ptr<const zel::logging::Source> th_log =
    std::make_shared<const zel::logging::Source>("lbm_triage_handler");

} // namespace lbm
