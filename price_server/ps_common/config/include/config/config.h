#pragma once

#include "config/config_error.h"
#include "config/xml_document.h"

#include <boost/property_tree/ptree.hpp>

#include <memory>
#include <string>
#include <string_view>

namespace ps_ns
{

/// A configuration that could be read: its property tree, and the same elements with the lines they stand on.
///
/// Constant once made, so any thread may read it. What the elements mean is for ConfigSchema and for whoever reads
/// them.
///
///     const std::shared_ptr<Config> config = Config::LoadFile("price_server.xml");
///     const CompositeNode general("General", config->GetTree().get_child("PriceServer.General"));
class Config
{
public:
    /// Reads a file of at most XmlLimits::kMaxBytes; of a longer one no more than one byte beyond. Does not wait for
    /// anything but the disk. Throws ConfigError when the file cannot be read or ScanXml refuses its text.
    static std::shared_ptr<Config> LoadFile(const std::string& path);

    /// The same for a text. `nameForMessages` stands where the path of a file would.
    static std::shared_ptr<Config> LoadText(std::string_view text, const std::string& nameForMessages);

    const std::string& GetRootName() const noexcept { return m_rootName; }

    /// Has the root element as its one child; attributes are below "<xmlattr>". Comments are left out, and the white
    /// space around text.
    const boost::property_tree::ptree& GetTree() const noexcept { return m_tree; }

    /// The elements of the tree in the order of the file, with lines.
    const XmlDocument& GetDocument() const noexcept { return m_document; }

    /// The path, or what LoadText was given: for messages.
    const std::string& GetName() const noexcept { return m_name; }

private:
    Config(std::string_view text, const std::string& name);

    const std::string m_name;
    const XmlDocument m_document;
    const std::string m_rootName;
    const boost::property_tree::ptree m_tree;
};

} // namespace ps_ns
