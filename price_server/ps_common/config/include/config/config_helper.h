#pragma once

#include <boost/property_tree/ptree.hpp>

#include <string>

namespace ps_ns
{

/// Reads single values of a property tree.
class ConfigHelper
{
public:
    /// The text at `path`, whose parts are separated by '.', or a copy of `defaultValue` when there is no such node.
    /// `found`, which may be null, is told which. Text is the only T there is.
    template <class T>
    T Get(const boost::property_tree::ptree& tree, const std::string& path, const T& defaultValue,
          bool* found) const = delete;
};

template <>
std::string ConfigHelper::Get<std::string>(const boost::property_tree::ptree& tree, const std::string& path,
                                           const std::string& defaultValue, bool* found) const;

} // namespace ps_ns
