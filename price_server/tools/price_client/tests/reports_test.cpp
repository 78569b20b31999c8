#include "price_client/reports.h"
#include "price_client/views.h"

#include <gtest/gtest.h>

namespace ps_ns::price_client
{
namespace
{

boost::json::value Parse(const std::string& text)
{
    return boost::json::parse(text);
}

TEST(FormatTime, KeepsAllNanoseconds)
{
    EXPECT_EQ(FormatTime(1798761601996060737), "2027-01-01 00:00:01.996060737 UTC");
    EXPECT_EQ(FormatTime(5), "1970-01-01 00:00:00.000000005 UTC");
}

TEST(FormatStatus, ShowsServerUptimeSessionsMarketsAndGauges)
{
    const auto status = Parse(R"({"server":"price_server","version":"1.2","build":"today",
        "started_ns":"1000000000000000000","time_ns":"1000093784000000000","ready":true,"sessions":3,"sessions_ever":9,
        "instruments":18,"markets":[{"id":1,"name":"SIM","default_depth":10,"max_depth":1000}],
        "gauges":{"z_gauge":2.5E0,"a_gauge":4E0}})");
    EXPECT_EQ(FormatStatus(status.as_object()), "server          price_server 1.2 (today)\n"
                                                "ready           yes\n"
                                                "started         2001-09-09 01:46:40.000000000 UTC\n"
                                                "up              1 d 02:03:04\n"
                                                "sessions        3 now, 9 ever\n"
                                                "instruments     18\n"
                                                "market 1        SIM, depth 10, at most 1000\n"
                                                "\n"
                                                "a_gauge  4\n"
                                                "z_gauge  2.5E0\n");
}

const std::string kHead = R"("instrument":"SIM:A","exchange":"X","identity":{"instrument_id":"14789205804466389219",
    "market_id":1,"submarket_id":-1},"direct":true,"implied":true)";

TEST(FormatExplanation, ShowsIdentityComponentsProviderScopesHoldersAndState)
{
    const auto explanation =
        Parse("{" + kHead + R"(,"subscriptions":[{"instrument":"SIM:A","symbol":"A","provider":"zel",
        "state":"active","merged_scope":{"depth":10,"interval_ms":0,"trades":true,"fields":false},
        "components":[
            {"component":"direct","symbol":"A","provider":"mds","is_final":true,"is_subscribed":true,
             "result":{"code":0,"name":"Success","meaning":"The component is subscribed."}},
            {"component":"implied","symbol":"IM_A","provider":"zel","is_final":false,"is_subscribed":false,
             "result":{"code":17,"name":"DirectSubscriptionFailed","meaning":"Not to be had."}}],
        "holders":[{"id":5,"holder":"gateway-3","scope":{"depth":2,"interval_ms":50,"trades":false,"fields":true}}],
        "callbacks":"books=1","last_update_ns":null}]})");
    EXPECT_EQ(
        FormatExplanation(explanation.as_object()),
        "instrument      SIM:A\n"
        "exchange        X\n"
        "identity        instrument 14789205804466389219, market 1, submarket -1\n"
        "components      direct, implied\n"
        "\n"
        "subscription    SIM:A\n"
        "  symbol        A\n"
        "  state         active\n"
        "  provider      zel\n"
        "  direct        A at mds (final), subscribed: 0 Success, The component is subscribed.\n"
        "  implied       IM_A at zel (not final yet), not subscribed: 17 DirectSubscriptionFailed, Not to be had.\n"
        "  merged scope  depth 10, every change, trades\n"
        "  holders       1\n"
        "    5           gateway-3: depth 2, at most one book in 50 ms, fields\n"
        "  delivered     books=1\n"
        "  last update   none yet\n");
}

TEST(FormatExplanation, SaysWhenNobodyHasSubscribed)
{
    const std::string text = FormatExplanation(Parse("{" + kHead + R"(,"subscriptions":[]})").as_object());
    EXPECT_NE(text.find("\nnot subscribed: nobody asks for it now\n"), std::string::npos) << text;
}

