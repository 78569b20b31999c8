#include "server/json_line.h"

#include "composite_price/fixed_point.h"
#include "composite_price/merged_order_book.h"
#include "composite_price/trade.h"

#include <boost/json.hpp>
#include <gtest/gtest.h>

namespace ps_ns
{
namespace
{

std::int64_t Price(const char* text)
{
    return ParsePrice(text).value();
}

std::int64_t Quantity(const char* text)
{
    return ParseQuantity(text).value();
}

TEST(JsonLine, WritesABookAsOneLineWithExactDecimals)
{
    MergedOrderBook book(2, 2);
    book.epoch = 3;
    book.sequence = 17;
    book.exchangeTime_ns = 1'723'161'318'237'000'001;
    book.receiveTime_ns = 1'723'161'316'964'505'445;
    book.venueSequence = 9'007'199'254'740'993; // a double would make it ...992
    book.bids.GetStorage()[0] = {Price("61828.25"), Quantity("4.11905"), Quantity("0.00000001"), 3};
    book.bids.count = 1;
    book.asks.GetStorage()[0] = {Price("-0.0000000001"), 0, Quantity("92000000000"), 0};
    book.asks.count = 1;
    EXPECT_EQ(FormatBookLine("SPOT", "BTCUSDT", book),
              R"({"type":"book","market":"SPOT","symbol":"BTCUSDT","epoch":3,"sequence":17,)"
              R"("exchange_time_ns":"1723161318237000001","receive_time_ns":"1723161316964505445",)"
              R"("venue_sequence":"9007199254740993",)"
              R"("bids":[{"price":"61828.25","direct":"4.11905","implied":"0.00000001","orders":3}],)"
              R"("asks":[{"price":"-0.0000000001","direct":"0","implied":"92000000000","orders":null}],)"
              R"("missing":[],"stale":[]})"
              "\n");
}

TEST(JsonLine, SaysNullForWhatIsNotKnownAndNamesMissingAndStaleComponents)
{
    MergedOrderBook book(1, 1);
    book.missingComponents = {CompositeComponentType::Implied};
    book.staleComponents = {{CompositeComponentType::Aggregated, 5}, {CompositeComponentType::Direct, 6}};
    const auto line = boost::json::parse(FormatBookLine("M", "S", book)).as_object();
    EXPECT_TRUE(line.at("exchange_time_ns").is_null());
    EXPECT_TRUE(line.at("receive_time_ns").is_null());
    EXPECT_TRUE(line.at("venue_sequence").is_null());
    EXPECT_EQ(boost::json::serialize(line.at("missing")), R"(["implied"])");
    EXPECT_EQ(boost::json::serialize(line.at("stale")), R"(["direct","aggregated"])");
}

TEST(JsonLine, WritesTradesInTheirOrderWithTheirAggressor)
{
    const std::vector<Trade> trades{
        {Price("10.5"), Quantity("2"), 7, 8, 9, Trade::Aggressor::Buyer},
        {Price("10.4"), Quantity("0.1"), 0, 8, 0, Trade::Aggressor::Seller},
        {Price("10.3"), Quantity("1"), 0, 8, 0, Trade::Aggressor::Unknown},
    };
    EXPECT_EQ(
        FormatTradesLine("M", "S", trades),
        R"({"type":"trades","market":"M","symbol":"S","trades":[)"
        R"({"price":"10.5","quantity":"2","aggressor":"buyer","exchange_time_ns":"7","receive_time_ns":"8","id":"9"},)"
        R"({"price":"10.4","quantity":"0.1","aggressor":"seller","exchange_time_ns":null,"receive_time_ns":"8","id":null},)"
        R"({"price":"10.3","quantity":"1","aggressor":null,"exchange_time_ns":null,"receive_time_ns":"8","id":null}]})"
        "\n");
}

TEST(JsonLine, EscapesWhatANameMayContain)
{
    const auto line = boost::json::parse(FormatTradesLine("a\"b\\", "line\nbreak\x01", {})).as_object();
    EXPECT_EQ(line.at("market").as_string(), "a\"b\\");
    EXPECT_EQ(line.at("symbol").as_string(), "line\nbreak\x01");
}

TEST(JsonLine, ReplacesOnlyBytesThatAreNotUtf8)
{
    EXPECT_EQ(MakeUtf8("BTC\xe2\x82\xac"), "BTC\xe2\x82\xac"); // the euro sign
    EXPECT_EQ(MakeUtf8("BTC\xff!"), "BTC?!");
    EXPECT_EQ(MakeUtf8(""), "");
}

} // namespace
} // namespace ps_ns
