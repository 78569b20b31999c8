#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace compare
{

/// Recorded files to books of ten levels, as a program of its own would do it with the standard library alone: lines by
/// std::getline, numbers by std::from_chars, books of two std::map of doubles, and after each message the first ten
/// levels of both sides to one observer. Damaged rows, time, renames and late subscribers are nobody's business there.
/// Only decompression is the project's. Returns how many books there were.
std::uint64_t ReplayByHand(const std::vector<std::string>& files);

} // namespace compare
