#include "price_unifier/source/book_merger.h"

#include "composite_price/fixed_point.h"
#include "testing/recording_observers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <random>

using namespace ps_ns;
using ps_ns::testing::FormatBook;

namespace
{

constexpr auto kBid = BookSideType::Bid;
constexpr auto kAsk = BookSideType::Ask;
constexpr auto kDirect = CompositeComponentType::Direct;
constexpr auto kImplied = CompositeComponentType::Implied;
constexpr auto kAggregated = CompositeComponentType::Aggregated;

BookUpdate::Change Change(BookSideType side, const char* price, const char* quantity, std::uint32_t orders = 0)
{
    return {ParsePrice(price).value(), ParseQuantity(quantity).value(), orders, side};
}

BookUpdate Update(std::vector<BookUpdate::Change> changes, bool isImage = false)
{
    BookUpdate update;
    update.isImage = isImage;
    update.changes = std::move(changes);
    return update;
}

std::string Merge(const BookMerger& merger, std::uint32_t depth = 10)
{
    MergedOrderBook book(depth, depth);
    merger.Merge(book);
    return FormatBook(book);
}

/// The same by the book: a map for each side and component, joined level by level.
class ReferenceMerger
{
public:
    void Apply(CompositeComponentType::Type component, const BookUpdate& update)
    {
        auto& sides = m_sides[static_cast<std::size_t>(component)];
        if (update.isImage)
        {
            sides = {};
        }
        for (const BookUpdate::Change& change : update.changes)
        {
            auto& levels = sides[static_cast<std::size_t>(change.side)];
            levels.erase(change.price);
            if (change.quantity != 0)
            {
                levels[change.price] = {change.quantity, change.orderCount};
            }
        }
    }

    std::vector<MergedOrderBook::Level> Merge(BookSideType side, std::size_t depth) const
    {
        std::map<std::int64_t, MergedOrderBook::Level> joined;
        for (std::size_t component = 0; component < m_sides.size(); ++component)
        {
            for (const auto& [price, level] : m_sides[component][static_cast<std::size_t>(side)])
            {
                MergedOrderBook::Level& merged = joined[price];
                merged.price = price;
                (component == 1 ? merged.impliedQuantity : merged.directQuantity) += level.first;
                merged.orderCount += level.second;
            }
        }
        std::vector<MergedOrderBook::Level> levels;
        for (const auto& [price, level] : joined)
        {
            levels.push_back(level);
        }
        if (side == kBid)
        {
            std::reverse(levels.begin(), levels.end());
        }
        levels.resize(std::min(depth, levels.size()));
        return levels;
    }

private:
    using Side = std::map<std::int64_t, std::pair<std::int64_t, std::uint32_t>>;
    std::array<std::array<Side, 2>, 3> m_sides;
};

void ExpectSame(const BookMerger& merger, const ReferenceMerger& reference, std::uint32_t depth)
{
    MergedOrderBook book(depth, depth);
    merger.Merge(book);
    const auto toVector = [](const auto& side)
    { return std::vector<MergedOrderBook::Level>(side.GetLevels().begin(), side.GetLevels().end()); };
    EXPECT_EQ(toVector(book.bids), reference.Merge(kBid, depth));
    EXPECT_EQ(toVector(book.asks), reference.Merge(kAsk, depth));
}

} // namespace

TEST(BookMerger, PutsTheBestLevelFirstOnBothSides)
{
    BookMerger merger;
    merger.Apply(kDirect, Update({Change(kBid, "9", "1"), Change(kBid, "10", "2"), Change(kAsk, "12", "3"),
                                  Change(kAsk, "11", "4"), Change(kBid, "8.5", "5")}));
    EXPECT_EQ(Merge(merger), "10x2+0 9x1+0 8.5x5+0 | 11x4+0 12x3+0");
}

