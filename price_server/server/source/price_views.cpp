#include "server/price_views.h"

#include "server/json_line.h"

#include <algorithm>

namespace ps_ns
{

JsonView::JsonView(const std::vector<ListedInstrument>& instruments, OutputWriter& writer)
    : m_writer(writer)
{
    for (const ListedInstrument& instrument : instruments)
    {
        m_names.push_back({MakeUtf8(instrument.market), MakeUtf8(instrument.entry.symbol)});
    }
}

void JsonView::OnBook(std::size_t instrument, const std::shared_ptr<const MergedOrderBook>& book)
{
    m_writer.Write(FormatBookLine(m_names[instrument].market, m_names[instrument].symbol, *book));
}

void JsonView::OnTrades(std::size_t instrument, const std::vector<Trade>& trades)
{
    m_writer.Write(FormatTradesLine(m_names[instrument].market, m_names[instrument].symbol, trades));
}

LadderState::LadderState(const std::vector<ListedInstrument>& instruments)
{
    for (const ListedInstrument& instrument : instruments)
    {
        LadderView view;
        view.name = instrument.GetName();
        m_views.push_back(std::move(view));
    }
}

void LadderState::OnFormat(std::size_t instrument, const PriceFormat& format)
{
    const std::lock_guard lock(m_mutex);
    PriceFormat& known = m_views[instrument].format;
    if (format.fractionDigits >= known.fractionDigits) // of two components the one with more decimals
    {
        known = format;
    }
}

void LadderState::OnBook(std::size_t instrument, const std::shared_ptr<const MergedOrderBook>& book)
{
    const std::lock_guard lock(m_mutex);
    m_views[instrument].book = book;
    ++m_updates;
}

void LadderState::OnTrades(std::size_t instrument, const std::vector<Trade>& trades)
{
    const std::lock_guard lock(m_mutex);
    if (!trades.empty())
    {
        m_views[instrument].lastTrade = trades.back();
    }
    ++m_updates;
}

std::vector<LadderView> LadderState::GetViews(std::uint64_t& updates) const
{
    const std::lock_guard lock(m_mutex);
    updates = m_updates;
    return m_views;
}

} // namespace ps_ns
