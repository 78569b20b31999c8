#include "server/ladder.h"

#include "composite_price/fixed_point.h"
#include "gateway/component_name.h"
#include "server/styled_line.h"

#include <algorithm>
#include <array>
#include <functional>
#include <span>

namespace ps_ns
{
namespace
{

using Level = MergedOrderBook::Level;

constexpr std::size_t kGap = 3;         // between ladders beside each other
constexpr std::size_t kHeaderLines = 2; // name and column heads
constexpr std::size_t kFewestLevels = 1;

/// How much of a level is shown.
enum class Detail
{
    Orders,
    Apart, ///< direct and implied quantity
    Total, ///< their sum
    Prices
};
constexpr std::array kDetails{Detail::Orders, Detail::Apart, Detail::Total, Detail::Prices};

/// One column of one side, from the middle outwards.
struct Column
{
    const char* head;
    std::function<std::string(const Level&)> text;
    std::size_t width = 0;
};

std::size_t CountDecimals(const std::string& number)
{
    const std::size_t point = number.find('.');
    return point == std::string::npos ? 0 : number.size() - point - 1;
}

/// The number with zeros up to so many decimals.
std::string WithDecimals(std::string number, std::size_t decimals)
{
    const std::size_t present = CountDecimals(number);
    if (present == 0 && decimals != 0)
    {
        number += '.';
    }
    return number.append(decimals - std::min(decimals, present), '0');
}

/// The decimals that a number of each of these levels needs.
template <class Number>
std::size_t GetDecimals(const MergedOrderBook& book, std::size_t levels, Number number)
{
    std::size_t decimals = 0;
    for (const auto& side : {book.bids.GetLevels(), book.asks.GetLevels()})
    {
        for (const Level& level : side.first(std::min(levels, side.size())))
        {
            decimals = std::max(decimals, CountDecimals(number(level)));
        }
    }
    return decimals;
}

/// A quantity column: nothing where there is none.
Column QuantityColumn(const char* head, const MergedOrderBook& book, std::size_t levels,
                      std::function<std::int64_t(const Level&)> quantity)
{
    const std::size_t decimals =
        GetDecimals(book, levels, [&](const Level& level) { return FormatQuantity(quantity(level)); });
    return {head, [quantity = std::move(quantity), decimals](const Level& level)
            { return quantity(level) == 0 ? "" : WithDecimals(FormatQuantity(quantity(level)), decimals); }};
}

class Ladder
{
public:
    /// Shows at most so many levels.
    Ladder(const LadderView& view, std::size_t levels, Detail detail)
        : m_view(view)
        , m_levels(levels)
        , m_book(view.book != nullptr ? *view.book : kEmptyBook)
    {
        MakeColumns(detail);
    }

    std::size_t GetWidth() const
    {
        std::size_t side = 0;
        for (const Column& column : m_columns)
        {
            side += column.width + 1;
        }
        return 2 * side + 1;
    }

    std::vector<StyledLine> Render(std::size_t width) const
    {
        std::vector<StyledLine> lines{RenderName(width), RenderHeads()};
        for (std::size_t level = 0; level < m_levels; ++level)
        {
            lines.push_back(RenderLevel(level));
        }
        return lines;
    }

private:
    void MakeColumns(Detail detail);
    StyledLine RenderName(std::size_t width) const;
    StyledLine RenderHeads() const;
    StyledLine RenderLevel(std::size_t level) const;
    void AddCells(StyledLine& line, const BookSide<Level>& side, std::size_t level, bool isBid) const;

    static inline const MergedOrderBook kEmptyBook{1, 1};