TEST(BookMerger, KeepsDirectAndImpliedQuantityApartAndAddsTheOrderCounts)
{
    BookMerger merger;
    merger.Apply(kDirect, Update({Change(kBid, "10", "2", 1)}));
    merger.Apply(kImplied, Update({Change(kBid, "10", "3", 2), Change(kBid, "10.5", "1", 0)}));
    merger.Apply(kAggregated, Update({Change(kBid, "10", "4", 4)}));
    MergedOrderBook book(5, 5);
    merger.Merge(book);
    EXPECT_EQ(FormatBook(book), "10.5x0+1 10x6+3 | ");
    EXPECT_EQ(book.bids.GetLevels()[1].orderCount, 7U);
}

TEST(BookMerger, MeetsEqualPricesExactlyHoweverTheyAreSpelled)
{
    BookMerger merger;
    merger.Apply(kDirect, Update({Change(kAsk, "0.1", "1")}));
    merger.Apply(kImplied, Update({Change(kAsk, "0.10000", "1"), Change(kAsk, "0.1000000001", "1")}));
    EXPECT_EQ(Merge(merger), " | 0.1x1+1 0.1000000001x0+1");
}

TEST(BookMerger, RemovesALevelAtZeroAndToleratesRemovingWhatIsNotThere)
{
    BookMerger merger;
    merger.Apply(kDirect, Update({Change(kBid, "10", "2"), Change(kBid, "9", "1")}));
    merger.Apply(kDirect, Update({Change(kBid, "10", "0"), Change(kBid, "7", "0"), Change(kAsk, "1", "0")}));
    EXPECT_EQ(Merge(merger), "9x1+0 | ");
}

TEST(BookMerger, ReplacesAComponentsBookByItsImageAndLeavesTheOthers)
{
    BookMerger merger;
    merger.Apply(kDirect, Update({Change(kBid, "10", "2")}));
    merger.Apply(kImplied, Update({Change(kBid, "9", "2")}));
    merger.Apply(kDirect, Update({Change(kBid, "8", "1"), Change(kBid, "8.5", "0"), Change(kBid, "8", "3")}, true));
    EXPECT_EQ(Merge(merger), "9x0+2 8x3+0 | "); // of two at one price the last counts
    merger.Clear(kImplied);
    EXPECT_EQ(Merge(merger), "8x3+0 | ");
}

TEST(BookMerger, KeepsCrossedAndLockedBooksAsTheyAre)
{
    BookMerger merger;
    merger.Apply(kDirect, Update({Change(kBid, "10", "1"), Change(kAsk, "10", "2"), Change(kAsk, "9", "3")}));
    EXPECT_EQ(Merge(merger), "10x1+0 | 9x3+0 10x2+0");
}

TEST(BookMerger, CutsTheDepthLast)
{
    BookMerger merger;
    merger.Apply(kDirect, Update({Change(kAsk, "11", "1"), Change(kAsk, "12", "1"), Change(kAsk, "13", "1")}));
    merger.Apply(kImplied, Update({Change(kAsk, "12", "5"), Change(kAsk, "13", "5")}));
    EXPECT_EQ(Merge(merger, 2), " | 11x1+0 12x1+5");
}

TEST(BookMerger, SortsNegativePricesByValue)
{
    BookMerger merger;
    merger.Apply(kDirect, Update({Change(kBid, "-2", "1"), Change(kBid, "-1", "1"), Change(kAsk, "-0.5", "1")}));
    EXPECT_EQ(Merge(merger), "-1x1+0 -2x1+0 | -0.5x1+0");
}

TEST(BookMerger, SaturatesQuantitiesThatDoNotFit)
{
    BookMerger merger;
    constexpr std::int64_t kLargest = std::numeric_limits<std::int64_t>::max();
    merger.Apply(kDirect, Update({{1, kLargest, 0, kBid}}));
    merger.Apply(kAggregated, Update({{1, 5, 0, kBid}}));
    MergedOrderBook book(1, 1);
    merger.Merge(book);
    EXPECT_EQ(book.bids.GetLevels()[0].directQuantity, kLargest);
}

