#pragma once

/// How a record becomes one line of text. Private to this room.

#include "logging/logging.h"

#include <string>
#include <string_view>

namespace zel::logging::detail
{

/// Below 10 DEBUG, below 20 INFO, below 30 WARN, otherwise ERROR.
std::string_view GetLevelName(int level) noexcept;

/// The line of Format::Text, without its line feed.
std::string FormatText(const Record& record);

/// The line of Format::JsonLines, without its line feed.
std::string FormatJson(const Record& record);

} // namespace zel::logging::detail
