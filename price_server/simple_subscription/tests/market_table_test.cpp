#include "simple_subscription/market_table.h"

#include <gtest/gtest.h>

#include <stdexcept>

using namespace ps_ns;

namespace
{

std::string FailureOf(std::vector<Market> markets)
{
    try
    {
        const MarketTable table(std::move(markets));
        return "";
    }
    catch (const std::invalid_argument& error)
    {
        return error.what();
    }
}

} // namespace

TEST(MarketTable, HasTheMarketsItWasGiven)
{
    const MarketTable table({{2, "SPOT", 5, 50, 100}, {-7, "FUTURES"}});
    EXPECT_TRUE(table.Has(2));
    EXPECT_TRUE(table.Has(-7));
    EXPECT_FALSE(table.Has(3));
    EXPECT_EQ(table.Get(2).name, "SPOT");
    EXPECT_EQ(table.Get(2).defaultDepth, 5U);
    EXPECT_EQ(table.Get(2).maxDepth, 50U);
    EXPECT_EQ(table.Get(2).emptySuppressInterval_ms, 100U);
    EXPECT_EQ(table.GetAll().size(), 2U);
}

TEST(MarketTable, AnswersForAnUnknownMarketWithTheUsualValues)
{
    const MarketTable table;
    EXPECT_EQ(table.Get(9).name, "");
    EXPECT_EQ(table.Get(9).defaultDepth, 10U);
    EXPECT_EQ(table.Get(9).maxDepth, 1000U);
    EXPECT_EQ(table.Get(9).emptySuppressInterval_ms, 0U);
    EXPECT_TRUE(table.GetAll().empty());
}

TEST(MarketTable, FindsAMarketByItsWholeName)
{
    const MarketTable table({{2, "SPOT"}, {3, "SPOT2"}});
    ASSERT_NE(table.FindByName("SPOT2"), nullptr);
    EXPECT_EQ(table.FindByName("SPOT2")->id, 3);
    EXPECT_EQ(table.FindByName("SPO"), nullptr);
    EXPECT_EQ(table.FindByName(""), nullptr);
}

TEST(MarketTable, StaysWholeWhenItIsCopied)
{
    const MarketTable copy = []
    {
        const MarketTable table({{2, "SPOT"}, {3, "FUTURES"}});
        return MarketTable(table);
    }();
    EXPECT_EQ(copy.Get(3).name, "FUTURES");
    EXPECT_EQ(copy.FindByName("SPOT")->id, 2);
}

TEST(MarketTable, RefusesAnIdThatIsThereTwice)
{
    EXPECT_EQ(FailureOf({{2, "SPOT"}, {3, "FUTURES"}, {2, "OTHER"}}), "market 2 \"OTHER\": the id is there twice");
}

TEST(MarketTable, RefusesANameThatIsThereTwice)
{
    EXPECT_EQ(FailureOf({{2, "SPOT"}, {3, "SPOT"}}), "market 3 \"SPOT\": the name is there twice");
}

TEST(MarketTable, RefusesADefaultDepthAboveTheMaximum)
{
    EXPECT_EQ(FailureOf({{2, "SPOT", 11, 10}}), "market 2 \"SPOT\": the default depth 11 is above the maximum 10");
    EXPECT_EQ(FailureOf({{2, "SPOT", 10, 10}}), "");
}