TEST(BookMerger, EqualsAMapBookOnRandomUpdates)
{
    const unsigned seed = 20240808;
    std::mt19937 random(seed);
    const auto below = [&](unsigned bound) { return std::uniform_int_distribution<unsigned>(0, bound - 1)(random); };
    for (int round = 0; round < 50; ++round)
    {
        BookMerger merger;
        ReferenceMerger reference;
        for (int step = 0; step < 200; ++step)
        {
            BookUpdate update;
            update.isImage = below(20) == 0;
            for (unsigned i = below(update.isImage ? 30 : 4); i > 0; --i)
            {
                update.changes.push_back({static_cast<std::int64_t>(below(40)) - 20,
                                          below(3) == 0 ? 0 : static_cast<std::int64_t>(below(100)), below(5),
                                          below(2) == 0 ? kBid : kAsk});
            }
            const auto component = static_cast<CompositeComponentType::Type>(below(3));
            merger.Apply(component, update);
            reference.Apply(component, update);

            ExpectSame(merger, reference, 1 + below(12));
            ASSERT_FALSE(::testing::Test::HasFailure()) << "seed " << seed << " step " << step;
        }
    }
}

TEST(BookMerger, KeepsNoMoreHolesThanLevelsWhenTheTopGoesToo)
{
    constexpr std::int64_t kLevels = 200;
    BookMerger merger;
    BookUpdate image;
    image.isImage = true;
    for (std::int64_t price = 1; price <= kLevels; ++price)
    {
        image.changes.push_back({price, 1, 0, kBid});
    }
    merger.Apply(kDirect, image);
    const ComponentBook::Side& side = merger.GetComponent(kDirect).GetBids();
    const auto remove = [&](std::int64_t price)
    {
        BookUpdate update;
        update.changes = {{price, 0, 0, kBid}};
        merger.Apply(kDirect, update);
        ASSERT_LE(2 * side.holes, side.levels.size()) << price;
    };
    for (std::int64_t price = 1; price <= kLevels / 2; ++price) // from the bottom: holes
    {
        remove(price);
    }
    for (std::int64_t price = kLevels; price > kLevels / 2; --price) // from the top
    {
        remove(price);
    }
    EXPECT_TRUE(side.levels.empty());
    EXPECT_EQ(side.holes, 0U);
}

TEST(BookMerger, EqualsAMapBookWhenLevelsComeAndGoDeepInLargeBooks)
{
    const unsigned seed = 20261121;
    std::mt19937 random(seed);
    const auto below = [&](unsigned bound) { return std::uniform_int_distribution<unsigned>(0, bound - 1)(random); };
    constexpr unsigned kPrices = 3000;
    BookMerger merger;
    ReferenceMerger reference;
    for (int step = 0; step < 400; ++step)
    {
        BookUpdate update;
        update.isImage = step % 150 == 0;
        // By turns the books fill, stay as they are, and empty.
        const unsigned removed = step % 90 < 30 ? 1 : step % 90 < 60 ? 3 : 6;
        for (unsigned i = 0; i < (update.isImage ? 2000 : 300); ++i)
        {
            const bool isRemoval = below(7) < removed;
            update.changes.push_back({static_cast<std::int64_t>(below(kPrices)),
                                      isRemoval ? 0 : static_cast<std::int64_t>(1 + below(100)), below(5),
                                      below(2) == 0 ? kBid : kAsk});
        }
        const auto component = step % 3 == 0 ? kImplied : kDirect;
        merger.Apply(component, update);
        reference.Apply(component, update);

        const std::uint32_t depth = step % 10 == 0 ? kPrices : 10;
        MergedOrderBook book(depth, depth);
        merger.Merge(book);
        const auto toVector = [](const auto& side)
        { return std::vector<MergedOrderBook::Level>(side.GetLevels().begin(), side.GetLevels().end()); };
        ASSERT_EQ(toVector(book.bids), reference.Merge(kBid, depth)) << "seed " << seed << " step " << step;
        ASSERT_EQ(toVector(book.asks), reference.Merge(kAsk, depth)) << "seed " << seed << " step " << step;
        for (const ComponentBook::Side* side :
             {&merger.GetComponent(component).GetBids(), &merger.GetComponent(component).GetAsks()})
        {
            const auto holes = std::count_if(side->levels.begin(), side->levels.end(),
                                             [](const OrderBook::Level& level) { return level.quantity == 0; });
            ASSERT_EQ(static_cast<std::size_t>(holes), side->holes);
            ASSERT_LE(2 * side->holes, side->levels.size());
        }
    }
}

