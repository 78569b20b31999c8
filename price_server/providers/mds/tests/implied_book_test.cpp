#include "mds/implied_book.h"

#include "mds/seeded_random.h"
#include "test_support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ps_ns
{
namespace
{

using namespace testing_ns;

LevelBook MakeBook(const std::vector<BookUpdate::Change>& changes)
{
    LevelBook book;
    book.Apply(changes, true);
    return book;
}

std::string Walk(ImpliedOperation operation, BookSideType side, const LevelBook& first, const LevelBook& second,
                 std::size_t depth = 10)
{
    ImpliedSide result;
    WalkImplied(operation, side, first, second, depth, result);
    std::string text;
    for (const BookLevel& level : result.levels)
    {
        text += (text.empty() ? "" : " ") + FormatPrice(level.price) + "x" + FormatQuantity(level.quantity);
    }
    return text;
}

TEST(ImpliedBook, MakesASpreadOfTwoOutrights)
{
    const LevelBook near = MakeBook({Bid("100", "5"), Bid("99", "5"), Ask("101", "2"), Ask("102", "9")});
    const LevelBook far = MakeBook({Bid("110", "3"), Bid("109", "9"), Ask("111", "4"), Ask("112", "9")});
    EXPECT_EQ(Walk(ImpliedOperation::Difference, BookSideType::Bid, near, far), "-11x4 -12x1 -13x5");
    EXPECT_EQ(Walk(ImpliedOperation::Difference, BookSideType::Ask, near, far), "-9x2 -8x1 -7x8");
}

TEST(ImpliedBook, MakesAnOutrightOfASpreadAndTheOtherOutright)
{
    const LevelBook spread = MakeBook({Bid("-11", "4"), Ask("-9", "2")});
    const LevelBook far = MakeBook({Bid("110", "3"), Bid("109", "9"), Ask("111", "4")});
    EXPECT_EQ(Walk(ImpliedOperation::Sum, BookSideType::Bid, spread, far), "99x3 98x1");
    EXPECT_EQ(Walk(ImpliedOperation::Sum, BookSideType::Ask, spread, far), "102x2");
    const LevelBook near = MakeBook({Bid("100", "5"), Ask("101", "2")});
    EXPECT_EQ(Walk(ImpliedOperation::Difference, BookSideType::Bid, near, spread), "109x2");
    EXPECT_EQ(Walk(ImpliedOperation::Difference, BookSideType::Ask, near, spread), "112x2");
}

TEST(ImpliedBook, ConvertsTheQuantitiesOfACross)
{
    // One X costs 100 Z, one Y costs 20 Z: one X is five Y.
    const LevelBook x = MakeBook({Bid("100", "3"), Bid("90", "1"), Ask("110", "1")});
    const LevelBook y = MakeBook({Bid("20", "4"), Ask("20", "10"), Ask("25", "8")});
    // 10 Y at 20 are worth 2 X at 100; the third X needs 4 Y at 25; the X at 90 needs 3.6 of the 4 that are left.
    EXPECT_EQ(Walk(ImpliedOperation::Ratio, BookSideType::Bid, x, y), "5x2 4x1 3.6x1");
    EXPECT_EQ(Walk(ImpliedOperation::Ratio, BookSideType::Ask, x, y), "5.5x0.72727272");
}

TEST(ImpliedBook, RoundsBidsOfACrossDownAndAsksUp)
{
    const LevelBook x = MakeBook({Bid("1", "1"), Ask("1", "1")});
    const LevelBook y = MakeBook({Bid("3", "1"), Ask("3", "1")});
    EXPECT_EQ(Walk(ImpliedOperation::Ratio, BookSideType::Bid, x, y), "0.3333333333x1");
    EXPECT_EQ(Walk(ImpliedOperation::Ratio, BookSideType::Ask, x, y), "0.3333333334x1");
}

TEST(ImpliedBook, IsEmptyWhereALegHasNothing)
{
    const LevelBook both = MakeBook({Bid("1", "1"), Ask("2", "1")});
    const LevelBook bidsOnly = MakeBook({Bid("3", "1")});
    const LevelBook none;
    EXPECT_EQ(Walk(ImpliedOperation::Difference, BookSideType::Bid, both, bidsOnly), "");
    EXPECT_EQ(Walk(ImpliedOperation::Difference, BookSideType::Ask, both, bidsOnly), "-1x1");
    EXPECT_EQ(Walk(ImpliedOperation::Sum, BookSideType::Ask, both, bidsOnly), "");
    EXPECT_EQ(Walk(ImpliedOperation::Ratio, BookSideType::Bid, none, both), "");
}

TEST(ImpliedBook, StopsAtPricesThatARatioCannotHave)
{
    const LevelBook negative = MakeBook({Bid("-1", "1"), Ask("0", "1")});
    const LevelBook usual = MakeBook({Bid("1", "1"), Ask("2", "1")});
    EXPECT_EQ(Walk(ImpliedOperation::Ratio, BookSideType::Bid, negative, usual), "");
    EXPECT_EQ(Walk(ImpliedOperation::Ratio, BookSideType::Ask, negative, usual), "");
    EXPECT_EQ(Walk(ImpliedOperation::Ratio, BookSideType::Ask, usual, negative), "");
    const LevelBook tiny = MakeBook({Bid("0.0000000001", "1"), Ask("0.0000000001", "1")});
    const LevelBook huge = MakeBook({Bid("900000000", "1"), Ask("900000000", "1")});
    EXPECT_EQ(Walk(ImpliedOperation::Ratio, BookSideType::Bid, huge, tiny), ""); // no price can hold it
    EXPECT_EQ(Walk(ImpliedOperation::Ratio, BookSideType::Bid, tiny, huge), ""); // it rounds to nothing
    EXPECT_EQ(Walk(ImpliedOperation::Sum, BookSideType::Bid, huge, huge), "");
}

TEST(ImpliedBook, EndsAtItsDepth)
{
    std::vector<BookUpdate::Change> bids;
    for (int level = 0; level < 30; ++level)
    {
        bids.push_back({P("100") - level * P("1"), Q("1"), 0, BookSideType::Bid});
    }
    EXPECT_EQ(Walk(ImpliedOperation::Sum, BookSideType::Bid, MakeBook(bids), MakeBook(bids), 3), "200x1 198x1 196x1");
}

LevelBook RandomBook(SeededRandom& random, std::int64_t middle, std::int64_t largestQuantity)
{
    std::vector<BookUpdate::Change> changes;
    for (std::int64_t level = random.Below(8); level > 0; --level)
    {
        changes.push_back({middle - 1 - random.Below(12), random.Below(largestQuantity) + 1, 0, BookSideType::Bid});
    }
    for (std::int64_t level = random.Below(8); level > 0; --level)
    {
        changes.push_back({middle + random.Below(12), random.Below(largestQuantity) + 1, 0, BookSideType::Ask});
    }
    return MakeBook(changes);
}

/// Every single unit of a side, best first.
std::vector<std::int64_t> Units(const LevelSide& side)
{
    std::vector<std::int64_t> units;
    for (std::size_t rank = 0; rank < side.GetSize(); ++rank)
    {
        units.insert(units.end(), static_cast<std::size_t>(side.Get(rank).quantity), side.Get(rank).price);
    }
    return units;
}

TEST(ImpliedBook, AgreesWithPairingTheLegsUnitByUnit)
{
    SeededRandom random(11);
    std::size_t levels = 0;
    for (int round = 0; round < 3'000; ++round)
    {
        const auto operation = random.Once(2) ? ImpliedOperation::Sum : ImpliedOperation::Difference;
        const BookSideType side = random.Once(2) ? BookSideType::Bid : BookSideType::Ask;
        const LevelBook first = RandomBook(random, random.Below(40) - 20, 9);
        const LevelBook second = RandomBook(random, random.Below(40) - 20, 9);
        const auto ofFirst = Units(first.GetSide(side));
        const bool isOpposite = operation == ImpliedOperation::Difference;
        const auto ofSecond =
            Units(second.GetSide(isOpposite == (side == BookSideType::Bid) ? BookSideType::Ask : BookSideType::Bid));
        std::vector<BookLevel> expected;
        for (std::size_t unit = 0; unit < std::min(ofFirst.size(), ofSecond.size()); ++unit)
        {
            const std::int64_t price = isOpposite ? ofFirst[unit] - ofSecond[unit] : ofFirst[unit] + ofSecond[unit];
            if (expected.empty() || expected.back().price != price)
            {
                expected.push_back({price, 0, 0});
            }
            ++expected.back().quantity;
        }
        const std::size_t depth = static_cast<std::size_t>(random.Below(10)) + 1;
        expected.resize(std::min(expected.size(), depth));
        ImpliedSide result;
        WalkImplied(operation, side, first, second, depth, result);
        ASSERT_EQ(result.levels, expected) << "round " << round;
        levels += expected.size();
    }
    EXPECT_GT(levels, 5'000U);
}

TEST(ImpliedBook, NeverPromisesMoreThanTheLegsOfACrossKeep)
{
    SeededRandom random(12);
    std::size_t levels = 0;
    for (int round = 0; round < 3'000; ++round)
    {
        const BookSideType side = random.Once(2) ? BookSideType::Bid : BookSideType::Ask;
        const BookSideType other = side == BookSideType::Bid ? BookSideType::Ask : BookSideType::Bid;
        const LevelBook first = RandomBook(random, 14 + random.Below(100), 1'000);
        const LevelBook second = RandomBook(random, 14 + random.Below(100), 1'000);
        ImpliedSide result;
        WalkImplied(ImpliedOperation::Ratio, side, first, second, 100, result);
        std::int64_t total = 0;
        for (std::size_t rank = 0; rank < result.levels.size(); ++rank)
        {
            const BookLevel& level = result.levels[rank];
            total += level.quantity;
            ASSERT_GT(level.quantity, 0);
            if (rank > 0)
            {
                ASSERT_TRUE(side == BookSideType::Bid ? level.price < result.levels[rank - 1].price
                                                      : level.price > result.levels[rank - 1].price);
            }
        }
        // All of X there is; and what it costs in Z is what all of the taken Y is worth, so Y must suffice.
        std::int64_t ofFirst = 0;
        for (const BookLevel& level : first.GetSide(side).GetLevels())
        {
            ofFirst += level.quantity;
        }
        ASSERT_LE(total, ofFirst);
        std::int64_t worthOfSecond = 0;
        for (const BookLevel& level : second.GetSide(other).GetLevels())
        {
            worthOfSecond += level.quantity * level.price;
        }
        std::int64_t worthOfTaken = 0;
        std::int64_t left = total;
        for (std::size_t rank = 0; rank < first.GetSide(side).GetSize() && left > 0; ++rank)
        {
            const BookLevel& level = first.GetSide(side).Get(rank);
            const std::int64_t taken = std::min(left, level.quantity);
            worthOfTaken += taken * level.price;
            left -= taken;
        }
        ASSERT_LE(worthOfTaken, worthOfSecond) << "round " << round;
        levels += result.levels.size();
    }
    EXPECT_GT(levels, 5'000U);
}

} // namespace
} // namespace ps_ns
