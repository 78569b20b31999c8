#include "xml_scanner.h"

#include "config/config_error.h"
#include "config/detail/quoted.h"
#include "xml_bytes.h"

#include <algorithm>
#include <cctype>
#include <utility>

namespace ps_ns
{

using detail::Quoted;
using detail::Tag;

namespace
{

bool IsSpace(char character)
{
    return character == ' ' || character == '\n' || character == '\t' || character == '\r';
}

bool IsNameStart(char character)
{
    return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') || character == '_' ||
           character == ':' || static_cast<unsigned char>(character) >= 0x80;
}

bool IsNamePart(char character)
{
    return IsNameStart(character) || (character >= '0' && character <= '9') || character == '-' || character == '.';
}

bool EqualsIgnoringCase(std::string_view left, std::string_view right)
{
    const auto lower = [](char character) { return std::tolower(static_cast<unsigned char>(character)); };
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [&](char a, char b) { return lower(a) == lower(b); });
}

} // namespace

XmlDocument ScanXml(std::string_view text, const std::string& name, std::size_t* visitedBytes)
{
    std::size_t unread = 0;
    std::size_t& visited = visitedBytes == nullptr ? unread : *visitedBytes;
    visited += std::min(text.size(), XmlLimits::kMaxBytes);
    if (auto problem = detail::FindUnfitByte(text))
    {
        throw ConfigError(name, std::move(*problem));
    }
    return XmlScanner(text, name, visited).Scan();
}

XmlScanner::XmlScanner(std::string_view text, const std::string& name, std::size_t& visitedBytes)
    : m_text(text)
    , m_name(name)
    , m_visitedBytes(visitedBytes)
{
}

XmlDocument XmlScanner::Scan()
{
    if (IsAt("\xEF\xBB\xBF"))
    {
        Advance(3);
    }
    while (!IsAtEnd())
    {
        Peek() == '<' ? ScanMarkup() : ScanText();
    }
    RefuseUnclosed();
    return std::move(m_document);
}

void XmlScanner::ScanMarkup()
{
    if (IsAt("</"))
    {
        ScanEndTag();
    }
    else if (IsAt("<?"))
    {
        ScanInstruction();
    }
    else if (IsAt("<!"))
    {
        ScanDeclaration();
    }
    else
    {
        ScanStartTag();
    }
}

void XmlScanner::ScanStartTag()
{
    XmlElement element;
    element.line = m_line;
    Advance(1);
    element.name = ScanName("element");
    CountNode();
    if (m_open.empty() && !m_document.m_elements.empty())
    {
        Fail(element.line, "a second root element " + Tag(element.name));
    }
    element.depth = m_open.size() + 1;
    if (element.depth > XmlLimits::kMaxDepth)
    {
        Fail(element.line, "elements are nested more than " + std::to_string(XmlLimits::kMaxDepth) + " deep");
    }
    element.parent = m_open.empty() ? XmlElement::kNone : m_open.back();
    element.firstAttribute = m_document.m_attributes.size();
    m_document.m_elements.push_back(std::move(element));
    ScanAttributes();
    if (Advance(1) == ">")
    {
        m_open.push_back(m_document.m_elements.size() - 1);
    }
    else if (Advance(IsAtEnd() ? 0 : 1) != ">")
    {
        Fail(m_line, "'/' without '>' in the tag " + Tag(m_document.m_elements.back().name));
    }
}

void XmlScanner::ScanAttributes()
{
    XmlElement& element = m_document.m_elements.back();
    while (true)
    {
        const bool hasSpace = SkipSpace();
        if (IsAtEnd())
        {
            Fail(element.line, "the tag " + Tag(element.name) + " does not end");
        }
        if (Peek() == '>' || Peek() == '/')
        {
            break;
        }
        if (!hasSpace)
        {
            Fail(m_line,
                 "a blank is missing in the tag " + Tag(element.name) + " before " + Quoted(m_text.substr(m_at, 1)));
        }
        ScanAttribute();
    }
    element.attributeCount = m_document.m_attributes.size() - element.firstAttribute;
    RefuseDuplicateAttributes(element);
}

void XmlScanner::ScanAttribute()
{
    XmlAttribute attribute;
    attribute.line = m_line;
    attribute.name = ScanName("attribute");
    CountNode();
    SkipSpace();
    if (Peek() != '=')
    {
        Fail(attribute.line, "the attribute " + Quoted(attribute.name) + " has no value");
    }
    Advance(1);
    SkipSpace();
    attribute.value = ScanValue(attribute.line, attribute.name);
    m_document.m_attributes.push_back(std::move(attribute));
}

