#include "mds/implied_engine.h"

#include "mds/implied_rules.h"
#include "mds/market_simulation.h"
#include "mds/recording_reader.h"
#include "mds/replay_source.h"
#include "test_support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <set>

namespace ps_ns
{
namespace
{

using namespace testing_ns;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;

TEST(ImpliedRules, FindsACrossOfTwoPairsOfOneMarket)
{
    const std::vector<SourceInstrument> instruments{Listed("BCH_BTC"),  Listed("BCH_USDT"),   Listed("BTC_USDT"),
                                                    Listed("SOL_USDT"), Listed("MDT_BTC"),    Listed("ETH_BTC", 2),
                                                    Listed("ETH_USDT"), Listed("FX_BTC_JPY"), Listed("PI_XRPUSD")};
    EXPECT_THAT(DetectImpliedRules(instruments),
                ElementsAre(ImpliedRule{1, "BCH_BTC", ImpliedOperation::Ratio, "BCH_USDT", "BTC_USDT"}));
}

TEST(ImpliedRules, FindsSpreadsAndTheOutrightsThatTheyLeadTo)
{
    const std::vector<SourceInstrument> instruments{Listed("G-M1"), Listed("G-M2"), Listed("G-M1-M2"),
                                                    Listed("G-M1-M3"), Listed("H-M1-M2")};
    EXPECT_THAT(DetectImpliedRules(instruments),
                UnorderedElementsAre(ImpliedRule{1, "G-M1-M2", ImpliedOperation::Difference, "G-M1", "G-M2"},
                                     ImpliedRule{1, "G-M1", ImpliedOperation::Sum, "G-M1-M2", "G-M2"},
                                     ImpliedRule{1, "G-M2", ImpliedOperation::Difference, "G-M1", "G-M1-M2"}));
}

TEST(ImpliedRules, ListsOneImpliedInstrumentForASymbolAndLeavesOutWhatItCannotResolve)
{
    std::vector<SourceInstrument> instruments{Listed("A", 1, 2), Listed("B", 1, 5), Listed("C"), Listed("IM_T")};
    const std::vector<ImpliedRule> rules{
        {1, "X", ImpliedOperation::Sum, "A", "B"},       {1, "X", ImpliedOperation::Sum, "A", "C"},
        {1, "Y", ImpliedOperation::Sum, "A", "missing"}, {1, "Z", ImpliedOperation::Sum, "A", "A"},
        {1, "T", ImpliedOperation::Sum, "A", "B"},       {1, "R", ImpliedOperation::Ratio, "A", "B"}};
    const auto targets = ResolveImpliedRules(rules, instruments);
    ASSERT_THAT(instruments, SizeIs(6));
    EXPECT_EQ(instruments[4].symbol, "IM_X");
    EXPECT_EQ(instruments[4].format.fractionDigits, 5U);
    EXPECT_EQ(instruments[5].symbol, "IM_R");
    EXPECT_EQ(instruments[5].format.fractionDigits, 10U);
    ASSERT_THAT(targets, SizeIs(2));
    EXPECT_THAT(targets[0].recipes, SizeIs(2));
}

/// G-M1, G-M2 and their spread on market 1.
class ImpliedProviderTest : public ::testing::Test
{
protected:
    void Make(std::vector<MarketMessage> messages)
    {
        provider = std::make_unique<MdsProvider>(
            std::make_unique<ScriptedSource>(std::vector{Listed("G-M1"), Listed("G-M2"), Listed("G-M1-M2")},
                                             std::move(messages)),
            HandDriven());
        provider->Start();
        for (const std::string symbol : {"IM_G-M1", "IM_G-M2", "IM_G-M1-M2"})
        {
            listeners[symbol] = std::make_shared<RecordingListener>();
            ASSERT_EQ(provider->Subscribe(Request(1, symbol), listeners[symbol]), SubscribeStatus::Subscribed);
        }
    }
    std::unique_ptr<MdsProvider> provider;
    std::map<std::string, std::shared_ptr<RecordingListener>> listeners;
};

TEST_F(ImpliedProviderTest, ListsImpliedInstrumentsInTheDirectory)
{
    Make({});
    ASSERT_TRUE(provider->GetDirectory().Find(1, -1, "IM_G-M1").has_value());
    EXPECT_EQ(provider->GetDirectory().Find(1, -1, "IM_G-M1")->description, "implied");
    EXPECT_EQ(provider->GetDirectory().GetSize(), 6U);
}

TEST_F(ImpliedProviderTest, FollowsTheLegsWithMinimalChanges)
{
    Make({BookMessage(0, true, {Bid("100", "5"), Ask("101", "2")}),
          BookMessage(1, true, {Bid("110", "3"), Ask("111", "4")}), BookMessage(0, false, {Bid("100", "2")}),
          BookMessage(0, false, {Bid("50", "2")}), BookMessage(0, false, {Ask("101", "0")})});
    const auto& spread = listeners["IM_G-M1-M2"];
    spread->KeepUpdates();
    provider->Step();
    EXPECT_EQ(spread->PrintBook(), "|");
    provider->Step();
    EXPECT_EQ(spread->PrintBook(), "-11x4 | -9x2");
    provider->Step();
    EXPECT_EQ(spread->PrintBook(), "-11x2 | -9x2");
    provider->Step();
    EXPECT_EQ(spread->PrintBook(), "-11x2 -61x2 | -9x2");
    provider->Step();
    EXPECT_EQ(spread->PrintBook(), "-11x2 -61x2 |");
    const auto updates = spread->TakeUpdates();
    ASSERT_THAT(updates, SizeIs(5));
    EXPECT_TRUE(updates[0]->isImage);
    EXPECT_THAT(updates[2]->changes, ElementsAre(Bid("-11", "2")));
    EXPECT_THAT(updates[3]->changes, ElementsAre(Bid("-61", "2")));
    EXPECT_THAT(updates[4]->changes, ElementsAre(Ask("-9", "0")));
    EXPECT_EQ(spread->GetOrderFaults(), 0U);
}

TEST_F(ImpliedProviderTest, BeginsANewEpochWithAnImageWhenTheLegsDo)
{
    Make({BookMessage(0, true, {Bid("100", "5")}), BookMessage(1, true, {Ask("111", "4")}), BookMessage(0, true, {}, 2),
          BookMessage(1, true, {}, 2), BookMessage(1, true, {Ask("111", "4")}, 2),
          BookMessage(0, true, {Bid("100", "1")}, 2)});
    const auto& spread = listeners["IM_G-M1-M2"];
    provider->Step();
    provider->Step();
    EXPECT_EQ(spread->PrintBook(), "-11x4 |");
    provider->Step();
    EXPECT_EQ(spread->PrintBook(), "|");
    EXPECT_EQ(spread->GetEpoch(), 2U);
    while (provider->Step())
    {
    }
    EXPECT_EQ(spread->PrintBook(), "-11x1 |");
    EXPECT_EQ(spread->GetOrderFaults(), 0U);
}

TEST_F(ImpliedProviderTest, RenamesAnImpliedInstrumentWithItsSymbol)
{
    Make({BookMessage(0, true, {Bid("100", "5")}), BookMessage(1, true, {Ask("111", "4")})});
    provider->Step();
    provider->RenameNow(std::vector<SymbolRename>{{1, "G-M1-M2", "GS"}});
    provider->Step();
    const auto renamed = std::make_shared<RecordingListener>();
    ASSERT_EQ(provider->Subscribe(Request(1, "IM_GS"), renamed), SubscribeStatus::Subscribed);
    EXPECT_EQ(renamed->PrintBook(), "-11x4 |");
    EXPECT_EQ(provider->Subscribe(Request(1, "IM_G-M1-M2"), std::make_shared<RecordingListener>()),
              SubscribeStatus::Failed);
}

/// What the levels of several walks add up to, best first.
std::string AddUp(const std::vector<std::vector<BookLevel>>& parts, BookSideType side, std::size_t depth)
{
    std::map<std::int64_t, std::int64_t> sums;
    for (const auto& part : parts)
    {
        for (const BookLevel& level : part)
        {
            sums[side == BookSideType::Bid ? -level.price : level.price] += level.quantity;
        }
    }
    std::string text;
    for (const auto& [key, quantity] : sums)
    {
        if (depth-- == 0)
        {
            break;
        }
        text += FormatPrice(side == BookSideType::Bid ? -key : key) + "x" + FormatQuantity(quantity) + " ";
    }
    return text;
}

std::string FullWalk(const ImpliedTarget& target, const std::vector<LevelBook>& books)
{
    std::string text;
    for (const BookSideType side : {BookSideType::Bid, BookSideType::Ask})
    {
        std::vector<std::vector<BookLevel>> parts;
        for (const ImpliedRecipe& recipe : target.recipes)
        {
            ImpliedSide result;
            WalkImplied(recipe.operation, side, books[recipe.first], books[recipe.second], ImpliedEngine::kUsualDepth,
                        result);
            parts.push_back(result.levels);
        }
        text += AddUp(parts, side, ImpliedEngine::kUsualDepth) + (side == BookSideType::Bid ? "| " : "");
    }
    text.erase(text.find_last_not_of(' ') + 1);
    return text;
}

TEST(ImpliedEngine, AgreesWithWorkingEverythingOutAfterEachMessageOfTheSimulation)
{
    SimulationOptions options;
    options.messages = 20'000;
    MarketSimulation model(options);
    const std::atomic<bool> stop{false};
    model.Open(stop);
    std::vector<SourceInstrument> instruments = model.GetInstruments();
    const auto targets = ResolveImpliedRules(DetectImpliedRules(instruments), instruments);
    ASSERT_THAT(targets, SizeIs(18));
    std::vector<LevelBook> books(instruments.size());

    MdsProvider provider(std::make_unique<MarketSimulation>(options), HandDriven());
    provider.Start();
    std::vector<std::shared_ptr<RecordingListener>> listeners;
    for (const ImpliedTarget& target : targets)
    {
        listeners.push_back(std::make_shared<RecordingListener>());
        ASSERT_EQ(provider.Subscribe(Request(1, instruments[target.instrument].symbol), listeners.back()),
                  SubscribeStatus::Subscribed);
    }
    MarketMessage message;
    for (int step = 0; model.Next(message); ++step)
    {
        books[message.instrument].Apply(message.changes, message.isImage);
        ASSERT_TRUE(provider.Step());
        const std::size_t at = static_cast<std::size_t>(step) % targets.size();
        if (step > 40)
        {
            ASSERT_EQ(listeners[at]->PrintBook(), FullWalk(targets[at], books)) << "step " << step;
        }
    }
    for (const auto& listener : listeners)
    {
        EXPECT_EQ(listener->GetOrderFaults(), 0U);
        EXPECT_GT(listener->GetSequence(), 100U);
    }
}

/// The books of the two legs, kept from the recorded rows by the test itself.
struct RowBook
{
    std::map<std::int64_t, std::int64_t> bids;
    std::map<std::int64_t, std::int64_t> asks;
    bool isInImage = false;