TEST(FormatExplanation, SurvivesWhateverIsMissing)
{
    EXPECT_NE(FormatExplanation({}).find("instrument      ?"), std::string::npos);
    EXPECT_NE(FormatStatus({}).find("started         ?"), std::string::npos);
}

const std::string kInstruments = R"([
    {"instrument":"SIM:LONG-NAME","market":"SIM","exchange":"SIM","description":"red\u001b[31m","direct":true,
     "implied":false},
    {"instrument":"A:B","market":"A","exchange":"EXCHANGE","description":"","direct":false,"implied":true}])";

TEST(FormatInstruments, AlignsItsColumnsAndLetsNoControlCharacterThrough)
{
    EXPECT_EQ(FormatInstruments(Parse(kInstruments).as_array()), "INSTRUMENT     EXCHANGE  COMPONENTS  DESCRIPTION\n"
                                                                 "SIM:LONG-NAME  SIM       direct      red?[31m\n"
                                                                 "A:B            EXCHANGE  implied\n");
}

TEST(FormatInstruments, CanBeNamesOrJsonLines)
{
    EXPECT_EQ(FormatNames(Parse(kInstruments).as_array()), "SIM:LONG-NAME\nA:B\n");
    EXPECT_EQ(FormatLines(Parse(R"([{"a":1},{"b":2}])").as_array()), "{\"a\":1}\n{\"b\":2}\n");
    EXPECT_EQ(FormatInstruments({}), "INSTRUMENT  EXCHANGE  COMPONENTS  DESCRIPTION\n");
}

const std::string kImage = R"({"type":"image","instrument":"M:S","depth":2,"epoch":1,"sequence":5,
    "bids":[["9.5","1","0",null]],"asks":[],"missing":[],"stale":[]})";

TEST(LineView, WritesWhatWasReceived)
{
    std::vector<std::string> lines;
    LineView view(false, 1, [&](std::string line) { lines.push_back(std::move(line)); });
    view.OnObject("image", "{1}");
    view.OnBook(0, Book());
    view.OnObject("trades", "{2}");
    EXPECT_EQ(lines, (std::vector<std::string>{"{1}\n", "{2}\n"}));
}

TEST(LineView, WritesWholeBooksInsteadOfImagesAndUpdates)
{
    std::vector<std::string> lines;
    LineView view(true, 1, [&](std::string line) { lines.push_back(std::move(line)); });
    Book book;
    book.Apply(Parse(kImage).as_object());
    view.OnName(0, "M:S");
    view.OnObject("image", "{1}");
    view.OnBook(0, book);
    view.OnObject("update", "{2}");
    view.OnObject("gap", "{3}");
    EXPECT_EQ(lines, (std::vector<std::string>{book.FormatLine("M:S") + "\n", "{3}\n"}));
}

TEST(LadderScreen, ShowsBooksWithTheirDecimalsTheLastTradeAndThatTheyAreOld)
{
    LadderScreen screen({"S", "M:S"});
    EXPECT_FALSE(screen.HasNames());
    screen.OnName(0, "M:S");
    screen.OnDigits(0, 2);
    Book book;
    book.Apply(Parse(kImage).as_object());
    screen.OnBook(0, book);
    screen.OnTrades(0, Parse(R"({"trades":[{"price":"9","quantity":"1","aggressor":null},
        {"price":"9.25","quantity":"3","aggressor":"buyer"}]})")
                           .as_object());
    const auto lines = screen.Render("footer", {60, 10}, false);
    EXPECT_TRUE(lines.at(0).starts_with("M:S  "));
    EXPECT_TRUE(lines.at(0).ends_with("  last 9.25 x 3")) << lines.at(0);
    EXPECT_NE(lines.at(2).find("9.50"), std::string::npos);
    EXPECT_EQ(lines.back(), "footer") << "the second name of the same instrument is not shown";
    EXPECT_EQ(screen.GetUpdateCount(), 2U);
    screen.OnLost();
    EXPECT_EQ(screen.Render("", {60, 10}, false).at(0).substr(0, 7), "M:S OLD");
    screen.OnBook(0, book);
    EXPECT_EQ(screen.Render("", {60, 10}, false).at(0).find("OLD"), std::string::npos);
}

} // namespace
} // namespace ps_ns::price_client
