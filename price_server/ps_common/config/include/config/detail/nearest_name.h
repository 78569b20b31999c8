#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace ps_ns::detail
{

/// Names longer than this are near to none: so the work of one search is bounded.
inline constexpr std::size_t kMaxComparedBytes = 64;

/// Insertions, deletions and replacements of single bytes that turn one text into the other; upper and lower case of
/// ASCII letters are the same. `work` is increased by the cells of the table computed.
std::size_t EditDistance(std::string_view left, std::string_view right, std::uint64_t& work);

/// The known name that `name` was probably meant to be: the first of the nearest, if at most a quarter of it and one
/// character more is different. Empty when there is none.
std::string_view FindNearest(std::string_view name, const std::vector<std::string_view>& known, std::uint64_t& work);

} // namespace ps_ns::detail
