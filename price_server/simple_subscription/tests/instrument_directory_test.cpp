#include "simple_subscription/instrument_directory.h"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <thread>

using namespace ps_ns;

namespace
{

DirectoryEntry MakeEntry(short market, short submarket, const std::string& symbol, const std::string& exchange = "")
{
    DirectoryEntry entry;
    entry.submarket = {market, submarket};
    entry.symbol = symbol;
    entry.exchange = exchange;
    return entry;
}

class InstrumentDirectoryTest : public testing::Test
{
protected:
    /// What Find says of a symbol in market 2: the exchange of its entry, or "none".
    std::string ExchangeOf(const std::string& symbol, short submarket = -1) const
    {
        const auto entry = m_directory.Find(2, submarket, symbol);
        return entry ? entry->exchange : "none";
    }

    InstrumentDirectory m_directory;
};

} // namespace

using Directory = InstrumentDirectoryTest;

TEST_F(Directory, KnowsNothingAtFirst)
{
    EXPECT_EQ(m_directory.GetSize(), 0U);
    EXPECT_FALSE(m_directory.CanKnow(2));
    EXPECT_FALSE(m_directory.IsComplete(2));
    EXPECT_FALSE(m_directory.Find(2, -1, "A"));
    EXPECT_TRUE(m_directory.GetEntries().empty());
}

TEST_F(Directory, FindsWhatWasAdded)
{
    DirectoryEntry entry = MakeEntry(2, 3, "A", "X");
    entry.description = "an instrument";
    entry.format.denominator = 100;
    m_directory.Add(entry);
    const auto found = m_directory.Find(2, 3, "A");
    ASSERT_TRUE(found);
    EXPECT_EQ(found->submarket, (Submarket{2, 3}));
    EXPECT_EQ(found->symbol, "A");
    EXPECT_EQ(found->exchange, "X");
    EXPECT_EQ(found->description, "an instrument");
    EXPECT_EQ(found->format.denominator, 100U);
    EXPECT_TRUE(m_directory.CanKnow(2));
}

TEST_F(Directory, FindsASymbolInItsMarketAndSubmarketOnly)
{
    m_directory.Add(MakeEntry(2, 3, "A"));
    EXPECT_FALSE(m_directory.Find(1, 3, "A"));
    EXPECT_FALSE(m_directory.Find(2, 4, "A"));
    EXPECT_FALSE(m_directory.Find(2, 3, "a"));
    EXPECT_FALSE(m_directory.Find(2, 3, ""));
}

TEST_F(Directory, FindsAnySubmarketByMinusOneOnEitherSide)
{
    m_directory.Add(MakeEntry(2, 3, "A"));
    m_directory.Add(MakeEntry(2, -1, "B"));
    EXPECT_TRUE(m_directory.Find(2, -1, "A"));
    EXPECT_TRUE(m_directory.Find(2, 3, "B"));
    EXPECT_TRUE(m_directory.Find(2, 99, "B"));
    EXPECT_TRUE(m_directory.Find(2, -1, "B"));
    EXPECT_FALSE(m_directory.Find(-1, -1, "A")) << "a market is never any";
}

TEST_F(Directory, KeepsTheFirstSymbolThroughAllRenames)
{
    DirectoryEntry known = MakeEntry(2, -1, "FOXA");
    known.firstSymbol = "NWSA";
    m_directory.AddAll({MakeEntry(2, -1, "FB"), known});
    ASSERT_TRUE(m_directory.Rename(2, "FB", "META"));
    ASSERT_TRUE(m_directory.Rename(2, "FOXA", "TFCFA"));
    EXPECT_EQ(m_directory.Find(2, -1, "META")->firstSymbol, "FB");
    EXPECT_EQ(m_directory.Find(2, -1, "TFCFA")->firstSymbol, "NWSA");
}

TEST_F(Directory, ReplacesAnEntryOfTheSameMarketAndSymbol)
{
    m_directory.Add(MakeEntry(2, 3, "A", "X"));
    m_directory.Add(MakeEntry(2, 4, "A", "Y"));
    EXPECT_EQ(m_directory.GetSize(), 1U);
    EXPECT_EQ(ExchangeOf("A", 3), "none");
    EXPECT_EQ(ExchangeOf("A", 4), "Y");
}

TEST_F(Directory, RenamesAnInstrument)
{
    m_directory.Add(MakeEntry(2, 3, "A", "X"));
    EXPECT_TRUE(m_directory.Rename(2, "A", "B"));
    EXPECT_EQ(ExchangeOf("A"), "none");
    EXPECT_EQ(ExchangeOf("B", 3), "X");
    EXPECT_EQ(m_directory.Find(2, -1, "B")->symbol, "B");
    EXPECT_EQ(m_directory.GetSize(), 1U);
}

TEST_F(Directory, RenamesAlongAChain)
{
    m_directory.Add(MakeEntry(2, -1, "A", "X"));
    m_directory.Add(MakeEntry(2, -1, "B", "Y"));
    EXPECT_TRUE(m_directory.Rename(2, "B", "C"));
    EXPECT_TRUE(m_directory.Rename(2, "A", "B"));
    EXPECT_EQ(ExchangeOf("A"), "none");
    EXPECT_EQ(ExchangeOf("B"), "X");
    EXPECT_EQ(ExchangeOf("C"), "Y");
    EXPECT_TRUE(m_directory.Rename(2, "B", "A"));
    EXPECT_EQ(ExchangeOf("A"), "X");
    EXPECT_EQ(m_directory.GetSize(), 2U);
}

