#include "composite_price/fixed_point.h"
#include "price_unifier/source/book_merger.h"

#include <benchmark/benchmark.h>

#include <functional>
#include <map>

using namespace ps_ns;

namespace
{

constexpr int kLevels = 10;

/// Ten levels a side; `offset` shifts every other price, so that half the levels of two such books meet.
BookUpdate MakeImage(std::int64_t offset)
{
    BookUpdate image;
    image.isImage = true;
    for (int i = 0; i < kLevels; ++i)
    {
        const std::int64_t step = (i * 2 + (i % 2) * offset) * kPriceUnitsPerOne / 100;
        image.changes.push_back({100 * kPriceUnitsPerOne - step, kQuantityUnitsPerOne * (i + 1), 1, BookSideType::Bid});
        image.changes.push_back({101 * kPriceUnitsPerOne + step, kQuantityUnitsPerOne * (i + 1), 1, BookSideType::Ask});
    }
    return image;
}

void MergeTwoBooks(benchmark::State& state)
{
    BookMerger merger;
    merger.Apply(CompositeComponentType::Direct, MakeImage(0));
    merger.Apply(CompositeComponentType::Implied, MakeImage(1));
    MergedOrderBook book(kLevels, kLevels);
    for (auto _ : state)
    {
        merger.Merge(book);
        benchmark::DoNotOptimize(book);
    }
}
BENCHMARK(MergeTwoBooks);

/// The peer: two sorted books joined in a std::map that is built anew.
void MergeTwoBooksInAMap(benchmark::State& state)
{
    const BookUpdate first = MakeImage(0);
    const BookUpdate second = MakeImage(1);
    for (auto _ : state)
    {
        std::map<std::int64_t, MergedOrderBook::Level, std::greater<>> bids;
        std::map<std::int64_t, MergedOrderBook::Level> asks;
        const auto add = [](auto& levels, const BookUpdate::Change& change)
        {
            MergedOrderBook::Level& level = levels[change.price];
            level.price = change.price;
            level.directQuantity += change.quantity;
        };
        for (const BookUpdate* const book : {&first, &second})
        {
            for (const BookUpdate::Change& change : book->changes)
            {
                change.side == BookSideType::Bid ? add(bids, change) : add(asks, change);
            }
        }
        benchmark::DoNotOptimize(bids);
        benchmark::DoNotOptimize(asks);
    }
}
BENCHMARK(MergeTwoBooksInAMap);

/// One level changes near the top of a deep book.
void ApplyOneChange(benchmark::State& state)
{
    ComponentBook book;
    BookUpdate image;
    image.isImage = true;
    for (std::int64_t i = 0; i < state.range(0); ++i)
    {
        image.changes.push_back({1000 * kPriceUnitsPerOne - i * kPriceUnitsPerOne / 100, 1, 0, BookSideType::Bid});
    }
    book.Apply(image);
    BookUpdate update;
    update.changes = {{999 * kPriceUnitsPerOne + 5, 1, 0, BookSideType::Bid}};
    BookUpdate removal = update;
    removal.changes[0].quantity = 0;
    for (auto _ : state)
    {
        book.Apply(update);
        book.Apply(removal);
    }
    state.SetItemsProcessed(state.iterations() * 2);
}
BENCHMARK(ApplyOneChange)->Arg(10)->Arg(1000)->Arg(4600);

} // namespace

BENCHMARK_MAIN();
