#include "mds/byte_stream.h"
#include "mds/mds_provider.h"
#include "mds/recording_scan.h"
#include "mds/replay_source.h"
#include "test_support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>

namespace ps_ns
{
namespace
{

using namespace testing_ns;

/// The levels of one instrument after the last message that bears a time.
struct GoldenBook
{
    std::uint64_t venueSequence = 0;
    std::vector<std::string> rows; ///< "side level price quantity"
};
using InstrumentName = std::pair<std::string, std::string>;
using GoldenBooks = std::map<InstrumentName, std::map<std::uint64_t, GoldenBook>>;

std::string ReadThrough(const std::string& path)
{
    const auto stream = OpenByteStream(path);
    std::string text;
    std::string part(65'536, '\0');
    while (const std::size_t got = stream->Read(part.data(), part.size()))
    {
        text.append(part, 0, got);
    }
    return text;
}

GoldenBooks ReadGolden(const std::string& path, std::size_t& rows)
{
    GoldenBooks books;
    std::istringstream text(ReadThrough(path));
    std::string line;
    std::getline(text, line);
    EXPECT_EQ(line, "ts_ns,market,symbol,seq,side,level,price,qty");
    for (rows = 0; std::getline(text, line); ++rows)
    {
        std::vector<std::string> fields;
        std::istringstream fieldText(line);
        for (std::string field; std::getline(fieldText, field, ',');)
        {
            fields.push_back(field);
        }
        GoldenBook& book = books[{fields.at(1), fields.at(2)}][std::stoull(fields.at(0))];
        book.venueSequence = fields.at(3).empty() ? 0 : std::stoull(fields.at(3));
        book.rows.push_back(fields.at(4) + " " + fields.at(5) + " " + fields.at(6) + " " + fields.at(7));
    }
    return books;
}

/// The levels of the listener's book that the golden file can have rows of.
std::vector<std::string> Top10(const LevelBook& book)
{
    std::vector<std::string> rows;
    for (const BookSideType side : {BookSideType::Bid, BookSideType::Ask})
    {
        const LevelSide& levels = book.GetSide(side);
        for (std::size_t rank = 0; rank < std::min<std::size_t>(levels.GetSize(), 10); ++rank)
        {
            rows.push_back(std::string(side == BookSideType::Bid ? "B " : "S ") + std::to_string(rank) + " " +
                           FormatPrice(levels.Get(rank).price) + " " + FormatQuantity(levels.Get(rank).quantity));
        }
    }
    return rows;
}

/// Follows one instrument, and compares when a later message, or the end, shows that the one before was the last of
/// its time.
class GoldenListener final : public IComponentListener
{
public:
    explicit GoldenListener(std::map<std::uint64_t, GoldenBook> expected)
        : m_expected(std::move(expected))
    {
    }
    void OnSubscribed(ps_messages_ns::SubscriptionResult::Value, const PriceFormat&) override {}
    void OnBook(std::shared_ptr<const BookUpdate> update) override
    {
        NextMessageAt(update->receiveTime_ns);
        m_book.Apply(update->changes, update->isImage);
        m_venueSequence = update->venueSequence;
    }
    void OnTrades(std::shared_ptr<const std::vector<Trade>>) override {}
    void OnCustomFields(std::shared_ptr<const CustomFields>) override {}
    void OnUnsubscribed(bool) override { NextMessageAt(0); }

    std::size_t GetComparedRows() const { return m_comparedRows; }
    std::size_t GetNotReached() const { return m_expected.size(); }

private:
    void NextMessageAt(std::uint64_t time_ns)
    {
        if (const auto golden = m_expected.find(m_time_ns); time_ns != m_time_ns && golden != m_expected.end())
        {
            EXPECT_EQ(m_venueSequence, golden->second.venueSequence);
            EXPECT_EQ(Top10(m_book), golden->second.rows) << "at " << m_time_ns;
            m_comparedRows += golden->second.rows.size();
            m_expected.erase(golden);
        }
        m_time_ns = time_ns;
    }

    std::map<std::uint64_t, GoldenBook> m_expected;
    LevelBook m_book;
    std::uint64_t m_time_ns = 0;
    std::uint64_t m_venueSequence = 0;
    std::size_t m_comparedRows = 0;
};

void ExpectGoldenBooks(const std::vector<std::string>& files, const std::string& goldenFile, std::size_t goldenRows)
{
    std::size_t rows = 0;
    const GoldenBooks golden = ReadGolden(DataFile(goldenFile), rows);
    ASSERT_EQ(rows, goldenRows);

    const std::atomic<bool> stop{false};
    const MarketTable markets = MakeMarketTable(ScanRecordings(files, LogProblems(), stop));
    ReplayOptions replay;
    replay.files = files;
    MdsProvider provider(std::make_unique<ReplaySource>(replay, markets), HandDriven());
    provider.Start();
    std::vector<std::shared_ptr<GoldenListener>> listeners;
    for (const auto& [name, books] : golden)
    {
        listeners.push_back(std::make_shared<GoldenListener>(books));
        ASSERT_EQ(provider.Subscribe(Request(markets.FindByName(name.first)->id, name.second), listeners.back()),
                  SubscribeStatus::Subscribed);
    }
    while (provider.Step())
    {
    }
    std::size_t comparedRows = 0;
    for (const auto& listener : listeners)
    {
        provider.Unsubscribe(listener);
        EXPECT_EQ(listener->GetNotReached(), 0U);
        comparedRows += listener->GetComparedRows();
    }
    EXPECT_EQ(comparedRows, goldenRows);
    EXPECT_EQ(provider.GetInFlight(), 0U);
}

TEST(RecordedMarkets, GiveTheIndependentlyBuiltBooksOfThreeSegments)
{
    ExpectGoldenBooks(ThreeSegments(), "three_segments/golden_top10.csv.zst", 1'560);
}

TEST(RecordedMarkets, GiveTheIndependentlyBuiltBooksOfManyInstruments)
{
    ExpectGoldenBooks(ManyInstruments(), "many_instruments/golden_top10.csv.zst", 3'800);
}

} // namespace
} // namespace ps_ns
