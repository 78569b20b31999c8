#include "book_stream.h"

#include "composite_price/fixed_point.h"
#include "composite_price/price.h"

#include <boost/json.hpp>
#include <gtest/gtest.h>
#include <rapidcheck.h>
#include <rapidcheck/gtest.h>

#include <algorithm>
#include <limits>
#include <map>
#include <utility>
#include <vector>

namespace ps_ns::gateway
{
namespace
{

namespace json = boost::json;
using Level = MergedOrderBook::Level;
using Levels = std::vector<Level>;

constexpr std::int64_t kOne = kPriceUnitsPerOne;
constexpr std::int64_t kLot = kQuantityUnitsPerOne;

void Fill(BookSide<Level>& side, const Levels& levels)
{
    std::copy(levels.begin(), levels.end(), side.GetStorage().begin());
    side.count = static_cast<std::uint32_t>(levels.size());
}

std::shared_ptr<MergedOrderBook> MakeBook(std::uint64_t sequence, const Levels& bids, const Levels& asks,
                                          std::uint64_t epoch = 1)
{
    auto book = std::make_shared<MergedOrderBook>(20, 20);
    book->sequence = sequence;
    book->epoch = epoch;
    book->receiveTime_ns = 1'790'000'000'000'000'000;
    Fill(book->bids, bids);
    Fill(book->asks, asks);
    return book;
}

/// What a client makes of the messages: price to the rest of the level, by side.
struct ClientBook
{
    std::map<std::string, std::string> bids;
    std::map<std::string, std::string> asks;

    void Apply(const std::string& text)
    {
        const json::object message = json::parse(text).as_object();
        const bool isImage = message.at("type") == "image";
        ApplySide(bids, message.at("bids").as_array(), isImage);
        ApplySide(asks, message.at("asks").as_array(), isImage);
    }

    static void ApplySide(std::map<std::string, std::string>& side, const json::array& levels, bool isImage)
    {
        if (isImage)
        {
            side.clear();
        }
        for (const json::value& level : levels)
        {
            const std::string price(level.at(0).as_string());
            if (level.at(1) == "0" && level.at(2) == "0")
            {
                side.erase(price);
            }
            else
            {
                side[price] = json::serialize(level);
            }
        }
    }

