#pragma once

#include "config/config_schema.h"

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

namespace ps_ns
{

/// A folder of its own below the system's temporary one, deleted with everything in it at the end.
class TemporaryFolder
{
public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    std::string GetPath(const std::string& name) const { return (m_path / name).string(); }
    /// Writes a file and returns its path.
    std::string Write(const std::string& name, std::string_view text) const;

private:
    std::filesystem::path m_path;
};

/// A small configuration without fault, and the schema that it follows.
extern const std::string_view kSampleText;
const ConfigSchema& MakeSampleSchema();
/// What no file within XmlLimits can make a check with the sample schema exceed.
inline constexpr std::uint64_t kMaxSampleSchemaWork = 3'000'000;

/// No control character, and only UTF-8.
bool IsOnePrintableLine(std::string_view text);

} // namespace ps_ns
