#include "mds/feed_book.h"

#include "mds/seeded_random.h"
#include "test_support.h"

#include <gtest/gtest.h>

namespace ps_ns
{
namespace
{

using namespace testing_ns;

std::vector<BookUpdate::Change> ImageOf(const auto& book)
{
    std::vector<BookUpdate::Change> image{Bid("1", "1")}; // goes
    book.WriteImage(image);
    return image;
}

TEST(FeedBook, WritesItsImageBestFirst)
{
    FeedBook book;
    book.Apply(std::vector{Bid("9", "1"), Ask("12", "1"), Bid("10", "2"), Ask("11", "2"), Bid("-8", "3")}, false);
    EXPECT_EQ(ImageOf(book),
              (std::vector{Bid("10", "2"), Bid("9", "1"), Bid("-8", "3"), Ask("11", "2"), Ask("12", "1")}));
    book.Apply(std::vector{Ask("3", "1"), Ask("3", "4"), Bid("2", "0")}, true);
    EXPECT_EQ(ImageOf(book), std::vector{Ask("3", "4")});
}

TEST(FeedBook, HoldsTheSameLevelsWhetherItIsSortedOrNotAndWheneverItIsSorted)
{
    SeededRandom random(20'261'122);
    for (int round = 0; round < 20; ++round)
    {
        FeedBook unsorted;
        FeedBook sortedOnTheWay;
        LevelBook model;
        const std::int64_t prices = random.Once(2) ? 60 : 2'000;
        for (int step = 0; step < 600; ++step)
        {
            std::vector<BookUpdate::Change> changes;
            for (std::int64_t i = random.Below(40); i >= 0; --i)
            {
                changes.push_back({random.Below(prices) - prices / 2, random.Once(3) ? 0 : random.Below(50) + 1,
                                   static_cast<std::uint32_t>(random.Below(3)),
                                   random.Once(2) ? BookSideType::Bid : BookSideType::Ask});
            }
            const bool isImage = random.Once(200);
            unsorted.Apply(changes, isImage);
            sortedOnTheWay.Apply(changes, isImage);
            model.Apply(changes, isImage);
            if (step == 300)
            {
                sortedOnTheWay.Sort();
                ASSERT_TRUE(sortedOnTheWay.IsSorted());
            }
            if (step % 50 == 0)
            {
                ASSERT_EQ(ImageOf(unsorted), ImageOf(model)) << "round " << round << " step " << step;
                ASSERT_EQ(ImageOf(sortedOnTheWay), ImageOf(model)) << "round " << round << " step " << step;
            }
        }
        EXPECT_EQ(Print(sortedOnTheWay.GetSorted()), Print(model));
        EXPECT_FALSE(unsorted.IsSorted());
    }
}

} // namespace
} // namespace ps_ns
