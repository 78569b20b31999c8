#pragma once

#include "zel/wire_format.h"

#include <string>
#include <string_view>

namespace ps_ns
{

/// What readers cannot know to be wrong and nobody can use. Each answers an empty text when all is well, else what is
/// wrong, for a log: without the texts themselves, which may be anything.
///
/// A name has 1 to kMostWireNameBytes bytes; all texts are well-formed UTF-8 without control characters.

/// Of an entry of a directory.
std::string FindWireFault(const WireInstrument& instrument);
/// Of the new name.
std::string FindWireFault(const WireRename& rename);

/// Well-formed UTF-8 (no overlong forms, no surrogates, nothing above U+10FFFF) without control characters.
bool IsPlainUtf8(std::string_view text) noexcept;

} // namespace ps_ns
