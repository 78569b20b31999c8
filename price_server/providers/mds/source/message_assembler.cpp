#include "mds/message_assembler.h"

#include <algorithm>

namespace ps_ns
{

MessageAssembler::MessageAssembler(RecordingReader& reader, const InstrumentNames& names, ProblemLog& problems)
    : m_reader(reader)
    , m_names(names)
    , m_problems(problems)
{
}

bool MessageAssembler::Next(MarketMessage& message)
{
    message.Clear();
    if (!NextRow())
    {
        return false;
    }
    message.instrument = m_rowInstrument;
    message.receiveTime_ns = m_row.receiveTime_ns;
    message.exchangeTime_ns = m_row.exchangeTime_ns;
    message.venueSequence = m_row.venueSequence;
    for (;;)
    {
        Append(message);
        m_hasRow = false;
        if (m_row.isLast || AppendAlike(message))
        {
            return true;
        }
        const std::uint64_t line = m_reader.GetLine();
        if (!NextRow() || !IsOf(message))
        {
            m_problems.Report(ProblemKind::CutMessage, line, m_lastName);
            return true;
        }
    }
}

bool MessageAssembler::NextRow()
{
    while (!m_hasRow && m_reader.Next(m_row))
    {
        if (!m_row.isAlike)
        {
            m_rowInstrument = Find(m_row.instrument);
        }
        m_hasRow = m_rowInstrument != kNoInstrument;
    }
    return m_hasRow;
}

InstrumentIndex MessageAssembler::Find(std::string_view instrument)
{
    if (instrument != m_lastName)
    {
        const auto found = m_names.find(instrument);
        m_lastInstrument = found == m_names.end() ? kNoInstrument : found->second;
        m_lastName = instrument;
    }
    return m_lastInstrument;
}

bool MessageAssembler::IsOf(const MarketMessage& message) const
{
    return m_rowInstrument == message.instrument && m_row.receiveTime_ns == message.receiveTime_ns &&
           m_row.venueSequence == message.venueSequence;
}

void MessageAssembler::Append(MarketMessage& message)
{
    if (m_row.event == RowEvent::Trade)
    {
        const auto aggressor = m_row.side == 'B'   ? Trade::Aggressor::Buyer
                               : m_row.side == 'S' ? Trade::Aggressor::Seller
                                                   : Trade::Aggressor::Unknown;
        Trade& trade = message.trades.emplace_back();
        trade.price = m_row.price;
        trade.quantity = m_row.quantity;
        trade.exchangeTime_ns = m_row.exchangeTime_ns;
        trade.receiveTime_ns = m_row.receiveTime_ns;
        trade.venueId = m_row.venueSequence;
        trade.aggressor = aggressor;
        return;
    }
    const BookUpdate::Change change{m_row.price, m_row.quantity, 0,
                                    m_row.side == 'B' ? BookSideType::Bid : BookSideType::Ask};
    if (m_row.event == RowEvent::Snap && !message.isImage)
    {
        message.isImage = true;
        message.changes.clear();
    }
    if (m_row.event == RowEvent::Book && message.isImage)
    {
        PutIntoImage(message, change);
        return;
    }
    message.changes.push_back(change);
}

/// Appends the rows that are alike to the one before as long as there are; true: one of them ends the message.
bool MessageAssembler::AppendAlike(MarketMessage& message)
{
    if (message.isImage)
    {
        return false;
    }
    AlikeRow row;
    while (m_reader.NextAlike(row))
    {
        message.changes.push_back(
            {row.price, row.quantity, 0, row.side == 'B' ? BookSideType::Bid : BookSideType::Ask});
        if (row.isLast)
        {
            return true;
        }
    }
    return false;
}

void MessageAssembler::PutIntoImage(MarketMessage& message, const BookUpdate::Change& change)
{
    const auto same = [&](const BookUpdate::Change& level)
    { return level.side == change.side && level.price == change.price; };
    message.changes.erase(std::remove_if(message.changes.begin(), message.changes.end(), same), message.changes.end());
    if (change.quantity != 0)
    {
        message.changes.push_back(change);
    }
}

} // namespace ps_ns
