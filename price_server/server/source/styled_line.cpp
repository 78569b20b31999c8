#include "server/styled_line.h"

#include <algorithm>

namespace ps_ns
{
namespace
{

constexpr const char* kReset = "\x1b[0m";

const char* GetSequence(TextStyle style)
{
    switch (style)
    {
    case TextStyle::Bold:
        return "\x1b[1m";
    case TextStyle::Bid:
        return "\x1b[32m";
    case TextStyle::Ask:
        return "\x1b[31m";
    case TextStyle::Dim:
        return "\x1b[2m";
    case TextStyle::Alarm:
        return "\x1b[1;33m";
    case TextStyle::Plain:
        break;
    }
    return "";
}

} // namespace

void StyledLine::Add(std::string_view text, TextStyle style)
{
    std::string printable(text);
    std::replace_if(
        printable.begin(), printable.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
    m_width += printable.size();
    m_pieces.push_back({std::move(printable), style});
}

void StyledLine::AddRight(std::string_view text, std::size_t width, TextStyle style)
{
    Add(std::string(width - std::min(width, text.size()), ' '));
    Add(text, style);
}

void StyledLine::Append(const StyledLine& other)
{
    m_pieces.insert(m_pieces.end(), other.m_pieces.begin(), other.m_pieces.end());
    m_width += other.m_width;
}

void StyledLine::PadTo(std::size_t width)
{
    if (m_width < width)
    {
        Add(std::string(width - m_width, ' '));
    }
}

void StyledLine::CutTo(std::size_t width)
{
    while (m_width > width)
    {
        std::string& last = m_pieces.back().text;
        const std::size_t cut = std::min(last.size(), m_width - width);
        last.resize(last.size() - cut);
        m_width -= cut;
        if (last.empty())
        {
            m_pieces.pop_back();
        }
    }
}

std::string StyledLine::ToString(std::size_t columns, bool hasColors) const
{
    std::string line;
    std::size_t room = columns;
    for (const Piece& piece : m_pieces)
    {
        const std::string text = piece.text.substr(0, room);
        room -= text.size();
        const bool isStyled = hasColors && piece.style != TextStyle::Plain && !text.empty();
        line += isStyled ? GetSequence(piece.style) + text + kReset : text;
    }
    // Blanks at the end only matter under a style, and no style here colours the ground.
    while (!line.empty() && line.back() == ' ')
    {
        line.pop_back();
    }
    return line;
}

} // namespace ps_ns
