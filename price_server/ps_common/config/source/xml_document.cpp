#include "config/xml_document.h"

#include <algorithm>

namespace ps_ns
{

std::span<const XmlAttribute> XmlDocument::GetAttributes(const XmlElement& element) const
{
    return std::span(m_attributes).subspan(element.firstAttribute, element.attributeCount);
}

const XmlAttribute* XmlDocument::FindAttribute(const XmlElement& element, std::string_view name) const
{
    const auto attributes = GetAttributes(element);
    const auto found = std::find_if(attributes.begin(), attributes.end(),
                                    [&](const XmlAttribute& attribute) { return attribute.name == name; });
    return found == attributes.end() ? nullptr : &*found;
}

std::vector<std::size_t> XmlDocument::FindChildren(std::size_t parent, std::string_view name) const
{
    std::vector<std::size_t> found;
    const std::size_t depth = m_elements[parent].depth;
    for (std::size_t index = parent + 1; index < m_elements.size() && m_elements[index].depth > depth; ++index)
    {
        if (m_elements[index].parent == parent && m_elements[index].name == name)
        {
            found.push_back(index);
        }
    }
    return found;
}

std::optional<std::size_t> XmlDocument::FindChild(std::size_t parent, std::string_view name) const
{
    const std::vector<std::size_t> found = FindChildren(parent, name);
    return found.empty() ? std::nullopt : std::optional(found.front());
}

} // namespace ps_ns
