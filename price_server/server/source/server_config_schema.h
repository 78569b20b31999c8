#pragma once

#include "config/config_schema.h"

#include <cstddef>

namespace ps_ns
{

/// Files that one replay may name.
inline constexpr std::size_t kMaxReplayFiles = 1000;

/// The elements and attributes of the server's configuration. Lives as long as the process.
const ConfigSchema& GetServerConfigSchema();

} // namespace ps_ns
