#pragma once

#include "gateway/gateway_options.h"

namespace ps_ns
{

struct GatewaySettings;

/// The gateway's options for the settings. Reads the token files; throws std::runtime_error, naming the file, when one
/// cannot be read or has no token in its first line. Without a folder for the page it is the one beside the program.
gateway::GatewayOptions MakeGatewayOptions(const GatewaySettings& settings);

} // namespace ps_ns
