#include "mds/recording_reader.h"

#include "mds/recording_scan.h"
#include "mds/seeded_random.h"
#include "mutate_row.h"
#include "test_support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ps_ns
{
namespace
{

using namespace testing_ns;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr const char* kGoodRow = "100,7,M,A,book,B,,1.5,2,9,1\n";

struct Result
{
    std::vector<std::string> rows; ///< "time symbol price quantity"
    Problems problems;
    std::uint64_t total = 0;
    std::uint64_t CountOf(ProblemKind kind) const { return counts.at(kind); }
    std::map<ProblemKind, std::uint64_t> counts;
};

Result ReadAll(const std::string& path)
{
    Result result;
    ProblemLog log(path, result.problems.Sink());
    RecordingReader reader(path, log);
    RecordingRow row;
    while (reader.Next(row))
    {
        result.rows.push_back(std::to_string(row.receiveTime_ns) + " " + std::string(row.symbol) + " " +
                              FormatPrice(row.price) + " " + FormatQuantity(row.quantity));
    }
    log.Summarise();
    result.total = log.GetTotal();
    for (std::size_t kind = 0; kind < static_cast<std::size_t>(ProblemKind::kCount); ++kind)
    {
        result.counts[static_cast<ProblemKind>(kind)] = log.GetCount(static_cast<ProblemKind>(kind));
    }
    return result;
}

/// Text of a recording with that many good rows.
std::string ManyRows(int rows)
{
    std::string text = std::string(kRecordingHeader) + "\n";
    for (int row = 0; row < rows; ++row)
    {
        text += std::to_string(1000 + row) + ",,M,A,book,B,," + std::to_string(row % 97 + 1) + ".25,1,,1\n";
    }
    return text;
}

TEST(RecordingReader, ReadsEveryFieldOfARow)
{
    const TemporaryFolder folder;
    const std::string path = folder.WriteRows("a.csv", "1723161256609369665,1723161257823,COINM,BTCUSD_PERP,snap,B,0,"
                                                       "61804.7,35,1007198635033,0\n"
                                                       "1723161256609369666,,SPOT,X,trade,,,0.00001814,0.5,,1\n");
    Problems problems;
    ProblemLog log(path, problems.Sink());
    RecordingReader reader(path, log);
    RecordingRow row;
    ASSERT_TRUE(reader.Next(row));
    EXPECT_EQ(row.receiveTime_ns, 1723161256609369665U);
    EXPECT_EQ(row.exchangeTime_ns, 1723161257823'000'000U);
    EXPECT_EQ(row.instrument, "COINM,BTCUSD_PERP");
    EXPECT_EQ(row.market, "COINM");
    EXPECT_EQ(row.symbol, "BTCUSD_PERP");
    EXPECT_EQ(row.event, RowEvent::Snap);
    EXPECT_EQ(row.side, 'B');
    EXPECT_EQ(row.price, P("61804.7"));
    EXPECT_EQ(row.quantity, Q("35"));
    EXPECT_EQ(row.venueSequence, 1007198635033U);
    EXPECT_EQ(row.priceDecimals, 1U);
    EXPECT_FALSE(row.isLast);
    ASSERT_TRUE(reader.Next(row));
    EXPECT_EQ(row.exchangeTime_ns, 0U);
    EXPECT_EQ(row.event, RowEvent::Trade);
    EXPECT_EQ(row.side, '\0');
    EXPECT_EQ(row.price, 181'400);
    EXPECT_EQ(row.priceDecimals, 8U);
    EXPECT_EQ(row.venueSequence, 0U);
    EXPECT_TRUE(row.isLast);
    EXPECT_FALSE(reader.Next(row));
    EXPECT_THAT(problems.texts, IsEmpty());
}

TEST(RecordingReader, ReadsPricesAsTheFixedPointParserDoes)
{
    const TemporaryFolder folder;
    const std::vector<std::string> prices{"0",
                                          "-3.25",
                                          "0.0000000001",
                                          "922337203",
                                          "922337203.6854775807",
                                          "12.50000000000",
                                          "-0.1",
                                          "000000000000000000000001.5"};
    std::string rows;
    for (const std::string& price : prices)
    {
        rows += "100,,M,A,book,B,," + price + ",1,,1\n";
    }
    const Result result = ReadAll(folder.WriteRows("a.csv", rows));
    ASSERT_THAT(result.rows, SizeIs(prices.size())) << result.problems.All();
    for (std::size_t i = 0; i < prices.size(); ++i)
    {
        EXPECT_EQ(result.rows[i], "100 A " + FormatPrice(ParsePrice(prices[i]).value()) + " 1");
    }
}

TEST(RecordingReader, ReportsEachKindOfMalformedRowWithFileAndLineAndKeepsTheOthers)
{
    const std::vector<std::pair<std::string, ProblemKind>> bad{
        {"100,7,M,A,book,B,,1.5,2,9", ProblemKind::FieldCount},
        {"100,7,M,A,book,B,,1.5,2,9,1,1", ProblemKind::FieldCount},
        {"", ProblemKind::FieldCount},
        {"10x,7,M,A,book,B,,1.5,2,9,1", ProblemKind::BadNumber},
        {",7,M,A,book,B,,1.5,2,9,1", ProblemKind::BadNumber},
        {"100,seven,M,A,book,B,,1.5,2,9,1", ProblemKind::BadNumber},
        {"100,18446744073709551615,M,A,book,B,,1.5,2,9,1", ProblemKind::BadNumber},
        {"100,7,M,A,book,B,,1.5e3,2,9,1", ProblemKind::BadNumber},
        {"100,7,M,A,book,B,,1.,2,9,1", ProblemKind::BadNumber},
        {"100,7,M,A,book,B,,.5,2,9,1", ProblemKind::BadNumber},
        {"100,7,M,A,book,B,,1.2.3,2,9,1", ProblemKind::BadNumber},
        {"100,7,M,A,book,B,,,2,9,1", ProblemKind::BadNumber},
        {"100,7,M,A,book,B,,-,2,9,1", ProblemKind::BadNumber},
        {"100,7,M,A,book,B,,1.5,-2,9,1", ProblemKind::BadNumber},
        {"100,7,M,A,snap,B,0,1.5,0,9,1", ProblemKind::BadNumber},
        {"100,7,M,A,snap,B,x,1.5,2,9,1", ProblemKind::BadNumber},
        {"100,7,M,A,book,B,,1.5,2,-9,1", ProblemKind::BadNumber},
        {"100,7,M,A,book,B,,1.5,2,9,2", ProblemKind::BadNumber},
        {"100,7,M,A,book,B,,1000000000,2,9,1", ProblemKind::OutOfRange},
        {"100,7,M,A,book,B,,99999999999999999999999,2,9,1", ProblemKind::OutOfRange},
        {"100,7,M,A,book,B,,0.00000000001,2,9,1", ProblemKind::OutOfRange},
        {"100,7,M,A,book,B,,1.5,92233720369,9,1", ProblemKind::OutOfRange},
        {"100,7,M,A,quote,B,,1.5,2,9,1", ProblemKind::UnknownEvent},
        {"100,7,M,A,book,X,,1.5,2,9,1", ProblemKind::UnknownSide},
        {"100,7,M,A,book,,,1.5,2,9,1", ProblemKind::UnknownSide},
        {"100,7,M,A,trade,BS,,1.5,2,9,1", ProblemKind::UnknownSide},
        {"100,7,M,A,book,B,0,1.5,2,9,1", ProblemKind::LevelOutsideImage},
        {"100,7,,A,book,B,,1.5,2,9,1", ProblemKind::NoName},
        {"100,7,M,,book,B,,1.5,2,9,1", ProblemKind::NoName},
        {"99,7,M,A,book,B,,1.5,2,9,1", ProblemKind::TimeBackwards}};
    const TemporaryFolder folder;
    for (const auto& [row, kind] : bad)
    {
        const std::string path = folder.WriteRows("bad.csv", kGoodRow + row + "\n" + kGoodRow);
        const Result result = ReadAll(path);
        EXPECT_THAT(result.rows, SizeIs(2)) << row;
        EXPECT_EQ(result.total, 1U) << row;
        EXPECT_EQ(result.CountOf(kind), 1U) << row << "\n" << result.problems.All();
        ASSERT_THAT(result.problems.texts, SizeIs(1)) << row;
        EXPECT_THAT(result.problems.texts[0], HasSubstr(path + ":3: ")) << row;
    }
}

TEST(RecordingReader, WritesTheFirstTwentyProblemsOfAKindAndThenTheirCount)
{
    const TemporaryFolder folder;
    std::string rows = kGoodRow;
    for (int i = 0; i < 57; ++i)
    {
        rows += "nonsense\n";
    }
    rows += "100,7,M,A,quote,B,,1.5,2,9,1\n";
    const Result result = ReadAll(folder.WriteRows("a.csv", rows));
    EXPECT_EQ(result.total, 58U);
    ASSERT_THAT(result.problems.texts, SizeIs(22));
    EXPECT_THAT(result.problems.texts.back(), HasSubstr("wrong number of fields: 57 in all"));
}

TEST(RecordingReader, RefusesAFileWithAnotherHeader)
{
    const TemporaryFolder folder;
    const Result result =
        ReadAll(folder.Write("a.csv", "ts_ns,exch_ms,market,symbol,bid,bid_qty,ask,ask_qty,seq\n1,2\n"));
    EXPECT_THAT(result.rows, IsEmpty());
    EXPECT_EQ(result.CountOf(ProblemKind::BadHeader), 1U);
    EXPECT_EQ(ReadAll(folder.Write("empty.csv", "")).CountOf(ProblemKind::BadHeader), 1U);
}

TEST(RecordingReader, SaysWhichFileCannotBeOpened)
{
    Problems problems;
    ProblemLog log("/nowhere/a.csv", problems.Sink());
    try
    {
        RecordingReader reader("/nowhere/a.csv", log);
        FAIL() << "no exception";
    }
    catch (const std::runtime_error& error)
    {
        EXPECT_THAT(error.what(), HasSubstr("/nowhere/a.csv"));
    }
}

TEST(RecordingReader, TakesALastRowWithoutEndOfLineAndLinesWithCarriageReturn)
{
    const TemporaryFolder folder;
    const std::string header(kRecordingHeader);
    EXPECT_THAT(ReadAll(folder.Write("a.csv", header + "\r\n1,,M,A,book,B,,1,2,,1\r\n2,,M,A,book,B,,1,2,,1")).rows,
                SizeIs(2));
}

TEST(RecordingReader, ReadsFilesLargerThanItsBufferRowByRow)
{
    const TemporaryFolder folder;
    const std::string text = ManyRows(40'000);
    ASSERT_GT(text.size(), 4 * RecordingReader::kBufferSize);
    EXPECT_THAT(ReadAll(folder.Write("a.csv", text)).rows, SizeIs(40'000));
    const Result compressed = ReadAll(folder.Write("a.csv.zst", Compress(text)));
    EXPECT_THAT(compressed.rows, SizeIs(40'000));
    EXPECT_EQ(compressed.total, 0U);
}

TEST(RecordingReader, ReadsSeveralFramesInOneFile)
{
    const TemporaryFolder folder;
    const std::string text = ManyRows(1'000);
    const Result result =
        ReadAll(folder.Write("a.csv.zst", Compress(text.substr(0, 5'003)) + Compress(text.substr(5'003))));
    EXPECT_THAT(result.rows, SizeIs(1'000));
    EXPECT_EQ(result.total, 0U);
}

TEST(RecordingReader, SkipsALineThatIsLongerThanItsBuffer)
{
    const TemporaryFolder folder;
    const std::string longLine(RecordingReader::kBufferSize * 2 + 17, 'x');
    const Result result = ReadAll(folder.WriteRows("a.csv", kGoodRow + longLine + "\n" + kGoodRow));
    EXPECT_THAT(result.rows, SizeIs(2));
    EXPECT_EQ(result.CountOf(ProblemKind::LineTooLong), 1U);
    EXPECT_EQ(result.total, 1U);
    EXPECT_LT(result.problems.texts[0].size(), 400U);
}

TEST(RecordingReader, KeepsTheRowsBeforeTheEndOfATruncatedFrameAndSaysWhereItEnds)
{
    const TemporaryFolder folder;
    const std::string text = ManyRows(60'000);
    const std::string compressed = Compress(text);
    const std::string path =
        folder.Write("a.csv.zst", std::string_view(compressed).substr(0, compressed.size() * 2 / 3));
    const Result result = ReadAll(path);
    EXPECT_GT(result.rows.size(), 1'000U);
    EXPECT_LT(result.rows.size(), 60'000U);
    EXPECT_EQ(result.CountOf(ProblemKind::Unreadable), 1U);
    EXPECT_EQ(result.total, 1U) << result.problems.All(); // half a row at the break is not a malformed row
    EXPECT_THAT(result.problems.texts[0], HasSubstr(path + ":" + std::to_string(result.rows.size() + 2)));
    EXPECT_THAT(result.problems.texts[0],
                HasSubstr("truncated at compressed byte " + std::to_string(compressed.size() * 2 / 3)));
}

TEST(RecordingReader, ReportsEveryTruncationOfASmallFile)
{
    const TemporaryFolder folder;
    const std::string compressed = Compress(ManyRows(5));
    for (std::size_t size = 0; size < compressed.size(); ++size)
    {
        const Result result = ReadAll(folder.Write("a.csv.zst", std::string_view(compressed).substr(0, size)));
        EXPECT_EQ(result.CountOf(ProblemKind::Unreadable), 1U) << size;
    }
}

TEST(RecordingReader, ReportsACorruptFrame)
{
    const TemporaryFolder folder;
    std::string compressed = Compress(ManyRows(60'000));
    for (std::size_t at = compressed.size() / 2; at < compressed.size() / 2 + 64; ++at)
    {
        compressed[at] = static_cast<char>(compressed[at] ^ 0x5a);
    }
    const Result result = ReadAll(folder.Write("a.csv.zst", compressed));
    EXPECT_LT(result.rows.size(), 60'000U);
    EXPECT_GE(result.total, 1U);
}

TEST(RecordingReader, SurvivesRandomBytesInEitherFormat)
{
    const TemporaryFolder folder;
    SeededRandom random(7);
    for (int round = 0; round < 40; ++round)
    {
        std::string bytes(static_cast<std::size_t>(random.Below(20'000)), '\0');
        for (char& byte : bytes)
        {
            byte = static_cast<char>(random.Below(256));
        }
        const Result compressed = ReadAll(folder.Write("a.csv.zst", bytes));
        EXPECT_THAT(compressed.rows, IsEmpty());
        EXPECT_EQ(compressed.CountOf(ProblemKind::Unreadable), 1U);
        const Result plain = ReadAll(folder.Write("a.csv", std::string(kRecordingHeader) + "\n" + bytes));
        EXPECT_THAT(plain.rows, IsEmpty());
        EXPECT_EQ(plain.total, static_cast<std::uint64_t>(std::count(bytes.begin(), bytes.end(), '\n')) +
                                   (bytes.empty() || bytes.back() == '\n' ? 0U : 1U));
    }
}

TEST(RecordingReader, AccountsForEveryFuzzedRow)
{
    const TemporaryFolder folder;
    SeededRandom random(20'260'131);
    const std::vector<std::string> seeds{",7,M,A,book,B,,61804.7,2,9,1", ",,M,A,snap,S,12,0.00001814,918.992246,,0",
                                         ",7,MARKET,SYM_BOL,trade,,,5860832,0.01,2284079807,1"};
    constexpr std::size_t kRows = 20'000;
    std::string rows;
    for (std::size_t i = 0; i < kRows; ++i)
    {
        const std::string row = std::to_string(1'723'161'256'609'369'665 + i * 1'000'000'000) + seeds[i % seeds.size()];
        rows += (random.Once(4) ? Mutate(row, random) : row) + "\n";
    }
    const Result result = ReadAll(folder.WriteRows("a.csv", rows));
    EXPECT_EQ(result.rows.size() + result.total, kRows);
    EXPECT_GT(result.rows.size(), kRows / 2);
    EXPECT_GT(result.total, kRows / 10);
}

TEST(RecordingReader, DropsOneRowWhoseTimeLeapsAheadAndNotThoseBelowIt)
{
    const TemporaryFolder folder;
    const std::string rest = ",,M,A,book,B,,1,1,,1\n";
    const std::string day = "1723161256609369665" + rest;
    const Result middle = ReadAll(folder.WriteRows("a.csv", day + "9723161256609369665" + rest + day + day));
    EXPECT_THAT(middle.rows, SizeIs(3));
    EXPECT_EQ(middle.CountOf(ProblemKind::TimeAhead), 1U);
    const Result first = ReadAll(folder.WriteRows("b.csv", "9723161256609369665" + rest + day + day));
    EXPECT_THAT(first.rows, SizeIs(2));
    EXPECT_EQ(first.CountOf(ProblemKind::TimeAhead), 1U);
    // A real silence is borne out by the row below it, or by the end of the file.
    const Result silence = ReadAll(folder.WriteRows(
        "c.csv", day + "1823161256609369665" + rest + "1823161256609369666" + rest + "1923161256609369665" + rest));
    EXPECT_THAT(silence.rows, SizeIs(4));
    EXPECT_EQ(silence.total, 0U);
}

TEST(RecordingReader, GoesOnFromAnEarlierTimeAfterAFewRowsThatAgreeOnIt)
{
    const TemporaryFolder folder;
    const std::string rest = ",,M,A,book,B,,1,1,,1\n";
    std::string rows = "5000" + rest + "6000" + rest;
    for (int i = 0; i < 20; ++i)
    {
        rows += std::to_string(1000 + i) + rest;
    }
    const Result result = ReadAll(folder.WriteRows("a.csv", rows));
    EXPECT_THAT(result.rows, SizeIs(2 + 20 - RecordingReader::kOldRowsBelieved));
    EXPECT_EQ(result.CountOf(ProblemKind::TimeBackwards), RecordingReader::kOldRowsBelieved);
}

TEST(RecordingReader, LooksBehindALeapOfTimeWhereverTheBufferEnds)
{
    const TemporaryFolder folder;
    // Every row leaps, so each is looked at twice, also those at the edges of what has been read.
    constexpr std::size_t kRows = 30'000;
    std::string rows;
    for (std::size_t i = 0; i < kRows; ++i)
    {
        rows += std::to_string(1'000'000'000'000'000'000 + i * 7'000'000'000) + ",,M,A,book,B,," + std::to_string(i) +
                ",1,,1\n";
    }
    for (const std::string& path : {folder.WriteRows("a.csv", rows),
                                    folder.Write("a.csv.zst", Compress(std::string(kRecordingHeader) + "\n" + rows))})
    {
        const Result result = ReadAll(path);
        ASSERT_THAT(result.rows, SizeIs(kRows));
        EXPECT_EQ(result.total, 0U);
        EXPECT_EQ(result.rows[20'000],
                  std::to_string(1'000'000'000'000'000'000 + 20'000 * 7'000'000'000) + " A 20000 1");
    }
    const std::string compressed = Compress(std::string(kRecordingHeader) + "\n" + rows);
    const Result cut =
        ReadAll(folder.Write("b.csv.zst", std::string_view(compressed).substr(0, compressed.size() / 2)));
    EXPECT_EQ(cut.CountOf(ProblemKind::Unreadable), 1U);
    EXPECT_EQ(cut.total, 1U) << cut.problems.All();
}

TEST(RecordingReader, ReadsMessagesOfManyRowsAsIfEachRowStoodAlone)
{
    SeededRandom random(20'261'125);
    std::string text = std::string(kRecordingHeader) + "\n";
    std::vector<std::string> expected;
    std::uint64_t bad = 0;
    for (int message = 0; message < 3'000; ++message)
    {
        const std::string time = std::to_string(1'000'000 + message);
        const std::string symbol = random.Once(2) ? "A" : "B";
        for (std::int64_t rows = random.Below(20); rows >= 0; --rows)
        {
            const bool isBad = random.Once(50);
            const std::string price = std::to_string(random.Below(100'000) + 1);
            const std::string line = time + ",,MARKET," + symbol + (random.Once(2) ? ",book,B,," : ",book,S,,") +
                                     price + (isBad ? ".,1," : ",1,") + time + (rows == 0 ? ",1" : ",0");
            text += line + (random.Once(100) ? "\r\n" : "\n");
            bad += isBad ? 1 : 0;
            if (!isBad)
            {
                expected.push_back(time + " " + symbol + " " + price + " 1");
            }
        }
    }
    const TemporaryFolder folder;
    const Result result = ReadAll(folder.Write("a.csv", text));
    EXPECT_EQ(result.rows, expected);
    EXPECT_EQ(result.CountOf(ProblemKind::BadNumber), bad);
    EXPECT_EQ(result.total, bad);
}

TEST(RecordingReader, DropsEveryRowOfAnOldMessage)
{
    const TemporaryFolder folder;
    const Result result = ReadAll(folder.WriteRows("a.csv", "10000,7,M,A,book,B,,1.5,2,9,1\n"
                                                            "9000,7,M,A,book,B,,1.6,2,9,0\n"
                                                            "9000,7,M,A,book,B,,1.7,2,9,1\n"
                                                            "10000,7,M,A,book,B,,1.8,2,9,1\n" +
                                                                std::string(400, ' ') + "\n"));
    EXPECT_EQ(result.rows, (std::vector<std::string>{"10000 A 1.5 2", "10000 A 1.8 2"}));
    EXPECT_EQ(result.CountOf(ProblemKind::TimeBackwards), 2U);
}

TEST(RecordingReader, ReadsEveryRowOfTheRecordedFiles)
{
    const std::vector<std::size_t> rows{50'437, 173'681, 93'040, 8'588, 14'350, 23'850, 954};
    std::vector<std::string> files = ThreeSegments();
    for (const std::string& file : ManyInstruments())
    {
        files.push_back(file);
    }
    for (std::size_t i = 0; i < files.size(); ++i)
    {
        const Result result = ReadAll(files[i]);
        EXPECT_EQ(result.rows.size(), rows[i]) << files[i];
        EXPECT_EQ(result.total, 0U) << result.problems.All();
    }
}

TEST(RecordingScan, ListsInstrumentsAndMarketsInOrderOfAppearance)
{
    const std::atomic<bool> stop{false};
    Problems problems;
    const RecordingScan scan = ScanRecordings(ManyInstruments(), problems.Sink(), stop);
    EXPECT_EQ(scan.instruments.size(), 41U);
    EXPECT_EQ(scan.rows, 47'742U);
    EXPECT_EQ(scan.markets, (std::vector<std::string>{"KRAKENFUT", "BITMEX", "BITFLYER", "POLONIEX"}));
    EXPECT_EQ(scan.instruments.front().symbol, "FI_BCHUSD_210730");
    EXPECT_THAT(problems.texts, IsEmpty());

    const MarketTable markets = MakeMarketTable(scan);
    ASSERT_NE(markets.FindByName("POLONIEX"), nullptr);
    EXPECT_EQ(markets.FindByName("POLONIEX")->id, 4);
    EXPECT_EQ(markets.FindByName("KRAKENFUT")->id, 1);
}

TEST(RecordingScan, EndsEarlyWhenItIsStopped)
{
    const std::atomic<bool> stop{true};
    Problems problems;
    const RecordingScan scan = ScanRecordings(ThreeSegments(), problems.Sink(), stop);
    EXPECT_TRUE(scan.wasStopped);
    EXPECT_LT(scan.rows, 10'000U);
}

TEST(PriceFormat, HasNoDenominatorWhereThePowerOfTenDoesNotFit)
{
    EXPECT_EQ(MakePriceFormat(0).denominator, 1U);
    EXPECT_EQ(MakePriceFormat(2).denominator, 100U);
    EXPECT_EQ(MakePriceFormat(9).denominator, 1'000'000'000U);
    EXPECT_EQ(MakePriceFormat(10).denominator, 0U);
    EXPECT_EQ(MakePriceFormat(10).fractionDigits, 10U);
}

} // namespace
} // namespace ps_ns
