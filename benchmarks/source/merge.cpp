#include "clocks.h"
#include "comparison.h"
#include "keep.h"
#include "price_unifier/source/book_merger.h"
#include "sample_books.h"

#include <algorithm>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <vector>

namespace compare
{
namespace
{

using ps_ns::BookMerger;
using ps_ns::CompositeComponentType;
using ps_ns::MergedOrderBook;
using Merged = MergedOrderBook::Level;

constexpr std::size_t kBooks = 64;
constexpr int kTimes = 200;

/// Both components' levels, best first, as the floors would keep them.
struct FlatBook
{
    std::vector<Merged> bids;
    std::vector<Merged> asks;
};

FlatBook MakeFlat(const ps_ns::BookUpdate& image, bool isImplied)
{
    FlatBook book;
    for (const auto& change : image.changes)
    {
        auto& side = change.side == ps_ns::BookSideType::Bid ? book.bids : book.asks;
        side.push_back({change.price, isImplied ? 0 : change.quantity, isImplied ? change.quantity : 0, 1});
    }
    std::sort(book.bids.begin(), book.bids.end(), [](const Merged& a, const Merged& b) { return a.price > b.price; });
    std::sort(book.asks.begin(), book.asks.end(), [](const Merged& a, const Merged& b) { return a.price < b.price; });
    return book;
}

/// Two pointers, each level looked at once, into the storage of the result; the least that a merge can do.
template <class Better>
std::uint32_t MergeWithTwoPointers(const std::vector<Merged>& a, const std::vector<Merged>& b, Merged* out,
                                   std::uint32_t room, Better better)
{
    const Merged* first = a.data();
    const Merged* const firstEnd = first + a.size();
    const Merged* second = b.data();
    const Merged* const secondEnd = second + b.size();
    std::uint32_t count = 0;
    while (count < room && first != firstEnd && second != secondEnd)
    {
        if (first->price == second->price)
        {
            out[count++] = {first->price, first->directQuantity, second->impliedQuantity,
                            first->orderCount + second->orderCount};
            ++first;
            ++second;
        }
        else
        {
            out[count++] = better(first->price, second->price) ? *first++ : *second++;
        }
    }
    for (; count < room && first != firstEnd; ++first)
    {
        out[count++] = *first;
    }
    for (; count < room && second != secondEnd; ++second)
    {
        out[count++] = *second;
    }
    return count;
}

/// The standard library's merge, then equal neighbours added up.
template <class Better>
std::uint32_t MergeWithStd(const std::vector<Merged>& a, const std::vector<Merged>& b, Merged* out, std::uint32_t room,
                           Better better)
{
    Merged all[4 * kLevels];
    Merged* const end = std::merge(a.begin(), a.end(), b.begin(), b.end(), all,
                                   [&](const Merged& x, const Merged& y) { return better(x.price, y.price); });
    std::uint32_t count = 0;
    for (const Merged* level = all; level != end; ++level)
    {
        if (count != 0 && out[count - 1].price == level->price)
        {
            out[count - 1].directQuantity += level->directQuantity;
            out[count - 1].impliedQuantity += level->impliedQuantity;
            out[count - 1].orderCount += level->orderCount;
        }
        else if (count == room)
        {
            break;
        }
        else
        {
            out[count++] = *level;
        }
    }
    return count;
}

template <class Better>
std::uint32_t MergeInAMap(const std::vector<Merged>& a, const std::vector<Merged>& b, Merged* out, std::uint32_t room,
                          Better)
{
    std::map<std::int64_t, Merged, Better> levels;
    for (const std::vector<Merged>* const side : {&a, &b})
    {
        for (const Merged& level : *side)
        {
            Merged& merged = levels[level.price];
            merged.price = level.price;
            merged.directQuantity += level.directQuantity;
            merged.impliedQuantity += level.impliedQuantity;
            merged.orderCount += level.orderCount;
        }
    }
    std::uint32_t count = 0;
    for (auto level = levels.begin(); level != levels.end() && count < room; ++level)
    {
        out[count++] = level->second;
    }
    return count;
}

struct Pair
{
    FlatBook direct;
    FlatBook implied;
    BookMerger merger;
};

using Pairs = std::vector<std::unique_ptr<Pair>>;

Pairs MakePairs()
{
    Pairs pairs;
    for (std::size_t i = 0; i < kBooks; ++i)
    {
        auto pair = std::make_unique<Pair>();
        const auto turn = static_cast<std::int64_t>(i);
        pair->direct = MakeFlat(MakeImage(0, turn), false);
        pair->implied = MakeFlat(MakeImage(1, turn * 5 + 1), true);
        pair->merger.Apply(CompositeComponentType::Direct, MakeImage(0, turn));
        pair->merger.Apply(CompositeComponentType::Implied, MakeImage(1, turn * 5 + 1));
        pairs.push_back(std::move(pair));
    }
    return pairs;
}

template <class Merge>
Alternative MergeAll(const std::string& name, const Pairs& pairs, Merge merge)
{
    return {name, [&pairs, merge]
            {
                MergedOrderBook book(kLevels, kLevels);
                const double time_ns = MeasureCpu_ns(
                    [&]
                    {
                        for (int time = 0; time < kTimes; ++time)
                        {
                            for (const auto& pair : pairs)
                            {
                                merge(*pair, book);
                                Keep(book);
                            }
                        }
                    });
                return Figures{{"a merge of both sides, ns", time_ns / (kTimes * static_cast<double>(kBooks))}};
            }};
}

} // namespace

void CompareMerge(Runner& runner)
{
    const Pairs pairs = MakePairs();
    const auto with = [](auto mergeSide)
    {
        return [mergeSide](const Pair& pair, MergedOrderBook& book)
        {
            book.bids.count = mergeSide(pair.direct.bids, pair.implied.bids, book.bids.GetStorage().data(), kLevels,
                                        std::greater<std::int64_t>());
            book.asks.count = mergeSide(pair.direct.asks, pair.implied.asks, book.asks.GetStorage().data(), kLevels,
                                        std::less<std::int64_t>());
        };
    };
    runner.Run(
        {"merge",
         "two books of ten levels a side",
         {MergeAll("BookMerger", pairs, [](const Pair& pair, MergedOrderBook& book) { pair.merger.Merge(book); }),
          MergeAll("floor: two pointers", pairs, with([](auto&&... a) { return MergeWithTwoPointers(a...); })),
          MergeAll("std::merge", pairs, with([](auto&&... a) { return MergeWithStd(a...); })),
          MergeAll("std::map, built anew", pairs, with([](auto&&... a) { return MergeInAMap(a...); }))}});
}

} // namespace compare