std::string XmlScanner::ScanValue(std::size_t attributeLine, const std::string& attributeName)
{
    const char quote = Peek();
    if (quote != '"' && quote != '\'')
    {
        Fail(m_line, "the value of the attribute " + Quoted(attributeName) + " is not in quotes");
    }
    Advance(1);
    const char stops[] = {quote, '<'};
    const std::size_t stop = m_text.find_first_of(std::string_view(stops, 2), m_at);
    m_visitedBytes += std::min(stop, m_text.size()) - m_at;
    if (stop == std::string_view::npos || m_text[stop] == '<')
    {
        Fail(attributeLine, "the value of the attribute " + Quoted(attributeName) +
                                (stop == std::string_view::npos ? " does not end"
                                                                : " has a '<': its quote is missing, or write &lt;"));
    }
    std::string value;
    const std::size_t line = m_line;
    AppendDecoded(value, Advance(stop - m_at), line);
    Advance(1);
    return value;
}

void XmlScanner::ScanEndTag()
{
    const std::size_t line = m_line;
    Advance(2);
    const std::string name = ScanName("end tag");
    SkipSpace();
    if (Peek() != '>')
    {
        Fail(line, "the end tag </" + detail::Printable(name) + "> does not end");
    }
    Advance(1);
    if (m_open.empty())
    {
        Fail(line, "the end tag </" + detail::Printable(name) + "> has no start tag");
    }
    const XmlElement& open = m_document.m_elements[m_open.back()];
    if (open.name != name)
    {
        Fail(line, "the end tag </" + detail::Printable(name) + "> does not match " + Tag(open.name) + " of line " +
                       std::to_string(open.line));
    }
    m_open.pop_back();
}

void XmlScanner::ScanDeclaration()
{
    if (IsAt("<!--"))
    {
        ScanComment();
    }
    else if (IsAt("<![CDATA["))
    {
        ScanCharacterData();
    }
    else if (EqualsIgnoringCase(m_text.substr(m_at, 9), "<!DOCTYPE"))
    {
        Fail(m_line, "a DOCTYPE is not accepted: no entities, nothing from outside");
    }
    else
    {
        Fail(m_line, "unknown markup " + Quoted(m_text.substr(m_at, 10)));
    }
}

void XmlScanner::ScanComment()
{
    const std::size_t line = m_line;
    Advance(4);
    AdvancePast("--", line, "comment");
    if (Peek() != '>')
    {
        Fail(m_line, "\"--\" inside a comment");
    }
    Advance(1);
}

void XmlScanner::ScanCharacterData()
{
    const std::size_t line = m_line;
    if (m_open.empty())
    {
        Fail(line, "text outside the root element");
    }
    NoteText(line);
    Advance(9);
    AdvancePast("]]>", line, "CDATA section");
}

void XmlScanner::ScanInstruction()
{
    const std::size_t line = m_line;
    const std::string_view before = m_text.substr(0, m_at);
    Advance(2);
    const std::string target = ScanName("processing instruction");
    const std::string_view content = AdvancePast("?>", line, "processing instruction");
    if (EqualsIgnoringCase(target, "xml"))
    {
        if (!before.empty() && before != "\xEF\xBB\xBF")
        {
            Fail(line, "the XML declaration is not at the beginning");
        }
        RefuseForeignEncoding(content);
    }
}

void XmlScanner::RefuseForeignEncoding(std::string_view xmlDeclaration) const
{
    const std::size_t keyword = xmlDeclaration.find("encoding");
    if (keyword == std::string_view::npos)
    {
        return;
    }
    const std::string_view rest = xmlDeclaration.substr(keyword);
    const std::size_t open = rest.find_first_of("\"'");
    const std::size_t close = open == std::string_view::npos ? open : rest.find(rest[open], open + 1);
    const std::string_view encoding =
        close == std::string_view::npos ? std::string_view() : rest.substr(open + 1, close - open - 1);
    if (!EqualsIgnoringCase(encoding, "UTF-8") && !EqualsIgnoringCase(encoding, "US-ASCII"))
    {
        Fail(m_line, "the encoding " + Quoted(encoding) + " is not read, only UTF-8");
    }
}

void XmlScanner::ScanText()
{
    SkipSpace();
    const std::size_t line = m_line;
    const std::size_t length = std::min(m_text.find('<', m_at), m_text.size()) - m_at;
    m_visitedBytes += length;
    const std::string_view text = Advance(length);
    if (text.empty())
    {
        return;
    }
    if (m_open.empty())
    {
        Fail(line, "text outside the root element");
    }
    NoteText(line);
    std::string decoded;
    AppendDecoded(decoded, text, line);
}

