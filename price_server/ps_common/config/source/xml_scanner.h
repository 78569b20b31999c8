#pragma once

#include "config/xml_document.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace ps_ns
{

/// The work of one ScanXml call: a cursor that only moves forward, and the stack of open elements. Every Scan operation
/// starts with the cursor at its construct and leaves it behind; what does not fit throws ConfigError.
class XmlScanner
{
public:
    XmlScanner(std::string_view text, const std::string& name, std::size_t& visitedBytes);
    XmlDocument Scan();

private:
    void ScanMarkup();
    void ScanStartTag();
    void ScanAttributes();
    void ScanAttribute();
    std::string ScanValue(std::size_t attributeLine, const std::string& attributeName);
    void ScanEndTag();
    void ScanDeclaration();
    void ScanComment();
    void ScanCharacterData();
    void ScanInstruction();
    void ScanText();
    std::string ScanName(const char* what);

    void RefuseForeignEncoding(std::string_view xmlDeclaration) const;
    void RefuseDuplicateAttributes(const XmlElement& element) const;
    void RefuseUnclosed() const;
    void CountNode();
    void NoteText(std::size_t line);
    /// Appends `raw` with its references replaced; `line` is where it begins.
    void AppendDecoded(std::string& out, std::string_view raw, std::size_t line) const;

    bool IsAtEnd() const noexcept { return m_at == m_text.size(); }
    char Peek() const noexcept { return IsAtEnd() ? '\0' : m_text[m_at]; } ///< '\0' is at no other place
    bool IsAt(std::string_view literal) const noexcept { return m_text.substr(m_at).starts_with(literal); }
    /// Moves over `count` bytes and returns them.
    std::string_view Advance(std::size_t count);
    /// Moves over everything up to and including `terminator`, and returns what was before it. `construct` began on
    /// `line`.
    std::string_view AdvancePast(std::string_view terminator, std::size_t line, const char* construct);
    bool SkipSpace();

    [[noreturn]] void Fail(std::size_t line, std::string what) const;

    const std::string_view m_text;
    const std::string& m_name;
    std::size_t& m_visitedBytes;
    std::size_t m_at = 0;
    std::size_t m_line = 1;
    std::vector<std::size_t> m_open; ///< indices of the elements whose end tag has not come yet
    XmlDocument m_document;
};

} // namespace ps_ns
