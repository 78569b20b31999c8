#pragma once

#include <cstdint>

namespace ps_ns::gateway
{

/// How many bytes the other side's system has taken of a TCP connection so far; 0 when that cannot be told.
std::uint64_t GetTakenBytes(int socket) noexcept;

/// What has been lost is sent again within a second, however often that has failed. By default the pauses double up to
/// two minutes: a client whose system had no memory for some time (small segments take up several times their size)
/// would go on waiting for many seconds after it has woken. Systems before Linux 6.15 have no such bound: there only
/// the first six pauses do not grow.
void BoundResendPause(int socket) noexcept;

} // namespace ps_ns::gateway
