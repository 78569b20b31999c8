#pragma once

#include "price_client/options.h"
#include "price_client/program.h"

namespace ps_ns::price_client
{

/// The commands that show prices until they are stopped. They throw ClientError.
void RunWatch(const Options& options);
void RunSubscribe(const Options& options);

} // namespace ps_ns::price_client
