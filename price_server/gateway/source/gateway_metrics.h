#pragma once

#include <string>
#include <utility>
#include <vector>

namespace ps_ns::gateway
{

class GatewayCore;

/// The server's gauges and the gateway's own counts in Prometheus' text format.
std::string WriteMetrics(GatewayCore& core);

/// The server's gauges by name, labels included: `name{label="value"}`.
std::vector<std::pair<std::string, double>> ReadGauges();

} // namespace ps_ns::gateway
