#include "zel/wire_format.h"

#include "composite_price/fixed_point.h"
#include "mds/seeded_random.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <limits>

namespace ps_ns
{
namespace
{

constexpr std::int64_t kLeast = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max();

WireHeader Header(WireKind kind, std::uint32_t index = 7)
{
    return {kind, index, 1'723'161'254'087'896'568, 42};
}

MarketMessage SomeUpdate()
{
    MarketMessage message;
    message.exchangeTime_ns = 1;
    message.receiveTime_ns = std::numeric_limits<std::uint64_t>::max();
    message.venueSequence = 50'093'244'445;
    message.changes = {{kMost, 1, 0, BookSideType::Bid},
                       {ParsePrice("-12.5").value(), 0, 3, BookSideType::Bid},
                       {kLeast, kMost, std::numeric_limits<std::uint32_t>::max(), BookSideType::Ask}};
    return message;
}

std::vector<Trade> SomeTrades()
{
    return {{ParsePrice("61837.63").value(), ParseQuantity("0.02").value(), 5, 6, 7, Trade::Aggressor::Seller},
            {-1, 0, 0, 0, 0, Trade::Aggressor::Unknown}};
}

std::vector<WireInstrument> SomeInstruments()
{
    return {{0, {100, false, 2, 'D', 5}, "BTC/USD", "BTC/USD", "KRAKEN", "bitcoin"},
            {kMostWireInstruments - 1, {0, true, 0, 'F', 1}, "", std::string(70'000, 'x'), "\xc3\xa9", ""}};
}

/// A well-formed message of every kind.
std::vector<WireBuffer> OneOfEach()
{
    std::vector<WireBuffer> all(8);
    const std::vector<WireInstrument> instruments = SomeInstruments();
    const std::array<WireRename, 1> renames{{{3, "FB", "META"}}};
    const std::array<std::uint32_t, 3> indexes{1, 2, 3};
    WriteDirectory(all[0], Header(WireKind::Directory, 0), 1, std::span(instruments).first(1));
    WriteBook(all[1], Header(WireKind::Image), SomeUpdate());
    WriteBook(all[2], Header(WireKind::Update), SomeUpdate());
    WriteTrades(all[3], Header(WireKind::Trades), SomeTrades());
    WriteRenames(all[4], Header(WireKind::Rename), renames);
    WriteHeartbeat(all[5], Header(WireKind::Heartbeat), {9, {{1, 2}, {3, 4}}});
    WriteDirectoryRequest(all[6], Header(WireKind::DirectoryRequest));
    WriteImageRequest(all[7], Header(WireKind::ImageRequest), indexes);
    return all;
}

/// Tries every reader; returns how many take the bytes for a message.
std::size_t ReadAll(WireBytes bytes)
{
    MarketMessage message;
    std::vector<Trade> trades;
    std::size_t read = 0;
    read += ReadBook(bytes, message) ? 1U : 0U;
    read += ReadTrades(bytes, trades) ? 1U : 0U;
    read += ReadDirectory(bytes) ? 1U : 0U;
    read += ReadRenames(bytes) ? 1U : 0U;
    read += ReadHeartbeat(bytes) ? 1U : 0U;
    read += ReadImageRequest(bytes) ? 1U : 0U;
    EXPECT_LE(message.changes.size() * 20 + trades.size() * 41, bytes.size()) << "more than the bytes can hold";
    return read;
}

TEST(WireFormat, BringsBooksOverUnchanged)
{
    WireBuffer bytes;
    for (const WireKind kind : {WireKind::Image, WireKind::Update})
    {
        WriteBook(bytes, Header(kind), SomeUpdate());
        MarketMessage read;
        ASSERT_TRUE(ReadBook(bytes, read));
        EXPECT_EQ(read.isImage, kind == WireKind::Image);
        EXPECT_EQ(read.epoch, Header(kind).epoch);
        EXPECT_EQ(read.changes, SomeUpdate().changes);
        EXPECT_EQ(read.exchangeTime_ns, SomeUpdate().exchangeTime_ns);
        EXPECT_EQ(read.receiveTime_ns, SomeUpdate().receiveTime_ns);
        EXPECT_EQ(read.venueSequence, SomeUpdate().venueSequence);
        EXPECT_EQ(ReadHeader(bytes), Header(kind));
    }
}

TEST(WireFormat, PutsBidsFirstAndKeepsTheOrderWithinASide)
{
    MarketMessage message;
    message.changes = {{5, 1, 0, BookSideType::Ask},
                       {3, 1, 0, BookSideType::Bid},
                       {5, 0, 0, BookSideType::Ask},
                       {3, 2, 0, BookSideType::Bid}};
    WireBuffer bytes;
    WriteBook(bytes, Header(WireKind::Update), message);
    MarketMessage read;
    ASSERT_TRUE(ReadBook(bytes, read));
    const std::vector<BookUpdate::Change> expected = {{3, 1, 0, BookSideType::Bid},
                                                      {3, 2, 0, BookSideType::Bid},
                                                      {5, 1, 0, BookSideType::Ask},
                                                      {5, 0, 0, BookSideType::Ask}};
    EXPECT_EQ(read.changes, expected);
}

TEST(WireFormat, BringsEverythingElseOverUnchanged)
{
    const std::vector<WireBuffer> all = OneOfEach();
    std::vector<Trade> trades;
    ASSERT_TRUE(ReadTrades(all[3], trades));
    EXPECT_EQ(trades, SomeTrades());

    const WireDirectory directory{1, {SomeInstruments().front()}};
    EXPECT_EQ(ReadDirectory(all[0]), directory);
    EXPECT_EQ(ReadRenames(all[4]), (std::vector<WireRename>{{3, "FB", "META"}}));
    const WireHeartbeat heartbeat{9, {{1, 2}, {3, 4}}};
    EXPECT_EQ(ReadHeartbeat(all[5]), heartbeat);
    EXPECT_EQ(ReadHeader(all[6]), Header(WireKind::DirectoryRequest));
    EXPECT_EQ(ReadImageRequest(all[7]), (std::vector<std::uint32_t>{1, 2, 3}));
}

TEST(WireFormat, CutsATextThatIsTooLongForItsLength)
{
    const std::vector<WireInstrument> instruments = SomeInstruments();
    WireBuffer bytes;
    WriteDirectory(bytes, Header(WireKind::Directory, 1), 2, instruments);
    const auto directory = ReadDirectory(bytes);
    ASSERT_TRUE(directory);
    EXPECT_EQ(directory->instruments.at(1).symbol.size(), 65'535U);
    EXPECT_EQ(directory->instruments.at(1).exchange, "\xc3\xa9");
    EXPECT_EQ(directory->instruments.at(1).format, instruments[1].format);
}

TEST(WireFormat, TakesTheBytesThatItsTableNames)
{
    WireBuffer bytes;
    WriteBook(bytes, Header(WireKind::Update), SomeUpdate());
    EXPECT_EQ(bytes.size(), 24U + 32U + 3 * 20U);
    WriteTrades(bytes, Header(WireKind::Trades), SomeTrades());
    EXPECT_EQ(bytes.size(), 24U + 4U + 2 * 41U);
    WriteDirectoryRequest(bytes, Header(WireKind::DirectoryRequest));
    EXPECT_EQ(bytes.size(), kWireHeaderSize);
    const std::array<std::uint8_t, 8> begin{1, 7, 0, 0, 7, 0, 0, 0};
    EXPECT_TRUE(std::equal(begin.begin(), begin.end(), bytes.begin(),
                           [](std::uint8_t a, std::byte b) { return std::byte(a) == b; }));
}

TEST(WireFormat, RefusesEveryCutAndEveryAppendix)
{
    for (const WireBuffer& whole : OneOfEach())
    {
        EXPECT_LE(ReadAll(whole), 1U);
        for (std::size_t size = 0; size < whole.size(); ++size)
        {
            const WireBuffer cut(whole.begin(),
                                 whole.begin() + static_cast<std::ptrdiff_t>(size)); // its own allocation
            EXPECT_EQ(ReadAll(cut), 0U) << size << " of " << whole.size();
        }
        WireBuffer longer = whole;
        longer.push_back(std::byte{0});
        EXPECT_EQ(ReadAll(longer), 0U);
    }
}

TEST(WireFormat, RefusesOtherVersionsAndKinds)
{
    for (WireBuffer bytes : OneOfEach())
    {
        bytes[0] = std::byte{2};
        EXPECT_FALSE(ReadHeader(bytes));
        EXPECT_EQ(ReadAll(bytes), 0U);
        bytes[0] = std::byte{1};
        for (const int kind : {0, 9, 255})
        {
            bytes[1] = static_cast<std::byte>(kind);
            EXPECT_FALSE(ReadHeader(bytes));
        }
    }
}

TEST(WireFormat, RefusesNumbersThatAreNone)
{
    WireBuffer bytes;
    std::vector<WireInstrument> instruments{{kMostWireInstruments, {}, "A", "A", "", ""}};
    WriteDirectory(bytes, Header(WireKind::Directory, 0), 1, instruments);
    EXPECT_FALSE(ReadDirectory(bytes)) << "a number that would be a huge array's place";
    instruments[0].index = 0;
    WriteDirectory(bytes, Header(WireKind::Directory, 1), 1, instruments);
    EXPECT_FALSE(ReadDirectory(bytes)) << "part 1 of one part";
    WriteDirectory(bytes, Header(WireKind::Directory, 0), 0, instruments);
    EXPECT_FALSE(ReadDirectory(bytes)) << "no parts";
    WriteTrades(bytes, Header(WireKind::Trades), SomeTrades());
    bytes.back() = std::byte{3};
    std::vector<Trade> trades;
    EXPECT_FALSE(ReadTrades(bytes, trades)) << "no such aggressor";
}

TEST(WireFormat, RefusesNegativeQuantities)
{
    WireBuffer bytes;
    MarketMessage read;
    for (const BookSideType side : {BookSideType::Bid, BookSideType::Ask})
    {
        MarketMessage message = SomeUpdate();
        message.changes.push_back({1, -1, 0, side});
        WriteBook(bytes, Header(WireKind::Update), message);
        EXPECT_FALSE(ReadBook(bytes, read));
    }
    std::vector<Trade> trades = SomeTrades();
    trades.back().quantity = -1;
    WriteTrades(bytes, Header(WireKind::Trades), trades);
    EXPECT_FALSE(ReadTrades(bytes, trades));
}

TEST(WireFormat, SurvivesRandomBytes)
{
    SeededRandom random(1);
    for (int round = 0; round < 200'000; ++round)
    {
        WireBuffer bytes(static_cast<std::size_t>(random.Below(200)));
        for (std::byte& byte : bytes)
        {
            byte = static_cast<std::byte>(random.Next());
        }
        if (bytes.size() > 2 && random.Below(4) != 0)
        {
            bytes[0] = std::byte{kWireVersion};
            bytes[1] = static_cast<std::byte>(1 + random.Below(8));
        }
        EXPECT_LE(ReadAll(bytes), 1U);
    }
}

TEST(WireFormat, SurvivesChangedBytes)
{
    SeededRandom random(2);
    const std::vector<WireBuffer> all = OneOfEach();
    std::size_t read = 0;
    for (int round = 0; round < 200'000; ++round)
    {
        WireBuffer bytes = all[static_cast<std::size_t>(random.Below(8))];
        for (std::int64_t changes = 1 + random.Below(4); changes > 0; --changes)
        {
            bytes[static_cast<std::size_t>(random.Below(static_cast<std::int64_t>(bytes.size())))] =
                static_cast<std::byte>(random.Next());
        }
        read += ReadAll(bytes);
    }
    EXPECT_GT(read, 10'000U) << "most changes are of values, which a reader cannot know to be wrong";
}

} // namespace
} // namespace ps_ns
