#include "config/composite_node.h"

#include "config/config_values.h"

#include <boost/optional.hpp>
#include <boost/property_tree/stream_translator.hpp>

#include <locale>
#include <stdexcept>
#include <utility>

namespace ps_ns
{

namespace
{

using Translator =
    boost::property_tree::stream_translator<char, std::char_traits<char>, std::allocator<char>, unsigned>;

std::string AttributePath(const std::string& name)
{
    return "<xmlattr>." + name;
}

} // namespace

CompositeNode::CompositeNode(std::string name)
    : m_name(std::move(name))
{
}

CompositeNode::CompositeNode(std::string name, boost::property_tree::ptree tree)
    : m_name(std::move(name))
    , m_tree(std::move(tree))
{
}

template <>
bool CompositeNode::GetAttrValue<bool>(const std::string& name, const bool& defaultValue, bool* found) const
{
    const std::string text = ToUpper(Get<std::string>(m_tree, AttributePath(name), defaultValue ? "1" : "0", found));
    const std::optional<bool> value = ParseBoolean(text);
    if (!value)
    {
        throw std::runtime_error("Invalid Value " + text + " for Attribute " + name);
    }
    return *value;
}

template <>
unsigned int CompositeNode::GetAttrValue<unsigned int>(const std::string& name, const unsigned int& defaultValue,
                                                       bool* found) const
{
    bool exists = false;
    const std::string text = Get<std::string>(m_tree, AttributePath(name), {}, &exists);
    // The locale is named: the process's global one may group digits.
    const boost::optional<unsigned> value =
        exists ? Translator(std::locale::classic()).get_value(text) : boost::optional<unsigned>();
    if (found != nullptr)
    {
        *found = value.has_value();
    }
    return value.value_or(defaultValue);
}

} // namespace ps_ns
