#include "mds/level_book.h"

#include <algorithm>

namespace ps_ns
{

/// The first level whose key is not below `key`. Most changes are near the top: a few levels are looked at one by one
/// before the rest is halved.
std::size_t LevelSide::FindPlace(std::int64_t key) const noexcept
{
    constexpr std::size_t kLookedAtFirst = 8;
    std::size_t at = m_levels.size();
    const std::size_t stop = at > kLookedAtFirst ? at - kLookedAtFirst : 0;
    while (at > stop && Key(m_levels[at - 1].price) >= key)
    {
        --at;
    }
    if (at > stop || stop == 0)
    {
        return at;
    }
    const auto end = m_levels.begin() + static_cast<std::ptrdiff_t>(stop);
    const auto place =
        std::lower_bound(m_levels.begin(), end, key,
                         [this](const BookLevel& level, std::int64_t wanted) { return Key(level.price) < wanted; });
    return static_cast<std::size_t>(place - m_levels.begin());
}

void LevelSide::Set(const BookLevel& level)
{
    const std::size_t place = FindPlace(Key(level.price));
    const auto at = m_levels.begin() + static_cast<std::ptrdiff_t>(place);
    const bool isThere = place < m_levels.size() && at->price == level.price;
    if (level.quantity == 0)
    {
        if (isThere)
        {
            m_levels.erase(at);
        }
    }
    else if (isThere)
    {
        *at = level;
    }
    else
    {
        m_levels.insert(at, level);
    }
}

void LevelSide::Sort()
{
    // Best first, as images come, turns into sorted; and what was appended last now stands first among equals.
    std::reverse(m_levels.begin(), m_levels.end());
    const auto isBefore = [this](const BookLevel& a, const BookLevel& b) { return Key(a.price) < Key(b.price); };
    if (!std::is_sorted(m_levels.begin(), m_levels.end(), isBefore))
    {
        std::stable_sort(m_levels.begin(), m_levels.end(), isBefore);
    }
    const auto isSame = [](const BookLevel& a, const BookLevel& b) { return a.price == b.price; };
    m_levels.erase(std::unique(m_levels.begin(), m_levels.end(), isSame), m_levels.end());
    std::erase_if(m_levels, [](const BookLevel& level) { return level.quantity == 0; });
}

void LevelBook::Apply(std::span<const BookUpdate::Change> changes, bool isImage)
{
    if (!isImage)
    {
        for (const BookUpdate::Change& change : changes)
        {
            Side(change.side).Set({change.price, change.quantity, change.orderCount});
        }
        return;
    }
    m_bids.Clear();
    m_asks.Clear();
    for (const BookUpdate::Change& change : changes)
    {
        Side(change.side).Append({change.price, change.quantity, change.orderCount});
    }
    m_bids.Sort();
    m_asks.Sort();
}

void LevelBook::WriteImage(std::vector<BookUpdate::Change>& changes) const
{
    changes.clear();
    changes.reserve(m_bids.GetSize() + m_asks.GetSize());
    for (const BookSideType side : {BookSideType::Bid, BookSideType::Ask})
    {
        const LevelSide& levels = GetSide(side);
        for (std::size_t rank = 0; rank < levels.GetSize(); ++rank)
        {
            const BookLevel& level = levels.Get(rank);
            changes.push_back({level.price, level.quantity, level.orderCount, side});
        }
    }
}

} // namespace ps_ns
