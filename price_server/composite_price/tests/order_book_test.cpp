#include "composite_price/merged_order_book.h"
#include "composite_price/order_book.h"

#include <gtest/gtest.h>

#include <type_traits>
#include <vector>

using namespace ps_ns;

static_assert(std::is_polymorphic_v<MergedOrderBook>);
static_assert(std::has_virtual_destructor_v<MergedOrderBook>);
static_assert(!std::is_copy_constructible_v<MergedOrderBook>, "shared, never copied by accident");
static_assert(!std::is_polymorphic_v<OrderBook>);
static_assert(sizeof(OrderBook::Level) == 24, "two 64-bit values and a 32-bit one");
static_assert(sizeof(MergedOrderBook::Level) == 32, "three 64-bit values and a 32-bit one");
static_assert(sizeof(BookSide<OrderBook::Level>) == 24);
static_assert(sizeof(OrderBook) == 3 * 8 + 2 * sizeof(BookSide<OrderBook::Level>) + 48);

namespace
{

using Levels = std::vector<MergedOrderBook::Level>;

void Fill(BookSide<MergedOrderBook::Level>& side, const Levels& levels)
{
    std::copy(levels.begin(), levels.end(), side.GetStorage().begin());
    side.count = static_cast<std::uint32_t>(levels.size());
}

Levels LevelsOf(const BookSide<MergedOrderBook::Level>& side)
{
    return {side.GetLevels().begin(), side.GetLevels().end()};
}

const Levels kBids{{100, 1, 2, 3}, {99, 4, 5, 6}, {98, 7, 8, 9}};
const Levels kAsks{{101, 10, 0, 1}, {102, 0, 20, 0}};

void Fill(MergedOrderBook& book)
{
    Fill(book.bids, kBids);
    Fill(book.asks, kAsks);
    book.missingComponents = {CompositeComponentType::Implied};
    book.staleComponents = {{CompositeComponentType::Direct, 7}};
    book.lastTradePrice = 1.5;
    book.epoch = 1;
    book.sequence = 2;
    book.exchangeTime_ns = 3;
    book.receiveTime_ns = 4;
    book.venueSequence = 5;
    book.snapshotReason = 110;
}

class MergedOrderBookTest : public testing::Test
{
protected:
    MergedOrderBookTest() { Fill(m_book); }

    /// What ShowsSameAs says of the book and one that `change` has changed, asked both ways.
    template <class Change>
    bool ShowsSameAfter(Change change) const
    {
        MergedOrderBook other(5, 5);
        Fill(other);
        change(other);
        EXPECT_EQ(m_book.ShowsSameAs(other), other.ShowsSameAs(m_book));
        return m_book.ShowsSameAs(other);
    }

    MergedOrderBook m_book{5, 10};
};

} // namespace

TEST(BookSide, GivesTheLevelsInUseAndRoomForMore)
{
    BookSide<OrderBook::Level> side(3, 9);
    EXPECT_TRUE(side.GetLevels().empty());
    EXPECT_EQ(side.GetStorage().size(), 3U);
    side.GetStorage()[0] = {100, 5, 1};
    side.count = 1;
    ASSERT_EQ(side.GetLevels().size(), 1U);
    EXPECT_EQ(side.GetLevels()[0], (OrderBook::Level{100, 5, 1}));
}

TEST(BookSide, IsCopiedWithItsLevels)
{
    OrderBook book(3, 9);
    book.bids.GetStorage()[0] = {100, 5, 1};
    book.bids.count = 1;
    OrderBook copy(book);
    copy.bids.GetStorage()[0].price = 1;
    EXPECT_EQ(book.bids.GetLevels()[0].price, 100);
    EXPECT_EQ(copy.bids.count, 1U);
    EXPECT_EQ(copy.bids.depth, 3U);
    EXPECT_EQ(copy.bids.size, 9U);
    EXPECT_EQ(copy.bids.GetStorage()[2], OrderBook::Level{});
}

TEST_F(MergedOrderBookTest, IsCutToTheBestLevels)
{
    const auto cut = m_book.Cut(2);
    EXPECT_EQ(LevelsOf(cut->bids), (Levels{kBids[0], kBids[1]}));
    EXPECT_EQ(LevelsOf(cut->asks), kAsks);
    EXPECT_EQ(cut->bids.depth, 2U);
    EXPECT_EQ(cut->asks.depth, 2U);
    EXPECT_EQ(cut->bids.size, 2U);
    EXPECT_EQ(LevelsOf(m_book.bids), kBids);
}

