#pragma once

#include "config/config_error.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace ps_ns::detail
{

/// The first thing that makes the bytes unfit, before any thought of markup: too many, not UTF-8, a NUL byte or another
/// control character. Looks at XmlLimits::kMaxBytes at most.
std::optional<ConfigProblem> FindUnfitByte(std::string_view text);

/// Appends what a reference stands for, `reference` being what is between '&' and ';'. False when it stands for
/// nothing: only lt, gt, amp, apos, quot, and the numbers of characters that XML allows do.
bool AppendReference(std::string& out, std::string_view reference);

} // namespace ps_ns::detail
