#include "price_client/views.h"

#include "composite_price/fixed_point.h"

#include <algorithm>
#include <utility>

namespace ps_ns::price_client
{

LineView::LineView(bool writesBooks, std::size_t instruments, Write write)
    : m_writesBooks(writesBooks)
    , m_write(std::move(write))
    , m_names(instruments)
{
}

void LineView::OnObject(std::string_view type, std::string_view line)
{
    const bool isBook = type == "image" || type == "update" || type == "conflated";
    if (!m_writesBooks || !isBook)
    {
        m_write(std::string(line) + "\n");
    }
}

void LineView::OnBook(std::size_t instrument, const Book& book)
{
    if (m_writesBooks)
    {
        m_write(book.FormatLine(m_names.at(instrument)) + "\n");
    }
}

LadderScreen::LadderScreen(const std::vector<std::string>& instruments)
{
    for (const std::string& instrument : instruments)
    {
        m_shown.emplace_back().name = instrument;
    }
}

void LadderScreen::OnName(std::size_t instrument, const std::string& name)
{
    m_shown.at(instrument).name = name;
    m_shown.at(instrument).isThere = true;
    m_hasNames = true;
}

void LadderScreen::OnDigits(std::size_t instrument, unsigned digits)
{
    PriceFormat& format = m_shown.at(instrument).view.format;
    format.fractionDigits = std::clamp<std::uint32_t>(digits, format.fractionDigits, kPriceDecimals);
}

void LadderScreen::OnBook(std::size_t instrument, const Book& book)
{
    m_shown.at(instrument).view.book = book.MakeMergedBook();
    m_shown.at(instrument).isOld = false;
    ++m_updates;
}

void LadderScreen::OnTrades(std::size_t instrument, const boost::json::object& message)
{
    ++m_updates;
    const boost::json::value* const trades = message.if_contains("trades");
    if (trades == nullptr || !trades->is_array() || trades->get_array().empty() ||
        !trades->get_array().back().is_object())
    {
        return;
    }
    const boost::json::object& last = trades->get_array().back().get_object();
    const auto price = ParsePrice(ReadText(last, "price"));
    const auto quantity = ParseQuantity(ReadText(last, "quantity"));
    if (!price || !quantity)
    {
        return;
    }
    Trade trade;
    trade.price = *price;
    trade.quantity = *quantity;
    const boost::json::value* const side = last.if_contains("aggressor");
    trade.aggressor = side == nullptr || !side->is_string() ? Trade::Aggressor::Unknown
                      : side->get_string() == "buyer"       ? Trade::Aggressor::Buyer
                                                            : Trade::Aggressor::Seller;
    m_shown.at(instrument).view.lastTrade = trade;
}

void LadderScreen::OnLost()
{
    for (Shown& shown : m_shown)
    {
        shown.isOld = shown.view.book != nullptr;
    }
}

std::vector<std::string> LadderScreen::Render(const std::string& footer, const ScreenSize& size, bool hasColors) const
{
    std::vector<LadderView> views;
    for (const Shown& shown : m_shown)
    {
        if (shown.isThere)
        {
            views.push_back(shown.view);
            views.back().name = shown.name + (shown.isOld ? " OLD" : "");
        }
    }
    return RenderLadders(views, footer, size, hasColors);
}

} // namespace ps_ns::price_client
