#include "gateway/instrument_list.h"

#include "composite_instrument/composite_component_type.h"

#include <gtest/gtest.h>

namespace ps_ns
{
namespace
{

DirectoryEntry Entry(short market, const std::string& symbol)
{
    DirectoryEntry entry;
    entry.submarket.marketId = market;
    entry.symbol = symbol;
    entry.exchange = "EX";
    return entry;
}

class WatchedInstruments : public ::testing::Test
{
protected:
    std::string ErrorOf(const std::string& text) const
    {
        try
        {
            FindInstrument(instruments, text);
        }
        catch (const UnknownInstrument& error)
        {
            return error.what();
        }
        return "found";
    }

    const MarketTable markets{{{1, "SPOT"}, {2, "USDM"}}};
    const std::vector<ListedInstrument> instruments =
        ListInstruments({Entry(1, "BTCUSDT"), Entry(2, "BTCUSDT"), Entry(2, "ETHUSDT"), Entry(2, "IM_ETHUSDT"),
                         Entry(2, "IM_ONLY"), Entry(2, "AI_BTC"), Entry(1, "A:B")},
                        markets);
};

TEST_F(WatchedInstruments, AreListedOnceWithTheComponentsThatThereAre)
{
    ASSERT_EQ(instruments.size(), 5U);
    EXPECT_EQ(instruments[0].GetName(), "SPOT:A:B");
    EXPECT_EQ(instruments[3].GetName(), "USDM:ETHUSDT");
    EXPECT_TRUE(instruments[3].hasDirect && instruments[3].hasImplied);
    EXPECT_EQ(instruments[4].GetName(), "USDM:ONLY");
    EXPECT_TRUE(!instruments[4].hasDirect && instruments[4].hasImplied);
}

TEST_F(WatchedInstruments, AreFoundBySymbolOrByMarketAndSymbol)
{
    EXPECT_EQ(FindInstrument(instruments, "ETHUSDT").GetName(), "USDM:ETHUSDT");
    EXPECT_EQ(FindInstrument(instruments, "SPOT:BTCUSDT").GetName(), "SPOT:BTCUSDT");
    EXPECT_EQ(FindInstrument(instruments, "A:B").GetName(), "SPOT:A:B");
}

TEST_F(WatchedInstruments, NeedTheirMarketWhenTheSymbolIsOnSeveral)
{
    EXPECT_EQ(ErrorOf("BTCUSDT"), "\"BTCUSDT\" is on several markets: say SPOT:BTCUSDT or USDM:BTCUSDT");
}

TEST_F(WatchedInstruments, AreSuggestedWhenANameIsNearlyOneOfThem)
{
    EXPECT_EQ(ErrorOf("ETHUSDC"), "there is no instrument \"ETHUSDC\"; near are USDM:ETHUSDT");
    EXPECT_EQ(ErrorOf("btcusdt"), "there is no instrument \"btcusdt\"; near are SPOT:BTCUSDT and USDM:BTCUSDT");
    EXPECT_EQ(ErrorOf("eth"), "there is no instrument \"eth\"; near are USDM:ETHUSDT");
}

TEST_F(WatchedInstruments, AreNamedByExampleWhenNothingIsNear)
{
    EXPECT_EQ(ErrorOf("QQQQQQQQQQQQ"), "there is no instrument \"QQQQQQQQQQQQ\"; there are 5, such as SPOT:A:B, "
                                       "SPOT:BTCUSDT and USDM:BTCUSDT");
}

TEST_F(WatchedInstruments, AreChosenWithSeveralComponentsFirstAndEachOfAnotherAsset)
{
    const auto listed = ListInstruments(
        {Entry(1, "GOLD-A"), Entry(1, "GOLD-B"), Entry(1, "IM_GOLD-B"), Entry(1, "OIL-A"), Entry(1, "WHEAT_A")},
        markets);
    const auto chosen = ChooseInstruments(listed, 2);
    ASSERT_EQ(chosen.size(), 2U);
    EXPECT_EQ(chosen[0].GetName(), "SPOT:GOLD-B");
    EXPECT_EQ(chosen[1].GetName(), "SPOT:OIL-A");
    EXPECT_TRUE(ChooseInstruments({}, 2).empty());
}

TEST_F(WatchedInstruments, WantTheComponentsThatThereAre)
{
    const CompositeInstrumentDef both = MakeDefinition(FindInstrument(instruments, "ETHUSDT"));
    EXPECT_EQ(both.components, (std::array<bool, 3>{true, true, false}));
    EXPECT_EQ(both.marketId, 2);
    EXPECT_EQ(both.GetSymbol(), "ETHUSDT");
    EXPECT_EQ(both.instrument.exchange, "EX");
    const CompositeInstrumentDef implied = MakeDefinition(FindInstrument(instruments, "ONLY"));
    EXPECT_EQ(implied.components, (std::array<bool, 3>{false, true, false}));
}

TEST_F(WatchedInstruments, HaveAnIdentityOfTheirOwnThatStaysTheSame)
{
    const CompositeInstrumentDef spot = MakeDefinition(FindInstrument(instruments, "SPOT:BTCUSDT"));
    EXPECT_EQ(spot.instrumentId, MakeDefinition(FindInstrument(instruments, "SPOT:BTCUSDT")).instrumentId);
    EXPECT_NE(spot.instrumentId, MakeDefinition(FindInstrument(instruments, "USDM:BTCUSDT")).instrumentId);
    EXPECT_EQ(spot.instrumentId, 15696439293683817676U); // of "SPOT:BTCUSDT": clients may have kept it
}

TEST_F(WatchedInstruments, KeepTheirIdentityUnderANewSymbolThatWasAnothersBefore)
{
    InstrumentDirectory directory;
    directory.AddAll({Entry(1, "GOOCV"), Entry(1, "GOOG"), Entry(1, "IM_GOOG"), Entry(1, "IM_ONLY")});
    const auto getIdentity = [&](const std::string& name)
    { return MakeDefinition(FindInstrument(ListInstruments(directory.GetEntries(), markets), name)).instrumentId; };
    const std::uint64_t classC = getIdentity("GOOCV");
    const std::uint64_t classA = getIdentity("GOOG");
    const std::uint64_t only = getIdentity("ONLY");
    for (const auto& [from, to] : {std::pair("GOOG", "GOOGL"), std::pair("IM_GOOG", "IM_GOOGL"),
                                   std::pair("GOOCV", "GOOG"), std::pair("IM_ONLY", "IM_LATER")})
    {
        ASSERT_TRUE(directory.Rename(1, from, to));
    }
    EXPECT_EQ(getIdentity("GOOG"), classC);
    EXPECT_EQ(getIdentity("GOOGL"), classA);
    EXPECT_EQ(getIdentity("LATER"), only);
}

} // namespace
} // namespace ps_ns
