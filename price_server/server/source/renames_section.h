#pragma once

#include "config/config_error.h"
#include "config/xml_document.h"
#include "server/server_config.h"

#include <cstddef>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace ps_ns
{

/// What section Providers/Mds/Renames says.
struct RenamesSection
{
    std::vector<RenameSettings> renames;
    std::vector<ConfigProblem> problems; ///< what the schema cannot say; lines of the configuration file
};

/// Reads the section and the files that it names; paths that are not absolute start at `folder`. Total: works on
/// documents that the schema has refused too, leaving out what cannot be read.
RenamesSection ReadRenamesSection(const XmlDocument& document, std::size_t section, const std::filesystem::path& folder,
                                  const std::map<std::string, short>& marketIdByName);

} // namespace ps_ns
