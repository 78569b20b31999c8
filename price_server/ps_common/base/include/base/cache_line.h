#pragma once

#include <cstddef>

namespace ps_ns
{

/// Bytes in a cache line of the machines this server runs on (x86-64 and most arm64). A constant of our own, because
/// std::hardware_destructive_interference_size may change with compiler flags and must not decide a layout.
inline constexpr std::size_t kCacheLineSize = 64;

} // namespace ps_ns
