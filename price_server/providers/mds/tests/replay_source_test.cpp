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
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

struct Replay
{
    Problems problems;
    std::unique_ptr<ReplaySource> source;

    Replay(ReplayOptions options, MarketTable markets)
        : source(std::make_unique<ReplaySource>(std::move(options), std::move(markets), problems.Sink()))
    {
        const std::atomic<bool> stop{false};
        source->Open(stop);
    }
    /// "time symbol image|book|trades epoch", at most so many.
    std::vector<std::string> Take(std::size_t most = 1000)
    {
        std::vector<std::string> texts;
        MarketMessage message;
        while (texts.size() < most && source->Next(message))
        {
            const std::string symbol = source->GetInstruments()[message.instrument].symbol;
            const std::string kind = message.isImage          ? "image" + std::to_string(message.changes.size())
                                     : message.trades.empty() ? "book" + std::to_string(message.changes.size())
                                                              : "trades" + std::to_string(message.trades.size());
            texts.push_back(std::to_string(message.sourceTime_ns) + " " + symbol + " " + kind + " " +
                            std::to_string(message.epoch));
        }
        return texts;
    }
};

TEST(ReplaySource, PutsTheRowsOfOneMessageTogether)
{
    const TemporaryFolder folder;
    Replay replay({{folder.WriteRows(
                      "a.csv", "1,,M,A,snap,B,0,10,1,5,0\n1,,M,A,snap,S,0,11,1,5,1\n"
                               "2,,M,A,book,B,,10,2,6,0\n2,,M,A,book,B,,9,2,6,1\n"
                               "2,,M,A,trade,B,,10,2,70,1\n2,,M,A,trade,S,,10,2,71,0\n2,,M,A,trade,S,,9,1,71,1\n")}},
                  OneMarket("M"));
    EXPECT_THAT(replay.Take(), ElementsAre("1 A image2 1", "2 A book2 1", "2 A trades1 1", "2 A trades2 1"));
    EXPECT_THAT(replay.problems.texts, IsEmpty());
}

TEST(ReplaySource, EndsAMessageWhoseLastRowIsLostWhereTheNextOneBegins)
{
    const TemporaryFolder folder;
    const std::string path = folder.WriteRows("a.csv", "1,,M,A,book,B,,10,1,5,0\n1,,M,A,book,B,,9,bad,5,1\n"
                                                       "1,,M,A,book,B,,8,2,6,1\n"
                                                       "2,,M,A,book,B,,7,2,7,0\n2,,M,B,book,B,,7,2,7,1\n"
                                                       "3,,M,B,book,B,,7,2,8,0\n");
    Replay replay({{path}}, OneMarket("M"));
    EXPECT_THAT(replay.Take(), ElementsAre("1 A book1 1", "1 A book1 1", "2 A book1 1", "2 B book1 1", "3 B book1 1"));
}

TEST(ReplaySource, MakesOneImageOfImageAndChangesInOneMessage)
{
    const TemporaryFolder folder;
    Replay replay(
        {{folder.WriteRows("a.csv", "1,,M,A,book,B,,5,1,5,0\n1,,M,A,snap,B,0,10,1,5,0\n1,,M,A,snap,B,1,9,1,5,0\n"
                                    "1,,M,A,book,B,,10,0,5,0\n1,,M,A,book,B,,8,3,5,1\n")}},
        OneMarket("M"));
    MarketMessage message;
    ASSERT_TRUE(replay.source->Next(message));
    EXPECT_TRUE(message.isImage);
    EXPECT_THAT(message.changes, ElementsAre(Bid("9", "1"), Bid("8", "3")));
}

TEST(ReplaySource, MergesFilesByTimeAndKeepsTheirOrderAtEqualTimes)
{
    const TemporaryFolder folder;
    const auto row = [](int time, const char* symbol)
    { return std::to_string(time) + ",,M," + symbol + ",book,B,,1,1,,1\n"; };
    Replay replay(
        {{folder.WriteRows("a.csv", row(1, "A") + row(4, "A") + row(5, "A")),
          folder.WriteRows("b.csv", row(2, "B") + row(4, "B") + row(4, "B")), folder.WriteRows("c.csv", row(3, "C"))}},
        OneMarket("M"));
    EXPECT_THAT(replay.Take(), ElementsAre("1 A book1 1", "2 B book1 1", "3 C book1 1", "4 A book1 1", "4 B book1 1",
                                           "4 B book1 1", "5 A book1 1"));
}

TEST(ReplaySource, LetsFilesOfDifferentDaysBeginTogetherWhenAsked)
{
    const TemporaryFolder folder;
    ReplayOptions options;
    options.files = {folder.WriteRows("a.csv", "1000,,M,A,book,B,,1,1,,1\n1007,,M,A,book,B,,1,1,,1\n"),
                     folder.WriteRows("b.csv", "5,,M,B,book,B,,1,1,,1\n6,,M,B,book,B,,1,1,,1\n")};
    options.alignsStarts = true;
    Replay replay(options, OneMarket("M"));
    EXPECT_THAT(replay.Take(), ElementsAre("1000 A book1 1", "1000 B book1 1", "1001 B book1 1", "1007 A book1 1"));
}

