#include "mds/mds_provider.h"

#include "mds/market_simulation.h"
#include "mds/replay_source.h"
#include "test_support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ps_ns
{
namespace
{

using namespace testing_ns;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// A hand-driven provider over scripted messages of two instruments on market 1, A and B.
class MdsProviderTest : public ::testing::Test
{
protected:
    void Make(std::vector<MarketMessage> messages, MdsOptions options = HandDriven())
    {
        provider = std::make_unique<MdsProvider>(
            std::make_unique<ScriptedSource>(std::vector{Listed("A"), Listed("B")}, std::move(messages)),
            std::move(options));
        provider->Start();
    }
    void StepAll() const
    {
        while (provider->Step())
        {
        }
    }
    std::shared_ptr<RecordingListener> Join(const std::string& symbol, bool trades = true) const
    {
        auto listener = std::make_shared<RecordingListener>();
        EXPECT_EQ(provider->Subscribe(Request(1, symbol, trades), listener), SubscribeStatus::Subscribed) << symbol;
        return listener;
    }
    int TryJoin(const std::string& symbol) const
    {
        return provider->Subscribe(Request(1, symbol), std::make_shared<RecordingListener>());
    }
    static MarketMessage TradeMessage(InstrumentIndex instrument)
    {
        MarketMessage message = BookMessage(instrument, false, {});
        message.trades.emplace_back().price = P("10");
        return message;
    }

    std::unique_ptr<MdsProvider> provider;
};

TEST_F(MdsProviderTest, AnswersASubscribeWithTheFormatAndNoBookWhileThereIsNone)
{
    Make({});
    const auto listener = Join("A");
    EXPECT_THAT(listener->GetCalls(), ElementsAre("subscribed 0"));
    EXPECT_EQ(listener->GetFormat().fractionDigits, 2U);
    EXPECT_EQ(provider->GetType(), ProviderType::Mds);
}

TEST_F(MdsProviderTest, SendsThePresentBookFirstAndThenTheUpdatesThatFollowIt)
{
    Make({BookMessage(0, true, {Bid("10", "1"), Ask("11", "1")}), BookMessage(0, false, {Bid("9", "2")}),
          BookMessage(0, false, {Bid("10", "0")})});
    provider->Step();
    provider->Step();
    const auto listener = Join("A");
    EXPECT_THAT(listener->GetCalls(), ElementsAre("subscribed 0", "image"));
    EXPECT_EQ(listener->PrintBook(), "10x1 9x2 | 11x1");
    EXPECT_EQ(listener->GetSequence(), 2U);
    provider->Step();
    EXPECT_THAT(listener->GetCalls(), ElementsAre("subscribed 0", "image", "update"));
    EXPECT_EQ(listener->PrintBook(), "9x2 | 11x1");
    EXPECT_EQ(listener->GetSequence(), 3U);
    EXPECT_EQ(listener->GetOrderFaults(), 0U);
}

TEST_F(MdsProviderTest, MakesAnImageOfAFirstChangeThatIsNone)
{
    Make({BookMessage(0, false, {Bid("10", "1"), Bid("9", "0")}), BookMessage(0, false, {Bid("9", "1")})});
    const auto listener = Join("A");
    StepAll();
    EXPECT_THAT(listener->GetCalls(), ElementsAre("subscribed 0", "image", "update"));
    EXPECT_EQ(listener->PrintBook(), "10x1 9x1 |");
}

TEST_F(MdsProviderTest, OpensAnEpochWithAnImageThatForgetsTheOldBook)
{
    Make({BookMessage(0, true, {Bid("10", "1")}, 1), BookMessage(0, false, {Bid("7", "1")}, 2),
          BookMessage(0, false, {Bid("6", "1")}, 2)});
    const auto listener = Join("A");
    StepAll();
    EXPECT_EQ(listener->PrintBook(), "7x1 6x1 |");
    EXPECT_EQ(listener->GetEpoch(), 2U);
    EXPECT_EQ(listener->GetOrderFaults(), 0U);
}

TEST_F(MdsProviderTest, GivesAllListenersOfAnInstrumentTheSameObject)
{
    Make({BookMessage(0, true, {Bid("10", "1")})});
    const auto one = Join("A");
    const auto two = Join("A");
    one->KeepUpdates();
    two->KeepUpdates();
    StepAll();
    EXPECT_EQ(one->TakeUpdates().at(0), two->TakeUpdates().at(0));
}

TEST_F(MdsProviderTest, DeliversTradesToThoseWhoseScopeAsksForThem)
{
    Make({TradeMessage(0), TradeMessage(0)});
    const auto with = Join("A", true);
    const auto without = Join("A", false);
    provider->Step();
    EXPECT_EQ(with->GetTrades().size(), 1U);
    EXPECT_EQ(without->GetTrades().size(), 0U);
    provider->ChangeScope(without, Request(1, "A", true).scope);
    provider->ChangeScope(with, Request(1, "A", false).scope);
    provider->Step();
    EXPECT_EQ(with->GetTrades().size(), 1U);
    EXPECT_EQ(without->GetTrades().size(), 1U);
}

TEST_F(MdsProviderTest, AnswersAnUnsubscribeOnceAndCallsNothingAfterIt)
{
    Make({BookMessage(0, true, {Bid("10", "1")}), BookMessage(0, true, {Bid("11", "1")})});
    const auto listener = Join("A");
    provider->Step();
    provider->Unsubscribe(listener);
    provider->Step();
    EXPECT_THAT(listener->GetCalls(), ElementsAre("subscribed 0", "image", "unsubscribed"));
    EXPECT_EQ(listener.use_count(), 1);
}

TEST_F(MdsProviderTest, TellsAListenerItDoesNotKnowTrueAndIgnoresItsScope)
{
    Make({});
    const auto stranger = std::make_shared<RecordingListener>();
    provider->ChangeScope(stranger, {});
    provider->Unsubscribe(stranger);
    EXPECT_THAT(stranger->GetCalls(), ElementsAre("unsubscribed"));
}

TEST_F(MdsProviderTest, FailsOnUnknownSymbolsAndMarketsAndOnAListenerThatItHasAlready)
{
    Make({});
    EXPECT_EQ(TryJoin("C"), SubscribeStatus::Failed);
    const auto listener = std::make_shared<RecordingListener>();
    EXPECT_EQ(provider->Subscribe(Request(2, "A"), listener), SubscribeStatus::Failed);
    EXPECT_THAT(listener->GetCalls(), IsEmpty());
    EXPECT_EQ(provider->Subscribe(Request(1, "A"), listener), SubscribeStatus::Subscribed);
    EXPECT_EQ(provider->Subscribe(Request(1, "B"), listener), SubscribeStatus::Failed);
}

TEST_F(MdsProviderTest, HoldsNobodyAndServesNobodyAfterStop)
{
    Make({BookMessage(0, true, {Bid("10", "1")})});
    const auto listener = Join("A");
    provider->Stop();
    provider->Stop();
    EXPECT_EQ(listener.use_count(), 1);
    provider->Step();
    EXPECT_THAT(listener->GetCalls(), ElementsAre("subscribed 0"));
    EXPECT_EQ(TryJoin("A"), SubscribeStatus::Failed);
    provider->Unsubscribe(listener);
    EXPECT_THAT(listener->GetCalls(), ElementsAre("subscribed 0", "unsubscribed"));
}

TEST_F(MdsProviderTest, KnowsItsMarketsFromTheBeginningAndCompletesThemWithTheDirectory)
{
    const TemporaryFolder folder;
    ReplayOptions replay;
    replay.files = {folder.WriteRows("a.csv", "1,,M,A,book,B,,10.25,1,,1\n")};
    MdsProvider fromFile(std::make_unique<ReplaySource>(replay, OneMarket("M", 7)), HandDriven());
    EXPECT_TRUE(fromFile.GetDirectory().CanKnow(7));
    EXPECT_FALSE(fromFile.GetDirectory().IsComplete(7));
    fromFile.Start();
    EXPECT_TRUE(fromFile.GetDirectory().IsComplete(7));
    const auto entry = fromFile.GetDirectory().Find(7, -1, "A");
    ASSERT_TRUE(entry.has_value());
    EXPECT_EQ(entry->exchange, "M");
    EXPECT_EQ(entry->format.denominator, 100U);
}

TEST_F(MdsProviderTest, ThrowsAtStartWhenAFileIsMissing)
{
    ReplayOptions replay;
    replay.files = {"/nowhere/a.csv"};
    MdsProvider fromFile(std::make_unique<ReplaySource>(replay, OneMarket("M")));
    EXPECT_THROW(fromFile.Start(), std::runtime_error);
}

TEST_F(MdsProviderTest, StartsEachLoopWithEmptyBooks)
{
    const TemporaryFolder folder;
    ReplayOptions replay;
    replay.files = {folder.WriteRows("a.csv", "1,,M,A,snap,B,0,10,1,,1\n2,,M,A,book,B,,9,1,,1\n")};
    replay.loops = true;
    MdsProvider fromFile(std::make_unique<ReplaySource>(replay, OneMarket("M")), HandDriven());
    fromFile.Start();
    const auto listener = std::make_shared<RecordingListener>();
    listener->KeepUpdates();
    fromFile.Subscribe(Request(1, "A"), listener);
    for (int step = 0; step < 8; ++step)
    {
        ASSERT_TRUE(fromFile.Step());
    }
    std::vector<std::string> seen;
    for (const auto& update : listener->TakeUpdates())
    {
        seen.push_back(std::to_string(update->epoch) + "." + std::to_string(update->sequence) +
                       (update->isImage ? " image" : " update") + std::to_string(update->changes.size()));
    }
    EXPECT_THAT(seen, ElementsAre("1.1 image1", "1.2 update1", "2.1 image0", "2.2 image1", "2.3 update1", "3.1 image0",
                                  "3.2 image1", "3.3 update1"));
    EXPECT_EQ(listener->GetOrderFaults(), 0U);
}

TEST_F(MdsProviderTest, ServesARenamedInstrumentUnderItsNewSymbolOnly)
{
    Make({BookMessage(0, true, {Bid("10", "1")}), BookMessage(0, false, {Bid("9", "1")})});
    provider->Step();
    const auto before = Join("A");
    provider->RenameNow(std::vector<SymbolRename>{{1, "A", "META"}});
    provider->Step();
    EXPECT_THAT(before->GetCalls(), ElementsAre("subscribed 0", "image"));
    EXPECT_EQ(TryJoin("A"), SubscribeStatus::Failed);
    EXPECT_EQ(Join("META")->PrintBook(), "10x1 9x1 |");
    EXPECT_FALSE(provider->GetDirectory().Find(1, -1, "A").has_value());
    EXPECT_TRUE(provider->GetDirectory().Find(1, -1, "META").has_value());
    provider->Unsubscribe(before);
    EXPECT_THAT(before->GetCalls(), ElementsAre("subscribed 0", "image", "unsubscribed"));
}

TEST_F(MdsProviderTest, PassesANameOnWhenTwoInstrumentsAreRenamedTogether)
{
    std::vector<std::vector<SymbolRename>> heard;
    MdsOptions options = HandDriven();
    // As on 2014-04-03: class C took the name that class A gave up on the same day.
    options.renames = {{100, {1, "GOOCV", "GOOG"}}, {100, {1, "GOOG", "GOOGL"}}};
    options.onRenamed = [&](const std::vector<SymbolRename>& renames) { heard.push_back(renames); };
    provider = std::make_unique<MdsProvider>(
        std::make_unique<ScriptedSource>(std::vector{Listed("GOOCV"), Listed("GOOG")},
                                         std::vector{BookMessage(0, true, {Bid("3", "1")}, 1, 50),
                                                     BookMessage(1, true, {Bid("1", "1")}, 1, 99),
                                                     BookMessage(0, false, {Bid("2", "1")}, 1, 100)}),
        options);
    provider->Start();
    provider->Step();
    provider->Step();
    EXPECT_EQ(Join("GOOG")->PrintBook(), "1x1 |");
    EXPECT_THAT(heard, IsEmpty());
    provider->Step();
    EXPECT_EQ(Join("GOOG")->PrintBook(), "3x1 2x1 |");
    EXPECT_EQ(Join("GOOGL")->PrintBook(), "1x1 |");
    EXPECT_EQ(TryJoin("GOOCV"), SubscribeStatus::Failed);
    EXPECT_EQ(provider->GetDirectory().GetSize(), 2U);
    EXPECT_EQ(heard.size(), 1U);
}

TEST_F(MdsProviderTest, FollowsAChainOfRenamesAtDifferentTimes)
{
    MdsOptions options = HandDriven();
    options.renames = {{300, {1, "FOXA", "TFCFA"}}, {200, {1, "A", "FOXA"}}};
    Make({BookMessage(0, true, {Bid("3", "1")}, 1, 150), BookMessage(0, false, {Bid("2", "1")}, 1, 250),
          BookMessage(0, false, {Bid("1", "1")}, 1, 350)},
         options);
    provider->Step();
    EXPECT_EQ(TryJoin("A"), SubscribeStatus::Subscribed);
    provider->Step();
    EXPECT_EQ(TryJoin("FOXA"), SubscribeStatus::Subscribed);
    provider->Step();
    EXPECT_EQ(Join("TFCFA")->PrintBook(), "3x1 2x1 1x1 |");
    EXPECT_EQ(TryJoin("FOXA"), SubscribeStatus::Failed);
}

TEST_F(MdsProviderTest, LeavesItToTheStepWhenARenameThatIsDueIsMade)
{
    std::vector<std::string> order;
    MdsOptions options = HandDriven();
    options.renames = {{200, {-1, "A", "META"}}, {200, {1, "NONE", "C"}}};
    options.renameStep = [&](const std::vector<SymbolRename>& renames, const std::function<void()>& make)
    {
        ASSERT_THAT(renames, ElementsAre(SymbolRename{1, "A", "META"}));
        order.push_back(TryJoin("A") == SubscribeStatus::Subscribed ? "old" : "new");
        make();
        order.push_back(TryJoin("A") == SubscribeStatus::Subscribed ? "old" : "new");
    };
    options.onRenamed = [&](const std::vector<SymbolRename>&) { order.push_back("told"); };
    Make({BookMessage(0, true, {Bid("3", "1")}, 1, 199), BookMessage(0, false, {Bid("2", "1")}, 1, 200)}, options);
    provider->Step();
    EXPECT_THAT(order, IsEmpty());
    provider->Step();
    EXPECT_THAT(order, ElementsAre("old", "told", "new"));
    EXPECT_EQ(Join("META")->PrintBook(), "3x1 2x1 |");
}

TEST_F(MdsProviderTest, DoesNotMakeARenameThatIsOverWhenItsPricesBegin)
{
    MdsOptions options = HandDriven();
    options.renames = {{150, {1, "A", "C"}}};
    Make({BookMessage(0, true, {Bid("3", "1")}, 1, 150), BookMessage(0, false, {Bid("2", "1")}, 1, 250)}, options);
    StepAll();
    EXPECT_EQ(Join("A")->PrintBook(), "3x1 2x1 |");
}

TEST_F(MdsProviderTest, MakesADatedRenameOnceHoweverOftenItsSourceStartsOver)
{
    MdsOptions options = HandDriven();
    options.renames = {{200, {1, "A", "C"}}};
    Make({BookMessage(0, true, {Bid("3", "1")}, 1, 150), BookMessage(0, true, {Bid("2", "1")}, 1, 250),
          BookMessage(0, true, {Bid("4", "1")}, 2, 150), BookMessage(0, true, {Bid("5", "1")}, 2, 250)},
         options);
    StepAll();
    EXPECT_EQ(Join("C")->PrintBook(), "5x1 |");
    EXPECT_EQ(provider->GetDirectory().GetSize(), 2U);
}

TEST_F(MdsProviderTest, ReplacesTheInstrumentWhoseNameIsTaken)
{
    Make({BookMessage(0, true, {Bid("3", "1")}), BookMessage(1, true, {Bid("1", "1")}),
          BookMessage(1, true, {Bid("1", "5")})});
    provider->Step();
    provider->Step();
    const auto listenerOfB = Join("B");
    provider->RenameNow(std::vector<SymbolRename>{{1, "A", "B"}, {1, "NONE", "C"}});
    provider->Step();
    EXPECT_EQ(Join("B")->PrintBook(), "3x1 |");
    EXPECT_EQ(listenerOfB->PrintBook(), "1x1 |");
    provider->Unsubscribe(listenerOfB);
    EXPECT_EQ(listenerOfB->GetCalls().back(), "unsubscribed");
    EXPECT_EQ(provider->GetDirectory().GetSize(), 1U);
}

TEST_F(MdsProviderTest, OutlivesAListenerThatThrows)
{
    class Throwing : public RecordingListener
    {
    public:
        void OnBook(std::shared_ptr<const BookUpdate>) override { throw std::runtime_error("broken"); }
    };
    Make({BookMessage(0, true, {Bid("3", "1")})});
    const auto broken = std::make_shared<Throwing>();
    provider->Subscribe(Request(1, "A"), broken);
    const auto listener = Join("A");
    StepAll();
    EXPECT_EQ(listener->PrintBook(), "3x1 |");
}

TEST_F(MdsProviderTest, NeverWaitsForRoomWhenDrivenByHand)
{
    MdsOptions options = HandDriven();
    options.updatesInFlight = 1;
    Make({BookMessage(0, true, {Bid("3", "1")}), BookMessage(0, true, {Bid("4", "1")}),
          BookMessage(0, true, {Bid("5", "1")})},
         options);
    const auto listener = Join("A");
    listener->KeepUpdates();
    StepAll();
    EXPECT_EQ(listener->TakeUpdates().size(), 3U);
}

TEST(SymbolRename, OrdersChainsFromTheirEndsAndCirclesByWayOfAnotherName)
{
    const std::vector<SymbolRename> chain{{1, "A", "B"}, {1, "B", "C"}, {2, "C", "B"}};
    EXPECT_THAT(OrderRenames(chain),
                ElementsAre(SymbolRename{1, "B", "C"}, SymbolRename{1, "A", "B"}, SymbolRename{2, "C", "B"}));
    const std::vector<SymbolRename> circle{{1, "A", "B"}, {1, "B", "A"}};
    InstrumentDirectory directory;
    DirectoryEntry entry;
    entry.submarket.marketId = 1;
    for (const std::string name : {"A", "B"})
    {
        entry.symbol = name;
        entry.description = "was " + name;
        directory.Add(entry);
    }
    for (const SymbolRename& step : OrderRenames(circle))
    {
        EXPECT_TRUE(directory.Rename(step.marketId, step.oldSymbol, step.newSymbol));
    }
    EXPECT_EQ(directory.GetSize(), 2U);
    EXPECT_EQ(directory.Find(1, -1, "A")->description, "was B");
    EXPECT_EQ(directory.Find(1, -1, "B")->description, "was A");
}

} // namespace
} // namespace ps_ns