std::string XmlScanner::ScanName(const char* what)
{
    const std::string_view rest = m_text.substr(m_at);
    if (rest.empty() || !IsNameStart(rest.front()))
    {
        Fail(m_line, std::string("the name of ") + (*what == 'a' || *what == 'e' ? "an " : "a ") + what +
                         " is missing before " + (rest.empty() ? "the end of the file" : Quoted(rest.substr(0, 1))));
    }
    const auto length = std::find_if_not(rest.begin(), rest.end(), IsNamePart) - rest.begin();
    m_visitedBytes += static_cast<std::size_t>(length);
    return std::string(Advance(static_cast<std::size_t>(length)));
}

void XmlScanner::RefuseDuplicateAttributes(const XmlElement& element) const
{
    const auto attributes = m_document.GetAttributes(element);
    std::vector<const XmlAttribute*> sorted;
    sorted.reserve(attributes.size());
    for (const XmlAttribute& attribute : attributes)
    {
        sorted.push_back(&attribute);
    }
    std::stable_sort(sorted.begin(), sorted.end(),
                     [](const auto* left, const auto* right) { return left->name < right->name; });
    const XmlAttribute* first = nullptr;
    for (std::size_t index = 1; index < sorted.size(); ++index)
    {
        const bool isRepeated = sorted[index]->name == sorted[index - 1]->name;
        first = isRepeated && (first == nullptr || sorted[index] < first) ? sorted[index] : first;
    }
    if (first != nullptr)
    {
        Fail(first->line, "the attribute " + Quoted(first->name) + " is there twice in " + Tag(element.name));
    }
}

void XmlScanner::RefuseUnclosed() const
{
    if (!m_open.empty())
    {
        const XmlElement& open = m_document.m_elements[m_open.back()];
        Fail(open.line, "the element " + Tag(open.name) + " is never closed");
    }
    if (m_document.m_elements.empty())
    {
        Fail(m_line, "there is no root element");
    }
}

void XmlScanner::CountNode()
{
    if (m_document.m_elements.size() + m_document.m_attributes.size() >= XmlLimits::kMaxNodes)
    {
        Fail(m_line, "more than " + std::to_string(XmlLimits::kMaxNodes) + " elements and attributes");
    }
}

void XmlScanner::NoteText(std::size_t line)
{
    std::size_t& textLine = m_document.m_elements[m_open.back()].textLine;
    textLine = textLine == 0 ? line : textLine;
}

void XmlScanner::AppendDecoded(std::string& out, std::string_view raw, std::size_t line) const
{
    while (true)
    {
        const std::size_t reference = std::min(raw.find('&'), raw.size());
        out += raw.substr(0, reference);
        line += static_cast<std::size_t>(
            std::count(raw.begin(), raw.begin() + static_cast<std::ptrdiff_t>(reference), '\n'));
        raw.remove_prefix(reference);
        if (raw.empty())
        {
            return;
        }
        // Leading zeros aside, no reference is longer; without the bound a text of '&' would take quadratic time.
        constexpr std::size_t kMaxReferenceBytes = 16;
        const std::size_t end = raw.substr(0, kMaxReferenceBytes).find(';');
        if (end == std::string_view::npos || !detail::AppendReference(out, raw.substr(1, end - 1)))
        {
            const std::string_view shown = end == std::string_view::npos ? raw.substr(0, 1) : raw.substr(0, end + 1);
            Fail(line, "unknown reference " + Quoted(shown) + "; for the character '&' write &amp;");
        }
        raw.remove_prefix(end + 1);
    }
}

std::string_view XmlScanner::Advance(std::size_t count)
{
    const std::string_view passed = m_text.substr(m_at, count);
    m_line += static_cast<std::size_t>(std::count(passed.begin(), passed.end(), '\n'));
    m_at += passed.size();
    m_visitedBytes += passed.size();
    return passed;
}

std::string_view XmlScanner::AdvancePast(std::string_view terminator, std::size_t line, const char* construct)
{
    const std::size_t end = m_text.find(terminator, m_at);
    m_visitedBytes += std::min(end, m_text.size()) - m_at;
    if (end == std::string_view::npos)
    {
        Fail(line, std::string("the ") + construct + " does not end");
    }
    const std::string_view passed = Advance(end - m_at);
    Advance(terminator.size());
    return passed;
}

bool XmlScanner::SkipSpace()
{
    const std::string_view rest = m_text.substr(m_at);
    const auto length = std::find_if_not(rest.begin(), rest.end(), IsSpace) - rest.begin();
    m_visitedBytes += static_cast<std::size_t>(length);
    return !Advance(static_cast<std::size_t>(length)).empty();
}

void XmlScanner::Fail(std::size_t line, std::string what) const
{
    throw ConfigError(m_name, ConfigProblem{line, std::move(what)});
}

} // namespace ps_ns