TEST(ReplaySource, BeginsEachLoopWithANewEpochAndEmptyImagesOfAllInstruments)
{
    const TemporaryFolder folder;
    ReplayOptions options;
    options.files = {folder.WriteRows("a.csv", "1,,M,A,snap,B,0,10,1,,1\n2,,M,B,snap,B,0,10,1,,1\n")};
    options.loops = true;
    Replay replay(options, OneMarket("M"));
    EXPECT_THAT(replay.Take(8), ElementsAre("1 A image1 1", "2 B image1 1", "1 B image0 2", "1 A image0 2",
                                            "1 A image1 2", "2 B image1 2", "1 B image0 3", "1 A image0 3"));
    ASSERT_TRUE(replay.source->Peek().has_value());
    EXPECT_EQ(replay.source->Peek()->epoch, 3U);
}

TEST(ReplaySource, EndsAtOnceWhenThereIsNothingToLoop)
{
    const TemporaryFolder folder;
    ReplayOptions options;
    options.files = {folder.WriteRows("a.csv", "")};
    options.loops = true;
    Replay replay(options, OneMarket("M"));
    EXPECT_FALSE(replay.source->Peek().has_value());
    EXPECT_THAT(replay.Take(), IsEmpty());
}

TEST(ReplaySource, ReportsAnUnknownMarketOnceAndSkipsItsRows)
{
    const TemporaryFolder folder;
    const std::string path =
        folder.WriteRows("a.csv", "1,,M,A,book,B,,10,1,,1\n1,,X,A,book,B,,10,1,,1\n2,,X,B,book,B,,10,1,,1\n"
                                  "3,,M,A,book,B,,10,1,,1\n");
    Replay replay({{path}}, OneMarket("M"));
    EXPECT_THAT(replay.Take(), ElementsAre("1 A book1 1", "3 A book1 1"));
    ASSERT_THAT(replay.problems.texts, SizeIs(1));
    EXPECT_EQ(replay.problems.texts[0], path + ":3: market is not in the market table: X, 2 rows skipped");
    EXPECT_THAT(replay.source->GetInstruments(), SizeIs(1));
}

TEST(ReplaySource, ReportsMalformedRowsOnceHoweverOftenItLoops)
{
    const TemporaryFolder folder;
    ReplayOptions options;
    options.files = {folder.WriteRows("a.csv", "1,,M,A,book,B,,10,1,,1\nnonsense\n")};
    options.loops = true;
    Replay replay(options, OneMarket("M"));
    replay.Take(20);
    EXPECT_THAT(replay.problems.texts, SizeIs(1));
}

TEST(ReplaySource, RefusesToStartOnAMissingFileOrAForeignHeader)
{
    const TemporaryFolder folder;
    EXPECT_THROW(ReplaySource({{folder.GetPath("missing.csv")}}, OneMarket("M")).Check(), std::runtime_error);
    try
    {
        ReplaySource({{DataFile("three_segments/spot_bbo.csv.zst")}}, OneMarket("M")).Check();
        FAIL() << "no exception";
    }
    catch (const std::runtime_error& error)
    {
        EXPECT_THAT(error.what(), HasSubstr("spot_bbo.csv.zst:1: unexpected header"));
    }
}

TEST(ReplaySource, GivesEveryInstrumentTheDecimalsThatItsPricesHad)
{
    Replay replay({DataFiles("many_instruments", {"bitmex"})}, OneMarket("BITMEX", 9));
    std::map<std::string, PriceFormat> formats;
    for (const SourceInstrument& instrument : replay.source->GetInstruments())
    {
        EXPECT_EQ(instrument.marketId, 9);
        formats[instrument.symbol] = instrument.format;
    }
    ASSERT_THAT(formats, SizeIs(10));
    EXPECT_EQ(formats["XBTUSD"].denominator, 10U);
    EXPECT_EQ(formats["XRPU21"].denominator, 100'000'000U);
    EXPECT_EQ(formats["TRXU21"].denominator, 0U); // ten decimals
    EXPECT_EQ(formats["TRXU21"].fractionDigits, 10U);
}

TEST(ReplaySource, IsDamagedWhenAFrameEndsEarlyAndNotWhenARowIsMalformed)
{
    const TemporaryFolder folder;
    std::string rows = "1,,M,A,snap,B,0,10,1,5,0\n";
    const std::string good = folder.WriteRows("a.csv", rows + "no row at all\n");
    EXPECT_FALSE(Replay({{good}}, OneMarket("M")).source->IsDamaged());

    const std::string compressed = Compress(ReadWholeFile(good));
    const std::string whole = folder.Write("whole.csv.zst", compressed);
    EXPECT_FALSE(Replay({{whole}}, OneMarket("M")).source->IsDamaged());
    const std::string cut = folder.Write("cut.csv.zst", compressed.substr(0, compressed.size() - 1));
    EXPECT_TRUE(Replay({{whole, cut}}, OneMarket("M")).source->IsDamaged());
}

} // namespace
} // namespace ps_ns
