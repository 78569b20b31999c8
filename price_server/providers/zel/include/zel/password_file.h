#pragma once

#include <string>

namespace ps_ns
{

/// The password in a file's first line: what is there but for blanks and a carriage return behind it. Throws
/// std::runtime_error, with the file's name, when there is none.
std::string ReadPasswordFile(const std::string& path);

} // namespace ps_ns
