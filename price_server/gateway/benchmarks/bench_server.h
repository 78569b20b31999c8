#pragma once

#include <cstddef>

namespace ps_ns::gateway_bench
{

/// Serves made-up instruments "BENCH:I0", "BENCH:I1", … of ten levels a side through the real manager and gateway, on
/// threads of their own, and does what standard input says, a line each:
///
///   publish COUNT              as many updates at once, to one instrument after another
///   pace RATE MILLISECONDS     so many a second for so long
///
/// Says its port first, and after each command a line. Returns at the end of its input.
int Serve(std::size_t instruments);

} // namespace ps_ns::gateway_bench