TEST_F(MergedOrderBookTest, KeepsAllLevelsWhenCutToMoreThanItHas)
{
    const auto cut = m_book.Cut(100);
    EXPECT_EQ(LevelsOf(cut->bids), kBids);
    EXPECT_EQ(LevelsOf(cut->asks), kAsks);
    EXPECT_EQ(cut->bids.depth, 100U);
    EXPECT_TRUE(cut->ShowsSameAs(m_book));
}

TEST_F(MergedOrderBookTest, IsCutToOneLevelWhenAskedForNone)
{
    const auto cut = m_book.Cut(0);
    EXPECT_EQ(LevelsOf(cut->bids), (Levels{kBids[0]}));
    EXPECT_EQ(LevelsOf(cut->asks), (Levels{kAsks[0]}));
    EXPECT_EQ(cut->bids.depth, 1U);
    EXPECT_EQ(cut->bids.size, 1U);
}

TEST_F(MergedOrderBookTest, KeepsEverythingElseWhenCut)
{
    const auto cut = m_book.Cut(1);
    EXPECT_EQ(cut->missingComponents, m_book.missingComponents);
    EXPECT_EQ(cut->staleComponents, m_book.staleComponents);
    EXPECT_EQ(cut->lastTradePrice, 1.5);
    EXPECT_EQ(cut->epoch, 1U);
    EXPECT_EQ(cut->sequence, 2U);
    EXPECT_EQ(cut->exchangeTime_ns, 3U);
    EXPECT_EQ(cut->receiveTime_ns, 4U);
    EXPECT_EQ(cut->venueSequence, 5U);
    EXPECT_EQ(cut->snapshotReason, 110U);
}

TEST_F(MergedOrderBookTest, OfNoLevelsIsCutToNone)
{
    const auto cut = MergedOrderBook(5, 5).Cut(3);
    EXPECT_EQ(cut->bids.count, 0U);
    EXPECT_EQ(cut->asks.count, 0U);
}

TEST_F(MergedOrderBookTest, ShowsTheSameWhateverItsTimesSequencesAndRoomAre)
{
    EXPECT_TRUE(ShowsSameAfter([](MergedOrderBook&) {}));
    EXPECT_TRUE(ShowsSameAfter(
        [](MergedOrderBook& book)
        {
            book.lastTradePrice = 2.5;
            book.epoch = book.sequence = book.exchangeTime_ns = book.receiveTime_ns = book.venueSequence = 99;
            book.snapshotReason = 0;
        }));
    EXPECT_TRUE(ShowsSameAfter(
        [](MergedOrderBook& book) {
            book.bids.GetStorage()[3] = {1, 1, 1, 1};
        }))
        << "beyond the levels in use";
}

TEST_F(MergedOrderBookTest, ShowsADifferenceInEachFieldOfALevel)
{
    EXPECT_FALSE(ShowsSameAfter([](MergedOrderBook& book) { ++book.bids.GetStorage()[2].price; }));
    EXPECT_FALSE(ShowsSameAfter([](MergedOrderBook& book) { ++book.bids.GetStorage()[2].directQuantity; }));
    EXPECT_FALSE(ShowsSameAfter([](MergedOrderBook& book) { ++book.asks.GetStorage()[0].impliedQuantity; }));
    EXPECT_FALSE(ShowsSameAfter([](MergedOrderBook& book) { ++book.asks.GetStorage()[0].orderCount; }));
}

TEST_F(MergedOrderBookTest, ShowsADifferenceInTheNumberOfLevels)
{
    EXPECT_FALSE(ShowsSameAfter([](MergedOrderBook& book) { --book.bids.count; }));
    EXPECT_FALSE(ShowsSameAfter([](MergedOrderBook& book) { ++book.asks.count; }));
    EXPECT_FALSE(ShowsSameAfter([](MergedOrderBook& book) { book.bids.count = book.asks.count = 0; }));
}

TEST_F(MergedOrderBookTest, ShowsADifferenceInMissingAndStaleComponents)
{
    EXPECT_FALSE(ShowsSameAfter([](MergedOrderBook& book) { book.missingComponents.clear(); }));
    EXPECT_FALSE(
        ShowsSameAfter([](MergedOrderBook& book) { book.missingComponents = {CompositeComponentType::Aggregated}; }));
    EXPECT_FALSE(ShowsSameAfter([](MergedOrderBook& book) { book.staleComponents.clear(); }));
    EXPECT_FALSE(ShowsSameAfter(
        [](MergedOrderBook& book) {
            book.staleComponents = {{CompositeComponentType::Direct, 8}};
        }))
        << "stale again since another time";
}