namespace
{

/// What the two parts of a side promise each other.
void CheckParts(const ComponentBook::Side& side, bool isBid)
{
    const auto isWorse = [isBid](std::int64_t a, std::int64_t b) { return isBid ? a < b : a > b; };
    for (std::size_t i = 1; i < side.levels.size(); ++i)
    {
        ASSERT_TRUE(isWorse(side.levels[i - 1].price, side.levels[i].price));
    }
    ASSERT_LE(side.levels.size(), 2 * side.GetKept());
    if (side.rest == nullptr || side.rest->levels.IsEmpty())
    {
        return;
    }
    for (const OrderBook::Level& level : side.levels)
    {
        ASSERT_FALSE(isWorse(level.price, side.rest->bound));
    }
    side.rest->levels.ForEach([&](const OrderBook::Level& level)
                              { ASSERT_TRUE(isWorse(level.price, side.rest->bound)); });
}

} // namespace

TEST(BookMerger, EqualsAMapBookWhenPricesWanderThroughLargeBooksAtChangingDepths)
{
    const unsigned seed = 20261122;
    std::mt19937 random(seed);
    const auto below = [&](unsigned bound) { return std::uniform_int_distribution<unsigned>(0, bound - 1)(random); };
    BookMerger merger;
    ReferenceMerger reference;
    std::int64_t middle = 0;
    for (int step = 0; step < 3'000; ++step)
    {
        // The top goes away on one side and grows on the other, for a while; then the other way round.
        const std::int64_t before = middle;
        middle += step % 400 < 200 ? below(5) : -static_cast<std::int64_t>(below(5));
        BookUpdate update;
        update.isImage = step % 1'000 == 0;
        for (std::int64_t price = std::min(before, middle); price <= std::max(before, middle); ++price)
        {
            update.changes.push_back({price, price < middle ? 1 : 0, 0, kBid});
            update.changes.push_back({price, price > middle ? 1 : 0, 0, kAsk});
        }
        for (unsigned i = 0; i < (update.isImage ? 1'500 : 12); ++i)
        {
            const std::int64_t away = 1 + below(below(3) == 0 ? 30 : 900);
            const bool isBid = below(2) == 0;
            update.changes.push_back({isBid ? middle - away : middle + away,
                                      below(2) == 0 && !update.isImage ? 0 : static_cast<std::int64_t>(1 + below(100)),
                                      below(5), isBid ? kBid : kAsk});
        }
        const auto component = below(4) == 0 && !update.isImage ? kImplied : kDirect;
        merger.Apply(component, update);
        reference.Apply(component, update);

        const std::uint32_t depth = below(100) == 0 ? 1 + below(300) : step % 2'000 < 1'000 ? 10 : 1;
        ExpectSame(merger, reference, depth);
        CheckParts(merger.GetComponent(component).GetBids(), true);
        CheckParts(merger.GetComponent(component).GetAsks(), false);
        ASSERT_FALSE(::testing::Test::HasFailure()) << "seed " << seed << " step " << step;
    }
    EXPECT_NE(merger.GetComponent(kDirect).GetBids().rest, nullptr) << "nothing has been tried";
}
