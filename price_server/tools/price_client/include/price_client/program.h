#pragma once

#include "price_client/options.h"

namespace ps_ns::price_client
{

/// Does what the options ask for, on this process's standard output and standard error. Returns the exit code.
int RunProgram(const Options& options);

} // namespace ps_ns::price_client