    friend bool operator==(const ClientBook&, const ClientBook&) = default;
};

TEST(Books, AreWrittenAsImagesWithTheBestLevelFirst)
{
    auto book =
        MakeBook(119, {{98 * kOne, 5 * kLot / 2, 0, 3}, {97 * kOne, 0, kLot, 0}}, {{99 * kOne, kLot, kLot, 1}}, 2);
    book->missingComponents.insert(CompositeComponentType::Implied);
    book->staleComponents.emplace(CompositeComponentType::Direct, 5);
    EXPECT_EQ(FormatImage("M:S", 5, *book),
              R"({"type":"image","instrument":"M:S","depth":5,"epoch":2,"sequence":119,"exchange_time_ns":null,)"
              R"("receive_time_ns":"1790000000000000000","bids":[["98","2.5","0",3],["97","0","1",null]],)"
              R"("asks":[["99","1","1",1]],"missing":["implied"],"stale":["direct"]})");
}

TEST(Books, AreWrittenAsUpdatesOfWhatHasChanged)
{
    const auto before = MakeBook(119, {{98 * kOne, kLot, 0, 3}, {97 * kOne, kLot, 0, 1}}, {{99 * kOne, kLot, 0, 1}});
    const auto after = MakeBook(121, {{98 * kOne, 2 * kLot, 0, 3}, {96 * kOne, kLot, 0, 1}}, {{99 * kOne, kLot, 0, 1}});
    EXPECT_EQ(FormatUpdate("M:S", 5, *before, *after),
              R"({"type":"update","instrument":"M:S","depth":5,"epoch":1,"previous":119,"sequence":121,)"
              R"("exchange_time_ns":null,"receive_time_ns":"1790000000000000000",)"
              R"("bids":[["98","2","0",3],["97","0","0",null],["96","1","0",1]],"asks":[]})");
}

TEST(Books, NameMissingAndStaleComponentsInUpdatesOnlyWhenTheyChange)
{
    const auto before = MakeBook(1, {}, {});
    auto after = MakeBook(2, {}, {});
    after->staleComponents.emplace(CompositeComponentType::Aggregated, 5);
    EXPECT_NE(FormatUpdate("M:S", 5, *before, *after).find(R"("missing":[],"stale":["aggregated"])"),
              std::string::npos);
    EXPECT_NE(FormatUpdate("M:S", 5, *after, *before).find(R"("missing":[],"stale":[])"), std::string::npos);
    EXPECT_EQ(FormatUpdate("M:S", 5, *before, *before).find("missing"), std::string::npos);
}

TEST(Books, EscapeTheNamesOfInstruments)
{
    const std::string name = "M:\"\\\x01\xE2\x82\xAC";
    const json::value image = json::parse(FormatImage(name, 5, *MakeBook(1, {}, {})));
    EXPECT_EQ(image.at("instrument"), json::string(name));
}

TEST(BookStream, BeginsWithAnImageAndGoesOnWithUpdates)
{
    BookStream stream("M:S", 5);
    const SharedBook first = MakeBook(1, {{98 * kOne, kLot, 0, 1}}, {});
    const SharedBook second = MakeBook(2, {{98 * kOne, 2 * kLot, 0, 1}}, {});
    EXPECT_TRUE(stream.GetMessage(nullptr, first)->starts_with(R"({"type":"image")"));
    EXPECT_TRUE(stream.GetMessage(first, second)->starts_with(R"({"type":"update")"));
}

TEST(BookStream, MakesEachMessageOnce)
{
    BookStream stream("M:S", 5);
    const SharedBook first = MakeBook(1, {{98 * kOne, kLot, 0, 1}}, {});
    const SharedBook other = MakeBook(2, {{97 * kOne, kLot, 0, 1}}, {});
    const SharedBook newest = MakeBook(3, {{96 * kOne, kLot, 0, 1}}, {});
    const SharedText image = stream.GetMessage(nullptr, newest);
    const SharedText fromFirst = stream.GetMessage(first, newest);
    const SharedText fromOther = stream.GetMessage(other, newest);
    EXPECT_EQ(stream.GetMessage(nullptr, newest), image);
    EXPECT_EQ(stream.GetMessage(first, newest), fromFirst);
    EXPECT_EQ(stream.GetMessage(other, newest), fromOther);
    EXPECT_NE(*fromFirst, *fromOther);
}

TEST(BookStream, WritesAnOlderBookForWhoIsBehindAndTheNewestRightAfterIt)
{
    BookStream stream("M:S", 5);
    const SharedBook first = MakeBook(1, {{98 * kOne, kLot, 0, 1}}, {});
    const SharedBook second = MakeBook(2, {{97 * kOne, kLot, 0, 1}}, {});
    const std::string newest = *stream.GetMessage(nullptr, second);
    EXPECT_NE(stream.GetMessage(nullptr, first)->find(R"("sequence":1,)"), std::string::npos);
    EXPECT_EQ(*stream.GetMessage(nullptr, second), newest);
}

TEST(BookStream, OpensAnEpochWithAnImageOnly)
{
    BookStream stream("M:S", 5);
    const SharedBook before = MakeBook(7, {{98 * kOne, kLot, 0, 1}}, {}, 1);
    const SharedBook after = MakeBook(8, {{98 * kOne, kLot, 0, 1}}, {}, 2);
    EXPECT_TRUE(stream.GetMessage(before, after)->starts_with(R"({"type":"image")"));
}

TEST(BookStream, RepeatsABookAsAnImage)
{
    BookStream stream("M:S", 5);
    const SharedBook book = MakeBook(7, {{98 * kOne, kLot, 0, 1}}, {});
    const SharedBook again = MakeBook(7, {{98 * kOne, kLot, 0, 1}}, {});
    EXPECT_TRUE(stream.GetMessage(book, again)->starts_with(R"({"type":"image")"));
    EXPECT_TRUE(stream.GetMessage(again, MakeBook(6, {}, {}))->starts_with(R"({"type":"image")"));
}

TEST(BookStream, NamesLevelsThatFallOffTheEndAsGone)
{
    Levels full;
    for (std::int64_t i = 0; i < 5; ++i)
    {
        full.push_back({(50 - i) * kOne, kLot, 0, 1});
    }
    Levels shifted{{51 * kOne, kLot, 0, 1}};
    shifted.insert(shifted.end(), full.begin(), full.end() - 1);
    EXPECT_NE(FormatUpdate("M:S", 5, *MakeBook(1, full, {}), *MakeBook(2, shifted, {}))
                  .find(R"("bids":[["51","1","0",1],["46","0","0",null]])"),
              std::string::npos);
}

rc::Gen<Levels> AnySide(bool isBid)
{
    return rc::gen::map(
        rc::gen::container<std::map<std::int64_t, std::pair<int, int>>>(
            rc::gen::inRange<std::int64_t>(-30, 30), rc::gen::pair(rc::gen::inRange(0, 4), rc::gen::inRange(0, 4))),
        [isBid](const std::map<std::int64_t, std::pair<int, int>>& byPrice)
        {
            Levels levels;
            for (const auto& [price, quantities] : byPrice)
            {
                if (quantities != std::pair(0, 0) && levels.size() < 20)
                {
                    levels.push_back({price * kOne / 4, quantities.first * kLot / 8, quantities.second * kLot,
                                      static_cast<std::uint32_t>(quantities.first)});
                }
            }
            if (isBid)
            {
                std::reverse(levels.begin(), levels.end());
            }
            return levels;
        });
}

RC_GTEST_PROP(BookStreamProperty, UpdatesMakeWhatImagesShow, ())
{
    BookStream stream("M:S", 20);
    ClientBook applied;
    SharedBook previous;
    std::uint64_t sequence = 0;
    std::uint64_t epoch = 1;
    const auto steps = *rc::gen::inRange(1, 12);
    for (int i = 0; i < steps; ++i)
    {
        sequence += *rc::gen::inRange<std::uint64_t>(1, 4);
        epoch += *rc::gen::inRange<std::uint64_t>(0, 6) == 0 ? 1U : 0U;
        const SharedBook book = MakeBook(sequence, *AnySide(true), *AnySide(false), epoch);
        const SharedBook before = *rc::gen::inRange(0, 8) == 0 ? nullptr : previous;
        const std::string text = *stream.GetMessage(before, book);
        const bool mustBeImage = before == nullptr || before->epoch != epoch;
        RC_ASSERT(text.starts_with(mustBeImage ? R"({"type":"image")" : R"({"type":"update")"));
        applied.Apply(text);
        ClientBook image;
        image.Apply(FormatImage("M:S", 20, *book));
        RC_ASSERT(applied == image);
        previous = book;
    }
}

TEST(Trades, AreWrittenWithNullsForWhatIsNotKnown)
{
    Trade known{9'8113 * kOne / 10, kLot / 2, 5, 6, 123, Trade::Aggressor::Seller};
    EXPECT_EQ(
        FormatTrades("M:S", {known, Trade{}}),
        R"({"type":"trades","instrument":"M:S","trades":[{"price":"9811.3","quantity":"0.5",)"
        R"("aggressor":"seller","exchange_time_ns":"5","receive_time_ns":"6","id":"123"},)"
        R"({"price":"0","quantity":"0","aggressor":null,"exchange_time_ns":null,"receive_time_ns":null,"id":null}]})");
    known.aggressor = Trade::Aggressor::Buyer;
    EXPECT_NE(FormatTrades("M:S", {known}).find(R"("aggressor":"buyer")"), std::string::npos);
}

TEST(Fields, AreWrittenWithTimesAsTextsAndNothingForWhatThereIsNot)
{
    CustomFields fields;
    fields.prices[ps_messages_ns::StatPriceID::Open] = 9811.25;
    fields.prices[ps_messages_ns::StatPriceID::High] = sbe_common_ns::kNullPrice;
    fields.prices[ps_messages_ns::StatPriceID::Low] = std::numeric_limits<double>::quiet_NaN();
    fields.quantities[ps_messages_ns::StatQtyID::OpenInterest] = std::numeric_limits<double>::infinity();
    fields.times[ps_messages_ns::StatTimeID::LastTrade] = 1'790'000'000'000'000'001;
    fields.times[ps_messages_ns::StatTimeID::SessionStart] = 0;
    const json::value message = json::parse(FormatFields("M:S", fields));
    EXPECT_EQ(message.at("prices").at("0"), 9811.25);
    EXPECT_TRUE(message.at("prices").at("1").is_null());
    EXPECT_TRUE(message.at("prices").at("2").is_null());
    EXPECT_TRUE(message.at("quantities").at("1").is_null());
    EXPECT_EQ(message.at("times").at("1"), "1790000000000000001");
    EXPECT_TRUE(message.at("times").at("0").is_null());
}

} // namespace
} // namespace ps_ns::gateway
