#include "broker/book_client.h"

#include "composite_price/fixed_point.h"

#include <sstream>

namespace ps_ns::broker_soak
{
namespace
{

bool IsSame(const BookSide<MergedOrderBook::Level>& shown, const LevelSide& levels)
{
    if (shown.count != levels.GetSize())
    {
        return false;
    }
    for (std::uint32_t rank = 0; rank < shown.count; ++rank)
    {
        const MergedOrderBook::Level& level = shown.GetLevels()[rank];
        if (level.price != levels.Get(rank).price || level.directQuantity != levels.Get(rank).quantity ||
            level.impliedQuantity != 0)
        {
            return false;
        }
    }
    return true;
}

} // namespace

bool BookClient::Shows(const LevelBook& book) const
{
    const std::lock_guard lock(m_mutex);
    return m_book != nullptr && IsSame(m_book->bids, book.GetSide(BookSideType::Bid)) &&
           IsSame(m_book->asks, book.GetSide(BookSideType::Ask));
}

bool BookClient::IsStale() const
{
    const std::lock_guard lock(m_mutex);
    return m_book != nullptr && !m_book->staleComponents.empty();
}

std::string BookClient::Describe(const LevelBook& book) const
{
    const std::lock_guard lock(m_mutex);
    std::ostringstream text;
    text << "published " << book.GetSide(BookSideType::Bid).GetSize() << "/"
         << book.GetSide(BookSideType::Ask).GetSize() << " levels, shown ";
    if (m_book == nullptr)
    {
        text << "no book";
    }
    else
    {
        text << m_book->bids.count << "/" << m_book->asks.count << " at epoch " << m_book->epoch << " sequence "
             << m_book->sequence;
    }
    text << ", " << m_books.load() << " books, " << m_failures.load() << " failures";
    return text.str();
}

void BookClient::OnSubscribe(unsigned long, const CompositeInstrumentDef&, const EventInfo&, Result result,
                             unsigned long, const PriceFormat&, CompositeComponentType::Type,
                             const CompositeSubscriptionState&)
{
    if (result != ps_messages_ns::SubscriptionResult::Success)
    {
        m_failures.fetch_add(1);
    }
}

void BookClient::OnOrderBook(unsigned long, const CompositeInstrumentDef&,
                             const std::shared_ptr<const MergedOrderBook>& book)
{
    const std::lock_guard lock(m_mutex);
    if (m_book != nullptr && (book->epoch < m_book->epoch || book->sequence <= m_book->sequence))
    {
        m_faults.fetch_add(1);
    }
    m_book = book;
    m_books.fetch_add(1);
    if (onBook)
    {
        onBook(*book);
    }
}

CompositeInstrumentDef MakeFlowDefinition(std::size_t instrument)
{
    CompositeInstrumentDef def;
    def.marketId = kMarketId;
    def.instrument = {GetSymbol(instrument), kMarket};
    def.instrumentId = instrument + 1;
    def.components = {true, false, false};
    return def;
}

CompositeSubscriptionInfo MakeWholeScope()
{
    constexpr std::int32_t kMaximum = -1;
    return {kMaximum, 0, false, false};
}

} // namespace ps_ns::broker_soak
