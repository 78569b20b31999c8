#pragma once

#include "price_publisher/options.h"

namespace ps_ns::price_publisher
{

/// Publishes until the end that was asked for. Called once, on the main thread. Progress and talk go to standard error.
ExitCode RunProgram(const Options& options);

} // namespace ps_ns::price_publisher
