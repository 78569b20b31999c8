#pragma once

#include <cstdint>

namespace ps_ns::gateway
{

/// How many bytes the other side's system has taken of a TCP connection so far; 0 when that cannot be told.
std::uint64_t GetTakenBytes(int socket) noexcept;

} // namespace ps_ns::gateway
