#include "mds/feed_book.h"

#include <algorithm>

namespace ps_ns
{
namespace
{

/// Appends one side, best first.
void Append(const LevelTable& levels, BookSideType side, std::vector<BookUpdate::Change>& changes)
{
    const auto begin = static_cast<std::ptrdiff_t>(changes.size());
    levels.ForEach(
        [&](const OrderBook::Level& level) {
            changes.push_back({level.price, level.quantity, level.orderCount, side});
        });
    using Change = BookUpdate::Change;
    if (side == BookSideType::Bid)
    {
        std::sort(changes.begin() + begin, changes.end(),
                  [](const Change& a, const Change& b) { return a.price > b.price; });
    }
    else
    {
        std::sort(changes.begin() + begin, changes.end(),
                  [](const Change& a, const Change& b) { return a.price < b.price; });
    }
}

} // namespace

void FeedBook::Apply(std::span<const BookUpdate::Change> changes, bool isImage)
{
    if (m_isSorted)
    {
        m_sorted.Apply(changes, isImage);
        return;
    }
    if (isImage)
    {
        const auto isBid = [](const BookUpdate::Change& change) { return change.side == BookSideType::Bid; };
        const auto bids = static_cast<std::size_t>(std::count_if(changes.begin(), changes.end(), isBid));
        m_bids.Clear(bids);
        m_asks.Clear(changes.size() - bids);
    }
    constexpr std::size_t kAhead = 8; // as long as memory takes
    for (std::size_t i = 0; i < changes.size(); ++i)
    {
        if (i + kAhead < changes.size())
        {
            const BookUpdate::Change& later = changes[i + kAhead];
            (later.side == BookSideType::Bid ? m_bids : m_asks).Prefetch(later.price);
        }
        const BookUpdate::Change& change = changes[i];
        (change.side == BookSideType::Bid ? m_bids : m_asks).Set({change.price, change.quantity, change.orderCount});
    }
}

void FeedBook::WriteImage(std::vector<BookUpdate::Change>& changes) const
{
    if (m_isSorted)
    {
        m_sorted.WriteImage(changes);
        return;
    }
    changes.clear();
    changes.reserve(m_bids.GetSize() + m_asks.GetSize());
    Append(m_bids, BookSideType::Bid, changes);
    Append(m_asks, BookSideType::Ask, changes);
}

void FeedBook::Sort()
{
    std::vector<BookUpdate::Change> image;
    WriteImage(image);
    m_sorted.Apply(image, true);
    m_isSorted = true;
    m_bids = {};
    m_asks = {};
}

} // namespace ps_ns
