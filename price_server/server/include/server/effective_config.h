#pragma once

#include "server/command_line.h"
#include "server/server_config.h"

#include <stdexcept>

namespace ps_ns
{

/// Options that do not go together with each other or with the configuration.
class UsageError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/// What the server is to run on.
struct EffectiveConfig
{
    ServerConfig config;
    bool alignsStarts = false;   ///< as in PriceServerOptions
    bool takesAnyPort = false;   ///< nobody has named the gateway's port: if it is taken, another will do
    bool endsWithPrices = false; ///< the program exits at the end of the recording
};

/// The configuration file or the built-in configuration, with what the command line changes. Without a configuration
/// file, the markets of --replay are those of the files. Throws ConfigError, UsageError, or std::runtime_error when a
/// file of --replay cannot be read.
EffectiveConfig MakeEffectiveConfig(const CommandLine& line);

} // namespace ps_ns
