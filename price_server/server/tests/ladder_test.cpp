#include "server/ladder.h"

#include "composite_price/fixed_point.h"
#include "server/terminal.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace ps_ns
{
namespace
{

struct Row
{
    const char* price;
    const char* direct;
    const char* implied;
    std::uint32_t orders = 0;
};

void Fill(BookSide<MergedOrderBook::Level>& side, const std::vector<Row>& rows)
{
    for (const Row& row : rows)
    {
        side.GetStorage()[side.count++] = {ParsePrice(row.price).value(), ParseQuantity(row.direct).value(),
                                           ParseQuantity(row.implied).value(), row.orders};
    }
}

LadderView MakeView(const std::string& name, const std::vector<Row>& bids, const std::vector<Row>& asks)
{
    const auto book = std::make_shared<MergedOrderBook>(20, 20);
    Fill(book->bids, bids);
    Fill(book->asks, asks);
    LadderView view;
    view.name = name;
    view.book = book;
    return view;
}

LadderView MakeGold()
{
    LadderView view = MakeView("SIM:GOLD", {{"2650.1", "25", "10"}, {"2650", "1.5", "0"}},
                               {{"2650.25", "0", "7"}, {"2651", "12", "0"}, {"2652", "3", "0"}});
    view.lastTrade = Trade{ParsePrice("2650.1").value(), ParseQuantity("3").value(), 0, 0, 0, Trade::Aggressor::Buyer};
    return view;
}

using Lines = std::vector<std::string>;

TEST(Ladder, AlignsNumbersAndShowsDirectAndImpliedQuantityApart)
{
    EXPECT_EQ(
        RenderLadders({MakeGold()}, "footer", {80, 24}, false),
        (Lines{"SIM:GOLD                       last 2650.10 x 3", "implied direct     bid |     ask direct implied",
               "     10   25.0 2650.10 | 2650.25              7", "           1.5 2650.00 | 2651.00   12.0",
               "                       | 2652.00    3.0", "", "footer"}));
}

TEST(Ladder, ShowsOrderCountsWhenAnyIsKnown)
{
    const LadderView view = MakeView("M:S", {{"10", "5", "0", 4}}, {{"11", "6", "0", 0}});
    EXPECT_EQ(RenderLadders({view}, "", {80, 24}, false),
              (Lines{"M:S", "orders implied direct   bid |   ask direct implied orders",
                     "     4              5    10 |    11      6", "", ""}));
}

TEST(Ladder, LeavesOutOrderCountsThenTheSplitThenQuantitiesOnANarrowScreen)
{
    const LadderView view = MakeView("M:S", {{"10", "5", "1", 4}}, {{"11", "6", "2", 3}});
    const auto heads = [&](std::size_t columns) { return RenderLadders({view}, "", {columns, 24}, false).at(1); };
    EXPECT_EQ(heads(60), "orders implied direct   bid |   ask direct implied orders");
    EXPECT_EQ(heads(50), "implied direct   bid |   ask direct implied");
    EXPECT_EQ(heads(30), "total   bid |   ask total");
    EXPECT_EQ(heads(20), "  bid |   ask");
    EXPECT_EQ(RenderLadders({view}, "", {30, 24}, false).at(2), "    6    10 |    11     8");
}

TEST(Ladder, NeverLeavesTheScreen)
{
    const std::vector<LadderView> views{MakeGold(), MakeGold(), MakeGold()};
    for (std::size_t columns = 0; columns < 200; columns += 7)
    {
        for (std::size_t rows = 0; rows < 40; ++rows)
        {
            const Lines lines = RenderLadders(views, std::string(300, 'f'), {columns, rows}, false);
            ASSERT_LE(lines.size(), rows);
            for (const std::string& line : lines)
            {
                ASSERT_LE(line.size(), columns);
            }
        }
    }
}

TEST(Ladder, GivesUpLowerLevelsWhenThereAreTooFewRows)
{
    const Lines lines = RenderLadders({MakeGold(), MakeGold()}, "footer", {50, 11}, false);
    ASSERT_EQ(lines.size(), 11U);
    EXPECT_EQ(lines[3].find("2650.0") != std::string::npos, true) << "two levels of the first";
    EXPECT_EQ(lines[4], "");
    EXPECT_TRUE(lines[5].starts_with("SIM:GOLD"));
    EXPECT_EQ(lines.back(), "footer");
}

TEST(Ladder, StandsBesideAnotherWhereThereIsRoom)
{
    const Lines lines = RenderLadders({MakeGold(), MakeGold()}, "", {100, 24}, false);
    EXPECT_EQ(lines.at(2),
              "     10   25.0 2650.10 | 2650.25              7        10   25.0 2650.10 | 2650.25              7");
}

TEST(Ladder, MarksStaleAndMissingComponentsAndABookThatHasNotCome)
{
    const auto book = std::make_shared<MergedOrderBook>(1, 1);
    book->staleComponents = {{CompositeComponentType::Direct, 1}};
    book->missingComponents = {CompositeComponentType::Implied};
    LadderView stale;
    stale.name = "M:S";
    stale.book = book;
    EXPECT_EQ(RenderLadders({stale}, "", {80, 24}, false).at(0), "M:S STALE direct no implied yet");

    LadderView none;
    none.name = "M:T";
    EXPECT_EQ(RenderLadders({none}, "", {80, 24}, false).at(0), "M:T no book yet");
}

TEST(Ladder, ColoursWithoutChangingTheText)
{
    const Lines plain = RenderLadders({MakeGold()}, "footer", {80, 24}, false);
    const Lines coloured = RenderLadders({MakeGold()}, "footer", {80, 24}, true);
    EXPECT_NE(coloured.at(2).find("\x1b[32m2650.10\x1b[0m"), std::string::npos) << coloured.at(2);
    EXPECT_NE(coloured.at(2).find("\x1b[31m2650.25\x1b[0m"), std::string::npos) << coloured.at(2);
    ASSERT_EQ(plain.size(), coloured.size());
    for (std::size_t i = 0; i < plain.size(); ++i)
    {
        std::string text;
        for (std::size_t at = 0; at < coloured[i].size(); ++at)
        {
            if (coloured[i][at] == '\x1b')
            {
                at = coloured[i].find('m', at);
                continue;
            }
            text += coloured[i][at];
        }
        text.erase(text.find_last_not_of(' ') + 1);
        EXPECT_EQ(text, plain[i]);
    }
}

TEST(Ladder, ShowsAQuestionMarkForWhatATerminalMightObey)
{
    const LadderView view = MakeView("M:\x1b[2J\xff", {{"1", "1", "0"}}, {});
    EXPECT_EQ(RenderLadders({view}, "", {80, 24}, false).at(0), "M:?[2J?");
}

TEST(Terminal, RedrawsFromTheCornerAndDoesNotScroll)
{
    EXPECT_EQ(DrawScreen({"one", "two"}), "\x1b[Hone\x1b[K\r\ntwo\x1b[K\x1b[J");
}

} // namespace
} // namespace ps_ns
