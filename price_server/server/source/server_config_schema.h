#pragma once

#include "config/config_schema.h"

#include <cstddef>

namespace ps_ns
{

/// Files that one replay may name.
inline constexpr std::size_t kMaxReplayFiles = 1000;

/// Files of renames that a configuration may name.
inline constexpr std::size_t kMaxRenamesFiles = 100;

/// The elements and attributes of the server's configuration. Lives as long as the process.
const ConfigSchema& GetServerConfigSchema();

} // namespace ps_ns
