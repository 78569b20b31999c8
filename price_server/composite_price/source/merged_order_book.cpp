#include "composite_price/merged_order_book.h"

#include <algorithm>

namespace ps_ns
{
namespace
{

void CopyLevels(const BookSide<MergedOrderBook::Level>& from, BookSide<MergedOrderBook::Level>& to)
{
    to.count = std::min(from.count, to.depth);
    std::copy_n(from.GetLevels().begin(), to.count, to.GetStorage().begin());
}

bool HaveEqualLevels(const BookSide<MergedOrderBook::Level>& a, const BookSide<MergedOrderBook::Level>& b)
{
    return std::equal(a.GetLevels().begin(), a.GetLevels().end(), b.GetLevels().begin(), b.GetLevels().end());
}

} // namespace

MergedOrderBook::~MergedOrderBook() = default;

std::shared_ptr<MergedOrderBook> MergedOrderBook::Cut(std::uint32_t levels) const
{
    const std::uint32_t room = std::max(levels, 1U);
    auto cut = std::make_shared<MergedOrderBook>(room, room);
    CopyLevels(bids, cut->bids);
    CopyLevels(asks, cut->asks);
    cut->missingComponents = missingComponents;
    cut->staleComponents = staleComponents;
    cut->lastTradePrice = lastTradePrice;
    cut->epoch = epoch;
    cut->sequence = sequence;
    cut->exchangeTime_ns = exchangeTime_ns;
    cut->receiveTime_ns = receiveTime_ns;
    cut->venueSequence = venueSequence;
    cut->snapshotReason = snapshotReason;
    return cut;
}

bool MergedOrderBook::ShowsSameAs(const MergedOrderBook& other) const
{
    return HaveEqualLevels(bids, other.bids) && HaveEqualLevels(asks, other.asks) &&
           missingComponents == other.missingComponents && staleComponents == other.staleComponents;
}

} // namespace ps_ns
