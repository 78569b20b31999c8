#include "mds/level_book.h"

#include "mds/seeded_random.h"
#include "test_support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>

namespace ps_ns
{
namespace
{

using namespace testing_ns;

TEST(LevelBook, SortsBothSidesFromBestToWorst)
{
    LevelBook book;
    const std::vector<BookUpdate::Change> changes{Bid("9", "1"), Bid("10", "2"), Bid("8", "3"), Ask("12", "1"),
                                                  Ask("11", "2")};
    book.Apply(changes, false);
    EXPECT_EQ(Print(book), "10x2 9x1 8x3 | 11x2 12x1");
}

TEST(LevelBook, SortsNegativePricesByValue)
{
    LevelBook book;
    const std::vector<BookUpdate::Change> changes{Bid("-3", "1"),   Bid("-1", "2"),   Bid("0", "3"),
                                                  Ask("-0.5", "1"), Ask("-0.7", "2"), Ask("2", "9")};
    book.Apply(changes, true);
    EXPECT_EQ(Print(book), "0x3 -1x2 -3x1 | -0.7x2 -0.5x1 2x9");
}

TEST(LevelBook, ReplacesALevelAndRemovesItAtQuantityZero)
{
    LevelBook book;
    book.Apply(std::vector{Bid("9", "1"), Bid("10", "2")}, true);
    book.Apply(std::vector{Bid("10", "5"), Bid("9", "0"), Ask("11", "0")}, false);
    EXPECT_EQ(Print(book), "10x5 |");
}

TEST(LevelBook, ReplacesEverythingByAnImageWhateverItsOrder)
{
    LevelBook book;
    book.Apply(std::vector{Bid("9", "1"), Ask("10", "2")}, true);
    book.Apply(std::vector{Ask("21", "1"), Ask("20", "1"), Ask("22", "1"), Ask("21", "7"), Bid("3", "0")}, true);
    EXPECT_EQ(Print(book), "| 20x1 21x7 22x1");
}

TEST(LevelBook, AgreesWithASortedMapUnderRandomChanges)
{
    SeededRandom random(42);
    LevelBook book;
    std::map<std::int64_t, std::int64_t> bids;
    std::map<std::int64_t, std::int64_t> asks;
    for (int step = 0; step < 50'000; ++step)
    {
        const bool isBid = random.Once(2);
        const std::int64_t price = random.Below(80) - 40;
        const std::int64_t quantity = random.Once(3) ? 0 : random.Below(50) + 1;
        const BookUpdate::Change change{price, quantity, 0, isBid ? BookSideType::Bid : BookSideType::Ask};
        book.Apply({&change, 1}, false);
        auto& model = isBid ? bids : asks;
        quantity == 0 ? static_cast<void>(model.erase(price)) : static_cast<void>(model[price] = quantity);
        if (step % 500 == 0)
        {
            std::vector<BookUpdate::Change> expected;
            for (auto level = bids.rbegin(); level != bids.rend(); ++level)
            {
                expected.push_back({level->first, level->second, 0, BookSideType::Bid});
            }
            for (const auto& [levelPrice, levelQuantity] : asks)
            {
                expected.push_back({levelPrice, levelQuantity, 0, BookSideType::Ask});
            }
            std::vector<BookUpdate::Change> image;
            book.WriteImage(image);
            ASSERT_EQ(image, expected) << "step " << step;
        }
    }
}

} // namespace
} // namespace ps_ns