    void Apply(const RecordingRow& row)
    {
        if (row.event == RowEvent::Snap && !isInImage)
        {
            bids.clear();
            asks.clear();
        }
        isInImage = row.event == RowEvent::Snap && !row.isLast;
        auto& side = row.side == 'B' ? bids : asks;
        side[row.price] = row.quantity;
        if (row.quantity == 0)
        {
            side.erase(row.price);
        }
    }
};

std::int64_t CrossPrice(std::int64_t first, std::int64_t second, bool roundsUp)
{
    __extension__ using Wide = __int128;
    const Wide scaled = static_cast<Wide>(first) * kPriceUnitsPerOne;
    const Wide whole = scaled / second;
    return static_cast<std::int64_t>(roundsUp && whole * second != scaled ? whole + 1 : whole);
}

TEST(ImpliedEngine, GivesTheCrossOfTheRecordedPairs)
{
    const std::string path = DataFile("many_instruments/poloniex.csv.zst");
    ReplayOptions replay;
    replay.files = {path};
    MdsProvider provider(std::make_unique<ReplaySource>(replay, OneMarket("POLONIEX")), HandDriven());
    provider.Start();
    const auto implied = std::make_shared<RecordingListener>();
    ASSERT_EQ(provider.Subscribe(Request(1, "IM_BCH_BTC"), implied), SubscribeStatus::Subscribed);

    ProblemLog problems(path, LogProblems());
    RecordingReader reader(path, problems);
    RecordingRow row;
    std::map<std::string, RowBook> books;
    std::size_t compared = 0;
    std::set<std::int64_t> bestBids;
    while (reader.Next(row))
    {
        if (row.event != RowEvent::Trade)
        {
            books[std::string(row.symbol)].Apply(row);
        }
        if (!row.isLast)
        {
            continue;
        }
        ASSERT_TRUE(provider.Step());
        const RowBook& bch = books["BCH_USDT"];
        const RowBook& btc = books["BTC_USDT"];
        if (bch.bids.empty() || bch.asks.empty() || btc.bids.empty() || btc.asks.empty())
        {
            continue;
        }
        const LevelSide& bids = implied->GetBook().GetSide(BookSideType::Bid);
        const LevelSide& asks = implied->GetBook().GetSide(BookSideType::Ask);
        ASSERT_FALSE(bids.IsEmpty());
        ASSERT_FALSE(asks.IsEmpty());
        ASSERT_EQ(bids.Get(0).price, CrossPrice(bch.bids.rbegin()->first, btc.asks.begin()->first, false));
        ASSERT_EQ(asks.Get(0).price, CrossPrice(bch.asks.begin()->first, btc.bids.rbegin()->first, true));
        bestBids.insert(bids.Get(0).price);
        ++compared;
    }
    EXPECT_GT(compared, 200U);
    EXPECT_GT(bestBids.size(), 10U);
    EXPECT_EQ(implied->GetOrderFaults(), 0U);
}

} // namespace
} // namespace ps_ns