TEST_F(Directory, ReplacesWhatHadTheNewSymbol)
{
    m_directory.Add(MakeEntry(2, -1, "A", "X"));
    m_directory.Add(MakeEntry(2, -1, "B", "Y"));
    EXPECT_TRUE(m_directory.Rename(2, "A", "B"));
    EXPECT_EQ(ExchangeOf("B"), "X");
    EXPECT_EQ(m_directory.GetSize(), 1U);
}

TEST_F(Directory, KeepsAnInstrumentRenamedToItsOwnSymbol)
{
    m_directory.Add(MakeEntry(2, -1, "A", "X"));
    EXPECT_TRUE(m_directory.Rename(2, "A", "A"));
    EXPECT_EQ(ExchangeOf("A"), "X");
    EXPECT_EQ(m_directory.GetSize(), 1U);
}

TEST_F(Directory, RenamesWithinOneMarketOnly)
{
    m_directory.Add(MakeEntry(1, -1, "A"));
    m_directory.Add(MakeEntry(2, -1, "A"));
    EXPECT_TRUE(m_directory.Rename(1, "A", "B"));
    EXPECT_TRUE(m_directory.Find(2, -1, "A"));
    EXPECT_FALSE(m_directory.Find(2, -1, "B"));
}

TEST_F(Directory, RenamesNothingItDoesNotKnow)
{
    m_directory.Add(MakeEntry(2, -1, "A"));
    EXPECT_FALSE(m_directory.Rename(2, "B", "C"));
    EXPECT_FALSE(m_directory.Rename(7, "A", "B"));
    EXPECT_EQ(m_directory.GetSize(), 1U);
    EXPECT_FALSE(m_directory.CanKnow(7)) << "a market does not become known by a rename in it";
}

TEST_F(Directory, CanKnowADeclaredMarketBeforeItHasInstruments)
{
    m_directory.AddMarket(2);
    EXPECT_TRUE(m_directory.CanKnow(2));
    EXPECT_FALSE(m_directory.IsComplete(2));
    EXPECT_FALSE(m_directory.CanKnow(1));
}

TEST_F(Directory, KeepsItsInstrumentsWhenAMarketIsDeclaredAgain)
{
    m_directory.Add(MakeEntry(2, -1, "A"));
    m_directory.AddMarket(2);
    m_directory.MarkComplete(2);
    EXPECT_EQ(m_directory.GetSize(), 1U);
}

TEST_F(Directory, IsReadingAMarketThatItCanKnowUntilItIsComplete)
{
    EXPECT_FALSE(m_directory.IsReading(2));
    m_directory.AddMarket(2);
    EXPECT_TRUE(m_directory.IsReading(2));
    EXPECT_FALSE(m_directory.IsReading(1));
    m_directory.MarkComplete(2);
    EXPECT_FALSE(m_directory.IsReading(2));
}

TEST_F(Directory, HasWhatItFinds)
{
    DirectoryEntry entry;
    entry.symbol = "A";
    entry.submarket = {2, 3};
    m_directory.Add(entry);
    for (const short market : {short{1}, short{2}, short{-1}})
    {
        for (const short submarket : {short{-1}, short{3}, short{4}})
        {
            for (const char* const symbol : {"A", "B", ""})
            {
                EXPECT_EQ(m_directory.Has(market, submarket, symbol),
                          m_directory.Find(market, submarket, symbol).has_value())
                    << market << " " << submarket << " " << symbol;
            }
        }
    }
    EXPECT_TRUE(m_directory.Has(2, 3, "A"));
    EXPECT_FALSE(m_directory.Has(2, 4, "A"));
}

TEST_F(Directory, IsCompleteByMarketAndStaysSo)
{
    m_directory.MarkComplete(2);
    EXPECT_TRUE(m_directory.IsComplete(2));
    EXPECT_TRUE(m_directory.CanKnow(2));
    EXPECT_FALSE(m_directory.IsComplete(1));
    m_directory.Add(MakeEntry(2, -1, "A"));
    EXPECT_TRUE(m_directory.IsComplete(2));
}

TEST_F(Directory, ListsItsEntriesByMarketAndSymbol)
{
    m_directory.Add(MakeEntry(2, -1, "B"));
    m_directory.Add(MakeEntry(10, -1, "A"));
    m_directory.Add(MakeEntry(2, -1, "A"));
    m_directory.Add(MakeEntry(-1, -1, "Z"));
    std::vector<std::string> listed;
    for (const DirectoryEntry& entry : m_directory.GetEntries())
    {
        listed.push_back(std::to_string(entry.submarket.marketId) + entry.symbol);
    }
    EXPECT_EQ(listed, (std::vector<std::string>{"-1Z", "2A", "2B", "10A"}));
}

TEST_F(Directory, IsReadWhileItIsFilled)
{
    constexpr int kEntries = 2000;
    std::latch start(2);
    std::atomic<bool> sawHoles{false};
    std::thread reader(
        [&]
        {
            start.arrive_and_wait();
            std::size_t known = 0;
            while (!m_directory.IsComplete(2))
            {
                const std::size_t size = m_directory.GetSize();
                sawHoles = sawHoles || size < known || (size > 0 && !m_directory.Find(2, -1, "0"));
                known = size;
            }
        });
    start.arrive_and_wait();
    for (int number = 0; number < kEntries; ++number)
    {
        m_directory.Add(MakeEntry(2, -1, std::to_string(number)));
    }
    m_directory.MarkComplete(2);
    reader.join();
    EXPECT_FALSE(sawHoles);
    EXPECT_EQ(m_directory.GetSize(), static_cast<std::size_t>(kEntries));
}
