#include "mds/market_simulation.h"

#include "mds/implied_rules.h"
#include "test_support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

namespace ps_ns
{
namespace
{

using namespace testing_ns;
using ::testing::Contains;

MarketSimulation Open(std::uint64_t seed, std::uint64_t messages = 0)
{
    SimulationOptions options;
    options.seed = seed;
    options.messages = messages;
    MarketSimulation simulation(options);
    const std::atomic<bool> stop{false};
    simulation.Open(stop);
    return simulation;
}

/// Everything that a number of messages say, as one number.
std::uint64_t Fingerprint(std::uint64_t seed, int messages)
{
    MarketSimulation simulation = Open(seed);
    MarketMessage message;
    std::uint64_t print = 14695981039346656037U;
    const auto add = [&](std::uint64_t value) { print = (print ^ value) * 1099511628211U; };
    for (int i = 0; i < messages && simulation.Next(message); ++i)
    {
        add(message.instrument);
        add(message.sourceTime_ns);
        for (const BookUpdate::Change& change : message.changes)
        {
            add(static_cast<std::uint64_t>(change.price));
            add(static_cast<std::uint64_t>(change.quantity));
            add(static_cast<std::uint64_t>(change.side));
        }
        for (const Trade& trade : message.trades)
        {
            add(static_cast<std::uint64_t>(trade.price));
            add(static_cast<std::uint64_t>(trade.quantity));
        }
    }
    return print;
}

TEST(MarketSimulation, GivesTheSameStreamForTheSameSeedOnly)
{
    EXPECT_EQ(Fingerprint(5, 20'000), Fingerprint(5, 20'000));
    EXPECT_NE(Fingerprint(5, 20'000), Fingerprint(6, 20'000));
}

TEST(MarketSimulation, ListsOutrightsAndTheCalendarSpreadsBetweenThem)
{
    const MarketSimulation simulation = Open(1);
    std::set<std::string> symbols;
    for (const SourceInstrument& instrument : simulation.GetInstruments())
    {
        symbols.insert(instrument.symbol);
    }
    EXPECT_EQ(symbols.size(), 18U);
    EXPECT_THAT(symbols, Contains("GOLD-MAR27"));
    EXPECT_THAT(symbols, Contains("GOLD-MAR27-JUN27"));
    EXPECT_THAT(symbols, Contains("WHEAT-JUN27-SEP27"));
    EXPECT_EQ(DetectImpliedRules(simulation.GetInstruments()).size(), 27U); // 9 spreads, three rules each
}

TEST(MarketSimulation, BeginsWithAnImageOfEveryInstrument)
{
    MarketSimulation simulation = Open(1);
    MarketMessage message;
    for (InstrumentIndex instrument = 0; instrument < simulation.GetInstruments().size(); ++instrument)
    {
        ASSERT_TRUE(simulation.Next(message));
        EXPECT_EQ(message.instrument, instrument);
        EXPECT_TRUE(message.isImage);
    }
}

TEST(MarketSimulation, KeepsBooksUncrossedOnTheirTicksAndMoving)
{
    MarketSimulation simulation = Open(3);
    const auto& instruments = simulation.GetInstruments();
    std::vector<LevelBook> books(instruments.size());
    std::vector<std::set<std::int64_t>> bestBids(instruments.size());
    std::vector<std::size_t> trades(instruments.size());
    MarketMessage message;
    std::uint64_t time_ns = 0;
    for (int i = 0; i < 200'000; ++i)
    {
        ASSERT_TRUE(simulation.Next(message));
        ASSERT_GT(message.sourceTime_ns, time_ns);
        time_ns = message.sourceTime_ns;
        const InstrumentIndex at = message.instrument;
        const PriceFormat& format = instruments[at].format;
        const std::int64_t tick = kPriceUnitsPerOne / format.denominator * format.tickSize;
        for (const BookUpdate::Change& change : message.changes)
        {
            ASSERT_EQ(change.price % tick, 0);
            ASSERT_GE(change.quantity, 0);
        }
        for (const Trade& trade : message.trades)
        {
            // Trades happen at the best price of the side that was hit.
            const BookSideType hit = trade.aggressor == Trade::Aggressor::Buyer ? BookSideType::Ask : BookSideType::Bid;
            ASSERT_EQ(books[at].GetSide(hit).Get(0).price, trade.price);
            ASSERT_GT(trade.quantity, 0);
            ASSERT_LE(trade.quantity, books[at].GetSide(hit).Get(0).quantity);
        }
        books[at].Apply(message.changes, message.isImage);
        trades[at] += message.trades.size();
        const LevelSide& bids = books[at].GetSide(BookSideType::Bid);
        const LevelSide& asks = books[at].GetSide(BookSideType::Ask);
        if (!bids.IsEmpty() && !asks.IsEmpty())
        {
            ASSERT_LT(bids.Get(0).price, asks.Get(0).price);
            bestBids[at].insert(bids.Get(0).price);
        }
        ASSERT_LE(bids.GetSize(), 31U);
    }
    for (std::size_t at = 0; at < instruments.size(); ++at)
    {
        EXPECT_GT(bestBids[at].size(), 4U) << instruments[at].symbol;
        EXPECT_GT(trades[at], 100U) << instruments[at].symbol;
    }
}

TEST(MarketSimulation, SendsAsManyMessagesASecondAsAsked)
{
    SimulationOptions options;
    options.messagesPerSecond = 500;
    options.messages = 10'000;
    MarketSimulation simulation(options);
    const std::atomic<bool> stop{false};
    simulation.Open(stop);
    MarketMessage message;
    std::uint64_t count = 0;
    while (simulation.Next(message))
    {
        ++count;
    }
    EXPECT_EQ(count, 10'000U);
    const double seconds = static_cast<double>(message.sourceTime_ns - options.startTime_ns) / 1e9;
    EXPECT_NEAR(seconds, 20.0, 0.2);
}

TEST(MarketSimulation, GivesTwoProvidersTheSameBooks)
{
    const auto books = []
    {
        SimulationOptions options;
        options.messages = 5'000;
        MdsProvider provider(std::make_unique<MarketSimulation>(options), HandDriven());
        provider.Start();
        std::vector<std::shared_ptr<RecordingListener>> listeners;
        for (const DirectoryEntry& entry : provider.GetDirectory().GetEntries())
        {
            listeners.push_back(std::make_shared<RecordingListener>());
            provider.Subscribe(Request(1, entry.symbol), listeners.back());
        }
        while (provider.Step())
        {
        }
        std::vector<std::string> texts;
        for (const auto& listener : listeners)
        {
            EXPECT_EQ(listener->GetOrderFaults(), 0U);
            texts.push_back(listener->PrintBook());
        }
        return texts;
    };
    const std::vector<std::string> first = books();
    EXPECT_EQ(first.size(), 36U); // 18 listed, 18 implied
    EXPECT_EQ(first, books());
}

} // namespace
} // namespace ps_ns
