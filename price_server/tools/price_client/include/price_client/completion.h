#pragma once

#include <string>
#include <string_view>

namespace ps_ns::price_client
{

/// The script for "bash", "zsh" or "fish"; empty for any other. The same files are installed.
std::string_view GetCompletionScript(std::string_view shell);

} // namespace ps_ns::price_client