    const LadderView& m_view;
    const std::size_t m_levels;
    const MergedOrderBook& m_book;
    std::size_t m_priceDecimals = 0;
    std::vector<Column> m_columns;
};

void Ladder::MakeColumns(Detail detail)
{
    m_priceDecimals = std::max<std::size_t>(
        m_view.format.fractionDigits,
        GetDecimals(m_book, m_levels, [](const Level& level) { return FormatPrice(level.price); }));
    m_columns.push_back({"price", [decimals = m_priceDecimals](const Level& level)
                         { return WithDecimals(FormatPrice(level.price), decimals); }});
    const auto direct = [](const Level& level) { return level.directQuantity; };
    const auto implied = [](const Level& level) { return level.impliedQuantity; };
    if (detail == Detail::Orders || detail == Detail::Apart)
    {
        m_columns.push_back(QuantityColumn("direct", m_book, m_levels, direct));
        m_columns.push_back(QuantityColumn("implied", m_book, m_levels, implied));
    }
    else if (detail == Detail::Total)
    {
        m_columns.push_back(QuantityColumn("total", m_book, m_levels,
                                           [](const Level& level)
                                           { return level.directQuantity + level.impliedQuantity; }));
    }
    const auto hasOrders = [](const BookSide<Level>& side)
    {
        const auto levels = side.GetLevels();
        return std::any_of(levels.begin(), levels.end(), [](const Level& level) { return level.orderCount != 0; });
    };
    if (detail == Detail::Orders && (hasOrders(m_book.bids) || hasOrders(m_book.asks)))
    {
        m_columns.push_back({"orders", [](const Level& level)
                             { return level.orderCount == 0 ? "" : std::to_string(level.orderCount); }});
    }
    for (Column& column : m_columns)
    {
        column.width = std::string_view(column.head).size();
        for (const auto& side : {m_book.bids.GetLevels(), m_book.asks.GetLevels()})
        {
            for (const Level& level : side.first(std::min(m_levels, side.size())))
            {
                column.width = std::max(column.width, column.text(level).size());
            }
        }
    }
}

/// The name, what is wrong, and at the right end the last trade.
StyledLine Ladder::RenderName(std::size_t width) const
{
    StyledLine line;
    line.Add(m_view.name, TextStyle::Bold);
    if (m_view.book == nullptr)
    {
        line.Add(" no book yet", TextStyle::Alarm);
    }
    for (const CompositeComponentType::Type type : kComponents)
    {
        if (m_book.staleComponents.count(type) != 0)
        {
            line.Add(std::string(" STALE ") + GetComponentName(type), TextStyle::Alarm);
        }
        if (m_book.missingComponents.count(type) != 0)
        {
            line.Add(std::string(" no ") + GetComponentName(type) + " yet", TextStyle::Alarm);
        }
    }
    if (m_view.lastTrade)
    {
        const Trade& trade = *m_view.lastTrade;
        const std::string text =
            "last " + WithDecimals(FormatPrice(trade.price), m_priceDecimals) + " x " + FormatQuantity(trade.quantity);
        const TextStyle style = trade.aggressor == Trade::Aggressor::Buyer    ? TextStyle::Bid
                                : trade.aggressor == Trade::Aggressor::Seller ? TextStyle::Ask
                                                                              : TextStyle::Plain;
        line.PadTo(width - std::min(width, text.size()));
        line.Add(line.GetWidth() + text.size() > width ? " " : "");
        line.Add(text, style);
    }
    line.CutTo(width);
    return line;
}

StyledLine Ladder::RenderHeads() const
{
    StyledLine line;
    for (auto column = m_columns.rbegin(); column != m_columns.rend(); ++column)
    {
        const bool isPrice = column + 1 == m_columns.rend();
        line.AddRight(isPrice ? "bid" : column->head, column->width, TextStyle::Dim);
        line.Add(" ");
    }
    line.Add("|", TextStyle::Dim);
    for (auto column = m_columns.begin(); column != m_columns.end(); ++column)
    {
        line.Add(" ");
        line.AddRight(column == m_columns.begin() ? "ask" : column->head, column->width, TextStyle::Dim);
    }
    return line;
}

StyledLine Ladder::RenderLevel(std::size_t level) const
{
    StyledLine line;
    AddCells(line, m_book.bids, level, true);
    line.Add("|", TextStyle::Dim);
    AddCells(line, m_book.asks, level, false);
    return line;
}

void Ladder::AddCells(StyledLine& line, const BookSide<Level>& side, std::size_t level, bool isBid) const
{
    const auto levels = side.GetLevels();
    for (std::size_t i = 0; i < m_columns.size(); ++i)
    {
        const Column& column = m_columns[isBid ? m_columns.size() - 1 - i : i];
        const bool isPrice = &column == &m_columns.front();
        const TextStyle style = !isPrice ? TextStyle::Plain : isBid ? TextStyle::Bid : TextStyle::Ask;
        line.Add(isBid ? "" : " ");
        line.AddRight(level < levels.size() ? column.text(levels[level]) : "", column.width, style);
        line.Add(isBid ? " " : "");
    }
}

std::size_t GetMostLevels(const std::vector<LadderView>& views)
{
    std::size_t levels = kFewestLevels;
    for (const LadderView& view : views)
    {
        if (view.book != nullptr)
        {
            levels = std::max<std::size_t>({levels, view.book->bids.count, view.book->asks.count});
        }
    }
    return levels;
}

/// Where ladders of one width stand.
struct Grid
{
    std::size_t width = 0; ///< of a ladder
    std::size_t beside = 1;
    std::size_t levels = kFewestLevels;
};

Grid MakeGrid(const std::vector<LadderView>& views, const ScreenSize& size, Detail detail)
{
    Grid grid;
    const std::size_t mostLevels = GetMostLevels(views);
    for (const LadderView& view : views)
    {
        grid.width = std::max(grid.width, Ladder(view, mostLevels, detail).GetWidth());
    }
    grid.beside = std::clamp<std::size_t>((size.columns + kGap) / (grid.width + kGap), 1, views.size());
    const std::size_t under = (views.size() + grid.beside - 1) / grid.beside;
    const std::size_t rows = (size.rows - std::min<std::size_t>(size.rows, 1)) / under; // a blank line ends each
    grid.levels = std::clamp(rows - std::min(rows, kHeaderLines + 1), kFewestLevels, mostLevels);
    return grid;
}

/// The most detail that fits beside the edge of the screen.
Detail ChooseDetail(const std::vector<LadderView>& views, const ScreenSize& size)
{
    return *std::find_if(kDetails.begin(), kDetails.end() - 1,
                         [&](Detail detail) { return MakeGrid(views, size, detail).width <= size.columns; });
}

} // namespace

std::vector<std::string> RenderLadders(const std::vector<LadderView>& views, const std::string& footer,
                                       const ScreenSize& size, bool hasColors)
{
    std::vector<StyledLine> screen;
    const Detail detail = ChooseDetail(views, size);
    const Grid grid = views.empty() ? Grid{} : MakeGrid(views, size, detail);
    for (std::size_t first = 0; first < views.size(); first += grid.beside)
    {
        std::vector<StyledLine> row(kHeaderLines + grid.levels);
        for (std::size_t view = first; view < std::min(views.size(), first + grid.beside); ++view)
        {
            const auto lines = Ladder(views[view], grid.levels, detail).Render(grid.width);
            for (std::size_t i = 0; i < row.size(); ++i)
            {
                row[i].PadTo((view - first) * (grid.width + kGap));
                row[i].Append(lines[i]);
            }
        }
        screen.insert(screen.end(), row.begin(), row.end());
        screen.emplace_back();
    }
    screen.resize(std::min(screen.size(), size.rows - std::min<std::size_t>(size.rows, 1)));
    StyledLine last;
    last.Add(footer, TextStyle::Dim);
    screen.push_back(std::move(last));
    screen.resize(std::min(screen.size(), size.rows));

    std::vector<std::string> lines;
    for (const StyledLine& line : screen)
    {
        lines.push_back(line.ToString(size.columns, hasColors));
    }
    return lines;
}

} // namespace ps_ns
