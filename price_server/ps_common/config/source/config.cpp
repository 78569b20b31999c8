#include "config/config.h"

#include "config/detail/bounded_file.h"

#include <boost/property_tree/xml_parser.hpp>

#include <algorithm>
#include <sstream>

namespace ps_ns
{

namespace
{

/// `text` has passed ScanXml, without which read_xml could overflow the stack.
boost::property_tree::ptree Parse(std::string_view text, const std::string& name)
{
    namespace xml = boost::property_tree::xml_parser;
    boost::property_tree::ptree tree;
    try
    {
        std::istringstream stream{std::string(text)};
        xml::read_xml(stream, tree, xml::no_comments | xml::trim_whitespace);
    }
    catch (const xml::xml_parser_error& error)
    {
        throw ConfigError(name, ConfigProblem{std::max<std::size_t>(error.line(), 1), error.message()});
    }
    return tree;
}

} // namespace

std::shared_ptr<Config> Config::LoadFile(const std::string& path)
{
    return LoadText(detail::ReadBounded(path, XmlLimits::kMaxBytes + 1), path);
}

std::shared_ptr<Config> Config::LoadText(std::string_view text, const std::string& nameForMessages)
{
    return std::shared_ptr<Config>(new Config(text, nameForMessages));
}

Config::Config(std::string_view text, const std::string& name)
    : m_name(name)
    , m_document(ScanXml(text, name))
    , m_rootName(m_document.GetElements().front().name)
    , m_tree(Parse(text, name))
{
}

} // namespace ps_ns
