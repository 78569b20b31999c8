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

std::int64_t AddSaturated(std::int64_t a, std::int64_t b) noexcept
{
    std::int64_t sum = 0;
    return __builtin_add_overflow(a, b, &sum) ? std::numeric_limits<std::int64_t>::max() : sum;
}

/// What is left to merge of one component's side: from `first` to `end`, of which the best level, no hole, is the last.
struct Rest
{
    Rest() = default;
    Rest(bool belongsToImplied, const Levels& levels) noexcept
        : isImplied(belongsToImplied)
        , first(levels.data())
        , end(levels.data() + levels.size())
    {
        SkipHoles();
    }

    bool IsEmpty() const noexcept { return first == end; }
    const OrderBook::Level& GetBest() const noexcept { return end[-1]; }
    void DropBest() noexcept
    {
        --end;
        SkipHoles();
    }
    void SkipHoles() noexcept
    {
        while (end != first && end[-1].quantity == 0)
        {
            --end;
        }
    }

    bool isImplied = false;
    const OrderBook::Level* first = nullptr;
    const OrderBook::Level* end = nullptr;
};

MergedLevel ToMerged(const OrderBook::Level& level, bool isImplied) noexcept
{
    // By a mask, not by a branch: which component a level comes from is what no processor can foresee.
    const std::int64_t implied = isImplied ? -1 : 0;
    return {level.price, level.quantity & ~implied, level.quantity & implied, level.orderCount};
}

void AddTo(MergedLevel& merged, const OrderBook::Level& level, bool isImplied) noexcept
{
    std::int64_t& quantity = isImplied ? merged.impliedQuantity : merged.directQuantity;
    quantity = AddSaturated(quantity, level.quantity);
    merged.orderCount += level.orderCount;
}

/// Where merged levels go, until the storage is full.
struct Storage
{
    bool IsFull() const noexcept { return next == end; }

    MergedLevel* next;
    MergedLevel* end;
};

void TakeAll(Rest rest, Storage& out) noexcept
{
    for (; !out.IsFull() && !rest.IsEmpty(); rest.DropBest())
    {
        *out.next++ = ToMerged(rest.GetBest(), rest.isImplied);
    }
}

/// `better(a, b)`: price a comes before price b.
template <class Better>
void MergeTwo(Rest a, Rest b, Storage& out, Better better) noexcept
{
    while (!out.IsFull() && !a.IsEmpty() && !b.IsEmpty())
    {
        const OrderBook::Level& bestOfA = a.GetBest();
        const OrderBook::Level& bestOfB = b.GetBest();
        if (bestOfA.price == bestOfB.price)
        {
            *out.next = ToMerged(bestOfA, a.isImplied);
            AddTo(*out.next++, bestOfB, b.isImplied);
            a.DropBest();
            b.DropBest();
        }
        else if (better(bestOfA.price, bestOfB.price))
        {
            *out.next++ = ToMerged(bestOfA, a.isImplied);
            a.DropBest();
        }
        else
        {
            *out.next++ = ToMerged(bestOfB, b.isImplied);
            b.DropBest();
        }
    }
    TakeAll(a, out);
    TakeAll(b, out);
}

template <class Better>
void MergeMore(std::span<Rest> rests, Storage& out, Better better) noexcept
{
    while (!out.IsFull())
    {
        const OrderBook::Level* best = nullptr;
        for (const Rest& rest : rests)
        {
            if (!rest.IsEmpty() && (best == nullptr || better(rest.GetBest().price, best->price)))
            {
                best = &rest.GetBest();
            }
        }
        if (best == nullptr)
        {
            return;
        }
        MergedLevel merged{best->price, 0, 0, 0};
        for (Rest& rest : rests)
        {
            if (!rest.IsEmpty() && rest.GetBest().price == merged.price)
            {
                AddTo(merged, rest.GetBest(), rest.isImplied);
                rest.DropBest();
            }
        }
        *out.next++ = merged;
    }
}

/// Merges from the best level on until the storage is full; returns how many levels came out.
template <class Better>
std::uint32_t MergeSide(std::span<Rest> rests, std::span<MergedLevel> storage, Better better) noexcept
{
    Storage out{storage.data(), storage.data() + storage.size()};
    switch (rests.size())
    {
    case 0:
        break;
    case 1:
        TakeAll(rests[0], out);
        break;
    case 2:
        MergeTwo(rests[0], rests[1], out, better);
        break;
    default:
        MergeMore(rests, out, better);
        break;
    }
    return static_cast<std::uint32_t>(out.next - storage.data());
}

} // namespace

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
    for (ComponentBook& component : m_components)
    {
        component.Expose(book.bids.depth);
    }
    std::array<Rest, CompositeComponentType::kCount> rests;
    const auto fill = [&](auto getLevels)
    {
        std::size_t used = 0;
        for (std::size_t component = 0; component < m_components.size(); ++component)
        {
            const Levels& levels = getLevels(m_components[component]);
            if (!levels.empty())
            {
                rests[used++] = Rest(component == CompositeComponentType::Implied, levels);
            }
        }
        return std::span(rests).first(used);
    };
    const auto bids = fill([](const ComponentBook& component) -> const Levels& { return component.GetBids().levels; });
    book.bids.count = MergeSide(bids, book.bids.GetStorage(), std::greater<>());
    const auto asks = fill([](const ComponentBook& component) -> const Levels& { return component.GetAsks().levels; });
    book.asks.count = MergeSide(asks, book.asks.GetStorage(), std::less<>());
}

} // namespace ps_ns
