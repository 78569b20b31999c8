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

/// What section Gateway says.
struct GatewaySection
{
    GatewaySettings settings;
    std::vector<ConfigProblem> problems; ///< what the schema cannot say; lines of the configuration file
};

/// Reads the section; paths that are not absolute start at `folder`. Looks whether the files that it names are there,
/// and does not read them. Total: works on documents that the schema has refused too, leaving out what cannot be read.
GatewaySection ReadGatewaySection(const XmlDocument& document, std::size_t section, const std::filesystem::path& folder,
                                  const std::map<std::string, short>& marketIdByName);

} // namespace ps_ns
