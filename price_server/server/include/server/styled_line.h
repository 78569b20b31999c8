#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace ps_ns
{

enum class TextStyle
{
    Plain,
    Bold,
    Bid,
    Ask,
    Dim,
    Alarm
};

/// One line of a screen: pieces of text with styles. What is not printable ASCII counts as one '?' each, so that a
/// byte is a column.
class StyledLine
{
public:
    void Add(std::string_view text, TextStyle style = TextStyle::Plain);
    void AddRight(std::string_view text, std::size_t width, TextStyle style = TextStyle::Plain);
    void Append(const StyledLine& other);
    /// Blanks up to a width.
    void PadTo(std::size_t width);
    /// Cuts off what is beyond a width.
    void CutTo(std::size_t width);

    std::size_t GetWidth() const noexcept { return m_width; }

    /// At most `columns` wide.
    std::string ToString(std::size_t columns, bool hasColors) const;

private:
    struct Piece
    {
        std::string text;
        TextStyle style;
    };
    std::vector<Piece> m_pieces;
    std::size_t m_width = 0;
};

} // namespace ps_ns
