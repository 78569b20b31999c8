#include "price_unifier/source/book_merger.h"

#include <algorithm>
#include <functional>
#include <limits>
#include <span>

namespace ps_ns
{
namespace
{

using Levels = ComponentBook::Levels;
using MergedLevel = MergedOrderBook::Level;

/// Sets the whole quantity at a price in levels sorted by `Worse` (worst first).
template <class Worse>
void SetLevel(Levels& levels, const BookUpdate::Change& change, Worse worse)
{
    const auto at =
        std::lower_bound(levels.begin(), levels.end(), change.price,
                         [&](const OrderBook::Level& level, std::int64_t price) { return worse(level.price, price); });
    const bool found = at != levels.end() && at->price == change.price;
    if (change.quantity == 0)
    {
        if (found)
        {
            levels.erase(at);
        }
        return;
    }
    const OrderBook::Level level{change.price, change.quantity, change.orderCount};
    if (found)
    {
        *at = level;
    }
    else
    {
        levels.insert(at, level);
    }
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

std::int64_t AddSaturated(std::int64_t a, std::int64_t b) noexcept
{
    std::int64_t sum = 0;
    return __builtin_add_overflow(a, b, &sum) ? std::numeric_limits<std::int64_t>::max() : sum;
}

void AddTo(MergedLevel& merged, const OrderBook::Level& level, std::size_t component) noexcept
{
    std::int64_t& quantity =
        component == CompositeComponentType::Implied ? merged.impliedQuantity : merged.directQuantity;
    quantity = AddSaturated(quantity, level.quantity);
    merged.orderCount += level.orderCount;
}

/// What is left to merge of one component's side: its best level is the last.
struct Rest
{
    std::size_t component;
    std::span<const OrderBook::Level> levels;
};

/// Merges from the best level on until the storage is full; returns how many levels came out. `better(a, b)`: price a
/// comes before price b.
template <class Better>
std::uint32_t MergeSide(std::span<Rest> rests, std::span<MergedLevel> out, Better better)
{
    std::size_t count = 0;
    while (count < out.size())
    {
        const OrderBook::Level* best = nullptr;
        for (const Rest& rest : rests)
        {
            if (!rest.levels.empty() && (best == nullptr || better(rest.levels.back().price, best->price)))
            {
                best = &rest.levels.back();
            }
        }
        if (best == nullptr)
        {
            break;
        }
        MergedLevel merged{best->price, 0, 0, 0};
        for (Rest& rest : rests)
        {
            if (!rest.levels.empty() && rest.levels.back().price == merged.price)
            {
                AddTo(merged, rest.levels.back(), rest.component);
                rest.levels = rest.levels.first(rest.levels.size() - 1);
            }
        }
        out[count++] = merged;
    }
    return static_cast<std::uint32_t>(count);
}

} // namespace

void ComponentBook::Apply(const BookUpdate& update)
{
    if (update.isImage)
    {
        Load(update);
        return;
    }
    for (const BookUpdate::Change& change : update.changes)
    {
        Apply(change);
    }
}

void ComponentBook::Load(const BookUpdate& image)
{
    Clear();
    for (const BookUpdate::Change& change : image.changes)
    {
        Levels& levels = change.side == BookSideType::Bid ? m_bids : m_asks;
        levels.push_back({change.price, change.quantity, change.orderCount});
    }
    Arrange(m_bids, std::less<>());
    Arrange(m_asks, std::greater<>());
}

void ComponentBook::Apply(const BookUpdate::Change& change)
{
    if (change.side == BookSideType::Bid)
    {
        SetLevel(m_bids, change, std::less<>());
    }
    else
    {
        SetLevel(m_asks, change, std::greater<>());
    }
}

void ComponentBook::Clear() noexcept
{
    m_bids.clear();
    m_asks.clear();
}

void BookMerger::Apply(CompositeComponentType::Type component, const BookUpdate& update)
{
    m_components[static_cast<std::size_t>(component)].Apply(update);
}

void BookMerger::Clear(CompositeComponentType::Type component) noexcept
{
    m_components[static_cast<std::size_t>(component)].Clear();
}

const ComponentBook& BookMerger::GetComponent(CompositeComponentType::Type component) const
{
    return m_components[static_cast<std::size_t>(component)];
}

void BookMerger::Merge(MergedOrderBook& book) const
{
    std::array<Rest, CompositeComponentType::kCount> rests;
    const auto fill = [&](auto getLevels)
    {
        std::size_t used = 0;
        for (std::size_t component = 0; component < m_components.size(); ++component)
        {
            const Levels& levels = getLevels(m_components[component]);
            if (!levels.empty())
            {
                rests[used++] = {component, levels};
            }
        }
        return std::span(rests).first(used);
    };
    const auto bids = fill([](const ComponentBook& component) -> const Levels& { return component.GetBids(); });
    book.bids.count = MergeSide(bids, book.bids.GetStorage(), std::greater<>());
    const auto asks = fill([](const ComponentBook& component) -> const Levels& { return component.GetAsks(); });
    book.asks.count = MergeSide(asks, book.asks.GetStorage(), std::less<>());
}

} // namespace ps_ns
