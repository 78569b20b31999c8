#include "composite_price/level_table.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <map>
#include <random>

using namespace ps_ns;

namespace
{

using Model = std::map<std::int64_t, OrderBook::Level>;

Model Read(const LevelTable& table)
{
    Model levels;
    table.ForEach(
        [&](const OrderBook::Level& level)
        {
            EXPECT_NE(level.quantity, 0);
            EXPECT_TRUE(levels.emplace(level.price, level).second) << "twice: " << level.price;
        });
    EXPECT_EQ(levels.size(), table.GetSize());
    EXPECT_EQ(levels.empty(), table.IsEmpty());
    return levels;
}

} // namespace

TEST(LevelTable, HoldsNothingAtFirstAndLetsGoOfWhatIsNotThere)
{
    LevelTable table;
    table.Prefetch(7);
    table.Set({7, 0, 0});
    EXPECT_TRUE(Read(table).empty());
}

TEST(LevelTable, KeepsTheLastQuantityAndOrderCountOfAPrice)
{
    LevelTable table;
    table.Set({0, 5, 1});
    table.Set({-3, 6, 2});
    table.Set({0, 9, 4});
    EXPECT_EQ(Read(table), (Model{{-3, {-3, 6, 2}}, {0, {0, 9, 4}}}));
    table.Set({0, 0, 0});
    EXPECT_EQ(Read(table), (Model{{-3, {-3, 6, 2}}}));
    table.Set({0, 1, 0});
    EXPECT_EQ(Read(table), (Model{{-3, {-3, 6, 2}}, {0, {0, 1, 0}}}));
    table.Clear();
    EXPECT_TRUE(Read(table).empty());
    table.Set({0, 2, 0});
    EXPECT_EQ(Read(table), (Model{{0, {0, 2, 0}}}));
}

TEST(LevelTable, TakesTheLargestAndTheSmallestPrice)
{
    constexpr std::int64_t kLargest = std::numeric_limits<std::int64_t>::max();
    constexpr std::int64_t kSmallest = std::numeric_limits<std::int64_t>::min();
    LevelTable table;
    table.Set({kLargest, 1, 0});
    table.Set({kSmallest, 2, 0});
    EXPECT_EQ(Read(table), (Model{{kSmallest, {kSmallest, 2, 0}}, {kLargest, {kLargest, 1, 0}}}));
}

TEST(LevelTable, KeepsItsLevelsWhenRoomIsMadeForMore)
{
    LevelTable table;
    table.Reserve(100);
    table.Set({1, 2, 3});
    table.Reserve(10'000);
    EXPECT_EQ(Read(table), (Model{{1, {1, 2, 3}}}));
}

TEST(LevelTable, EqualsAMapUnderRandomChanges)
{
    const unsigned seed = 20261122;
    std::mt19937 random(seed);
    const auto below = [&](unsigned bound) { return std::uniform_int_distribution<unsigned>(0, bound - 1)(random); };
    for (const std::int64_t tick : {std::int64_t{1}, std::int64_t{1'000'000'000}, std::int64_t{1} << 40})
    {
        LevelTable table;
        Model model;
        for (int step = 0; step < 60'000; ++step)
        {
            if (below(10'000) == 0)
            {
                table.Clear(below(2) == 0 ? 0 : below(3'000));
                model.clear();
            }
            // By turns the book fills, stays as it is, and empties; its prices wander.
            const unsigned removed = step % 9'000 < 3'000 ? 1 : step % 9'000 < 6'000 ? 3 : 6;
            const std::int64_t price = (static_cast<std::int64_t>(below(1'500)) + step / 100 - 700) * tick;
            const OrderBook::Level level{price, below(7) < removed ? 0 : 1 + static_cast<std::int64_t>(below(99)),
                                         below(5)};
            table.Set(level);
            level.quantity == 0 ? static_cast<void>(model.erase(price)) : static_cast<void>(model[price] = level);
            ASSERT_EQ(table.GetSize(), model.size()) << "seed " << seed << " step " << step;
            if (step % 997 == 0)
            {
                ASSERT_EQ(Read(table), model) << "seed " << seed << " step " << step;
            }
        }
    }
}
