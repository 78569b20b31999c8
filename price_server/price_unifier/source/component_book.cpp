#include "price_unifier/source/component_book.h"

#include <algorithm>
#include <functional>
#include <utility>

namespace ps_ns
{
namespace
{

using Side = ComponentBook::Side;
using Levels = ComponentBook::Levels;
using Place = Levels::iterator;

/// Nearer to the top than this, levels move; further away, holes are made and looked for, this far to either side.
constexpr std::ptrdiff_t kNear = 48;

void RemoveHoles(Side& side)
{
    if (side.holes != 0)
    {
        std::erase_if(side.levels, [](const OrderBook::Level& level) { return level.quantity == 0; });
        side.holes = 0;
    }
}

void RemoveLevel(Side& side, Place at)
{
    if (side.levels.end() - at <= kNear)
    {
        side.levels.erase(at);
    }
    else
    {
        at->quantity = 0;
        ++side.holes;
    }
    if (2 * side.holes > side.levels.size())
    {
        RemoveHoles(side);
    }
}

/// Inserts before `at`, into a hole if there is one near.
void InsertLevel(Side& side, Place at, const OrderBook::Level& level)
{
    const auto isHole = [](const OrderBook::Level& other) { return other.quantity == 0; };
    if (side.holes != 0 && side.levels.end() - at > kNear)
    {
        const Place above = std::find_if(at, at + kNear, isHole);
        if (above != at + kNear)
        {
            std::move_backward(at, above, above + 1);
            *at = level;
            --side.holes;
            return;
        }
        const Place below = at - std::min(kNear, at - side.levels.begin());
        for (Place hole = at; hole != below;)
        {
            if (isHole(*--hole))
            {
                std::move(hole + 1, at, hole);
                *(at - 1) = level;
                --side.holes;
                return;
            }
        }
    }
    side.levels.insert(at, level);
}

/// The first level that is not worse than `price`. Without a branch for each step: which way it goes is what no
/// processor can foresee.
template <class Worse>
Place FindPlace(Levels& levels, std::int64_t price, Worse worse) noexcept
{
    Place at = levels.begin();
    for (auto left = static_cast<std::size_t>(levels.end() - at); left != 0;)
    {
        const std::size_t half = (left + 1) / 2;
        const std::size_t isFurther = worse(at[static_cast<std::ptrdiff_t>(half) - 1].price, price) ? 1 : 0;
        at += static_cast<std::ptrdiff_t>(half & (0 - isFurther));
        left -= half;
    }
    return at;
}

/// Sets the whole quantity at a price in levels sorted by `Worse` (worst first).
template <class Worse>
void SetLevel(Side& side, const OrderBook::Level& level, Worse worse)
{
    const Place at = FindPlace(side.levels, level.price, worse);
    const bool found = at != side.levels.end() && at->price == level.price;
    if (!found)
    {
        if (level.quantity != 0)
        {
            InsertLevel(side, at, level);
        }
    }
    else if (level.quantity != 0)
    {
        side.holes -= at->quantity == 0 ? 1U : 0U;
        *at = level;
    }
    else if (at->quantity != 0)
    {
        RemoveLevel(side, at);
    }
}

/// Moves the worst levels to the rest when there are too many near the top.
void MoveAwayWhatIsTooMuch(Side& side)
{
    const std::size_t kept = side.GetKept();
    if (side.levels.size() <= 2 * kept)
    {
        return;
    }
    RemoveHoles(side);
    if (side.levels.size() <= kept)
    {
        return;
    }
    if (side.rest == nullptr)
    {
        side.rest = std::make_unique<ComponentBook::Rest>(ComponentBook::Rest{kept, {}, 0});
    }
    side.rest->levels.Reserve(side.levels.size() - kept);
    const Place bound = side.levels.end() - static_cast<std::ptrdiff_t>(kept);
    for (Place level = side.levels.begin(); level != bound; ++level)
    {
        side.rest->levels.Set(*level);
    }
    side.rest->bound = bound->price;
    side.levels.erase(side.levels.begin(), bound);
}

/// Moves the best levels of the rest to those near the top, so that these are as many as are kept, or all.
template <class Worse>
void MoveBack(Side& side, std::size_t depth, Worse worse)
{
    // So many that not the next level that goes makes it necessary again.
    const std::size_t kept = side.rest->kept = std::max(side.rest->kept, 2 * depth);
    RemoveHoles(side);
    LevelTable& rest = side.rest->levels;
    Levels moved;
    moved.reserve(rest.GetSize());
    rest.ForEach([&](const OrderBook::Level& level) { moved.push_back(level); });
    const auto isBetter = [&](const OrderBook::Level& a, const OrderBook::Level& b) { return worse(b.price, a.price); };
    const std::size_t wanted = kept - side.levels.size();
    if (moved.size() > wanted)
    {
        std::nth_element(moved.begin(), moved.begin() + static_cast<std::ptrdiff_t>(wanted), moved.end(), isBetter);
        moved.resize(wanted);
    }
    std::sort(moved.begin(), moved.end(), isBetter);
    side.levels.insert(side.levels.begin(), moved.rbegin(), moved.rend());
    side.rest->bound = moved.back().price;
    for (const OrderBook::Level& level : moved)
    {
        rest.Set({level.price, 0, 0});
    }
}

bool HasRest(const Side& side) noexcept
{
    return side.rest != nullptr && !side.rest->levels.IsEmpty();
}

template <class Worse>
void Set(Side& side, const BookUpdate::Change& change, Worse worse)
{
    const OrderBook::Level level{change.price, change.quantity, change.orderCount};
    if (HasRest(side) && worse(change.price, side.rest->bound))
    {
        side.rest->levels.Set(level);
        return;
    }
    SetLevel(side, level, worse);
    MoveAwayWhatIsTooMuch(side);
}

/// Brings the levels of an image, as they came, into the order `worse`: venues send the best first, which only has to
/// be turned round. Of several at one price the last one counts, and a quantity of zero is no level.
template <class Worse>
void Arrange(Levels& levels, Worse worse)
{
    const auto byPrice = [&](const OrderBook::Level& a, const OrderBook::Level& b) { return worse(a.price, b.price); };
    std::reverse(levels.begin(), levels.end());
    if (!std::is_sorted(levels.begin(), levels.end(), byPrice))
    {
        std::stable_sort(levels.begin(), levels.end(), byPrice);
    }
    // Reversed, the last of equal prices comes first: std::unique keeps it.
    levels.erase(std::unique(levels.begin(), levels.end(),
                             [](const OrderBook::Level& a, const OrderBook::Level& b) { return a.price == b.price; }),
                 levels.end());
    std::erase_if(levels, [](const OrderBook::Level& level) { return level.quantity == 0; });
}

} // namespace

void ComponentBook::Apply(const BookUpdate& update)
{
    if (update.isImage)
    {
        Load(update);
        return;
    }
    constexpr std::size_t kAhead = 8; // as long as memory takes
    const std::vector<BookUpdate::Change>& changes = update.changes;
    for (std::size_t i = 0; i < changes.size(); ++i)
    {
        if (i + kAhead < changes.size())
        {
            const BookUpdate::Change& later = changes[i + kAhead];
            if (const Rest* const rest = (later.side == BookSideType::Bid ? m_bids : m_asks).rest.get())
            {
                rest->levels.Prefetch(later.price);
            }
        }
        Apply(changes[i]);
    }
}

void ComponentBook::Load(const BookUpdate& image)
{
    Clear();
    for (const BookUpdate::Change& change : image.changes)
    {
        Levels& levels = change.side == BookSideType::Bid ? m_bids.levels : m_asks.levels;
        levels.push_back({change.price, change.quantity, change.orderCount});
    }
    Arrange(m_bids.levels, std::less<>());
    Arrange(m_asks.levels, std::greater<>());
    MoveAwayWhatIsTooMuch(m_bids);
    MoveAwayWhatIsTooMuch(m_asks);
}

void ComponentBook::Apply(const BookUpdate::Change& change)
{
    if (change.side == BookSideType::Bid)
    {
        Set(m_bids, change, std::less<>());
    }
    else
    {
        Set(m_asks, change, std::greater<>());
    }
}

void ComponentBook::Clear() noexcept
{
    for (Side* const side : {&m_bids, &m_asks})
    {
        side->levels.clear();
        side->holes = 0;
        if (side->rest != nullptr)
        {
            side->rest->levels.Clear();
        }
    }
}

void ComponentBook::Fill(std::size_t depth)
{
    if (IsShort(m_bids, depth))
    {
        MoveBack(m_bids, depth, std::less<>());
    }
    if (IsShort(m_asks, depth))
    {
        MoveBack(m_asks, depth, std::greater<>());
    }
}

} // namespace ps_ns
