#pragma once

#include "config/config_helper.h"

#include <boost/property_tree/ptree.hpp>

#include <string>

namespace ps_ns
{

/// One section of the configuration: its name and a copy of its part of the tree. Constant once made.
class CompositeNode : public ConfigHelper
{
public:
    /// A section that the configuration does not have: every attribute takes its default.
    explicit CompositeNode(std::string name);
    CompositeNode(std::string name, boost::property_tree::ptree tree);

    const std::string& GetName() const noexcept { return m_name; }
    const boost::property_tree::ptree& GetTree() const noexcept { return m_tree; }

    /// The section's attribute `name`, or `defaultValue` when there is none. `found` may be null. For two types:
    ///
    /// bool: 1, TRUE, YES, T and 0, FALSE, NO, F, in any case and with nothing around them. Throws std::runtime_error
    /// "Invalid Value <TEXT IN UPPER CASE> for Attribute <name>" for another text; `*found` is then true.
    ///
    /// unsigned int: what a stream in the classic locale reads, so white space around it is skipped, and "-1" is
    /// 4294967295. A text that is no number counts as not found.
    template <class T>
    T GetAttrValue(const std::string& name, const T& defaultValue, bool* found) const = delete;

private:
    std::string m_name;
    boost::property_tree::ptree m_tree;
};

template <>
bool CompositeNode::GetAttrValue<bool>(const std::string& name, const bool& defaultValue, bool* found) const;
template <>
unsigned int CompositeNode::GetAttrValue<unsigned int>(const std::string& name, const unsigned int& defaultValue,
                                                       bool* found) const;

} // namespace ps_ns
