#include "config/config_helper.h"

namespace ps_ns
{

template <>
std::string ConfigHelper::Get<std::string>(const boost::property_tree::ptree& tree, const std::string& path,
                                           const std::string& defaultValue, bool* found) const
{
    const auto node = tree.get_child_optional(boost::property_tree::ptree::path_type(path, '.'));
    if (found != nullptr)
    {
        *found = node.has_value();
    }
    return node ? node->data() : defaultValue;
}

} // namespace ps_ns
