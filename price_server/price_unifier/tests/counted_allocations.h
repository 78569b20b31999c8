#pragma once

#include <cstddef>
#include <cstdint>

namespace ps_ns::testing
{

// Counted by this program's operator new, but for what is over-aligned.

/// A string of this length is one allocation of a size that nothing else has.
constexpr std::size_t kMarkedLength = 4099;

std::uint64_t GetAllocations() noexcept;
/// Those of marked strings.
std::uint64_t GetMarkedAllocations() noexcept;

} // namespace ps_ns::testing
