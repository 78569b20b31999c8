#pragma once

#include "logging/logging.h"

#include <memory>

namespace ps_ns::detail
{

/// The manager's log source.
const std::shared_ptr<const zel::logging::Source>& ManagerLogSource();

/// Tells the log indexer to skip a line: every request that succeeded has it.
inline constexpr const char* kIndexerSkips = "SPLUNK_IGNORE | ";

/// How the lines about synthetics begin; they carry tag 0 where all others carry 13.
inline constexpr const char* kSyntheticPrefix = "CompositeSubscriptionMgr: UnifierSynthetic. ";
inline constexpr unsigned kSyntheticTag = 0;

/// Writes one of the manager's lines, if its level is admitted.
template <class Build>
void LogManager(const zel::logging::At& at, Build&& build)
{
    zel::logging::Log(at, ManagerLogSource(), std::forward<Build>(build));
}

} // namespace ps_ns::detail
