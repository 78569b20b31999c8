#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace ps_ns
{

struct XmlAttribute
{
    std::string name;
    std::string value;    ///< without the quotes, references replaced
    std::size_t line = 0; ///< of its name, counted from 1
};

struct XmlElement
{
    static constexpr std::size_t kNone = static_cast<std::size_t>(-1);

    std::string name;
    std::size_t line = 0;       ///< of its start tag, counted from 1
    std::size_t depth = 0;      ///< the root has 1
    std::size_t parent = kNone; ///< index of the element around it; kNone for the root
    std::size_t firstAttribute = 0;
    std::size_t attributeCount = 0;
    std::size_t textLine = 0; ///< where its first text other than white space begins; 0: it has none
};

/// Every start tag of an XML file, in the order of the file, with its attributes and the lines of both. Text, comments
/// and processing instructions are not kept. A plain value.
class XmlDocument
{
public:
    /// Not empty: the root is the first. The children of an element stand behind it.
    const std::vector<XmlElement>& GetElements() const noexcept { return m_elements; }
    std::span<const XmlAttribute> GetAttributes(const XmlElement& element) const;
    /// Null when the element has none of this name.
    const XmlAttribute* FindAttribute(const XmlElement& element, std::string_view name) const;

    /// Indices of the direct children called `name`. Looks at every element below `parent`.
    std::vector<std::size_t> FindChildren(std::size_t parent, std::string_view name) const;
    /// The first of them.
    std::optional<std::size_t> FindChild(std::size_t parent, std::string_view name) const;

private:
    friend class XmlScanner;
    std::vector<XmlElement> m_elements;
    std::vector<XmlAttribute> m_attributes;
};

/// What a file may have. A file within these limits is parsed and checked in a few tens of milliseconds.
struct XmlLimits
{
    static constexpr std::size_t kMaxBytes = 1024 * 1024;
    static constexpr std::size_t kMaxDepth = 64;     ///< elements inside one another, the root included
    static constexpr std::size_t kMaxNodes = 20'000; ///< elements and attributes together
};

/// Reads the structure of an XML text in one pass, without recursion and in a time that grows with the size only.
///
/// Accepts a strict part of XML 1.0: UTF-8 (with or without a byte order mark), one root element, comments, CDATA,
/// processing instructions, the five named references and numeric ones. So whatever a lenient parser makes of an
/// accepted text has the same elements at the same depths. Throws ConfigError with the first thing that it refuses:
/// what is beyond XmlLimits, any document type declaration (with it, entities), NUL bytes, and whatever is not
/// well-formed.
///
/// `name` stands for the file in messages. `visitedBytes`, when given, is increased by the bytes looked at, whether the
/// text is accepted or not: at most three times the size, and of a text beyond the limit only the part within it.
XmlDocument ScanXml(std::string_view text, const std::string& name, std::size_t* visitedBytes = nullptr);

} // namespace ps_ns
