#include "gateway/protocol.h"

#include "composite_instrument/composite_subscription_info.h"
#include "utf8.h"

#include <boost/json.hpp>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace ps_ns::gateway
{
namespace
{

namespace json = boost::json;

RequestError ErrorOf(std::string_view line)
{
    const Request request = ParseRequest(line);
    const auto* const error = std::get_if<RequestError>(&request);
    return error == nullptr ? RequestError{std::nullopt, "none", "", "no error"} : *error;
}

template <class Known>
Known Parse(std::string_view line)
{
    Request request = ParseRequest(line);
    EXPECT_TRUE(std::holds_alternative<Known>(request)) << line << ": " << ErrorOf(line).message;
    return std::holds_alternative<Known>(request) ? std::get<Known>(std::move(request)) : Known{};
}

std::string Repeat(std::string_view text, std::size_t count)
{
    std::string all;
    for (std::size_t i = 0; i < count; ++i)
    {
        all += text;
    }
    return all;
}

std::string Ping(const std::string& request)
{
    return R"({"type":"ping","request":")" + request + R"("})";
}

json::object Read(const std::string& text)
{
    EXPECT_EQ(text.find('\n'), std::string::npos) << "an object stands on one line";
    EXPECT_TRUE(IsUtf8(text));
    return json::parse(text).as_object();
}

std::vector<std::string> NamesOf(const json::object& object)
{
    std::vector<std::string> names;
    for (const auto& member : object)
    {
        names.emplace_back(member.key());
    }
    return names;
}

using Names = std::vector<std::string>;

TEST(Requests, SubscribeWithWhatIsAbsentAtItsDefault)
{
    const auto request = Parse<SubscribeRequest>(R"({"type":"subscribe","request":"a","instrument":"M:S"})");
    EXPECT_EQ(request.request, "a");
    EXPECT_EQ(request.instrument, "M:S");
    EXPECT_EQ(request.depth, CompositeSubscriptionInfo::kDefaultDepth);
    EXPECT_EQ(request.interval_ms, 0U);
    EXPECT_EQ(request.kinds, Kinds{});
}

TEST(Requests, SubscribeWithEveryMember)
{
    const auto request = Parse<SubscribeRequest>(
        R"( {"kinds":["fields","trades"],"interval_ms":60000,"depth":1000,"instrument":"M:S","request":"a","type":"subscribe"} )");
    EXPECT_EQ(request.depth, 1000);
    EXPECT_EQ(request.interval_ms, 60'000U);
    EXPECT_EQ(request.kinds, (Kinds{false, true, true}));
}

TEST(Requests, NameADepthByWord)
{
    const auto depth = [](const char* value)
    {
        return Parse<SubscribeRequest>(R"({"type":"subscribe","request":"a","instrument":"M:S","depth":)" +
                                       std::string(value) + "}")
            .depth;
    };
    EXPECT_EQ(depth(R"("default")"), CompositeSubscriptionInfo::kDefaultDepth);
    EXPECT_EQ(depth(R"("max")"), CompositeSubscriptionInfo::kMaxDepth);
    EXPECT_EQ(depth("1"), 1);
}

TEST(Requests, ChangeWhatTheyNameAndNothingElse)
{
    const auto nothing = Parse<ChangeRequest>(R"({"type":"change","request":"a","subscription":"b"})");
    EXPECT_FALSE(nothing.depth || nothing.interval_ms || nothing.kinds || nothing.image);
    const auto all = Parse<ChangeRequest>(
        R"({"type":"change","request":"a","subscription":"b","depth":7,"interval_ms":5,"kinds":["book"],"image":true})");
    EXPECT_EQ(all.subscription, "b");
    EXPECT_EQ(all.depth, 7);
    EXPECT_EQ(all.interval_ms, 5U);
    EXPECT_EQ(all.kinds, Kinds{});
    EXPECT_TRUE(all.image);
    EXPECT_FALSE(Parse<ChangeRequest>(R"({"type":"change","request":"a","subscription":"b","image":false})").image);
}

TEST(Requests, UnsubscribePingAndAuthenticate)
{
    const auto unsubscribe = Parse<UnsubscribeRequest>(R"({"type":"unsubscribe","request":"a","subscription":"b"})");
    EXPECT_EQ(unsubscribe.request + unsubscribe.subscription, "ab");
    EXPECT_EQ(Parse<PingRequest>(Ping("x")).request, "x");
    EXPECT_EQ(Parse<AuthenticateRequest>(R"({"type":"authenticate","token":"t"})").token, "t");
}

TEST(Requests, AreNoJson)
{
    const std::vector<std::string> lines{
        "",        " ",          "{",           "}",          "nothing",          "{\"a\":}",
        "{'a':1}", "{\"a\":1,}", "{\"a\":01}",  "{} {}",      "{\"a\":\"\x01\"}", "\xEF\xBB\xBF{}",
        "[1,2",    "\"a",        "{\"a\":NaN}", "{\"a\":+1}", "/**/{}",           std::string("{}\0", 3)};
    for (const std::string& line : lines)
    {
        const RequestError error = ErrorOf(line);
        EXPECT_EQ(error.code, "bad_json") << line;
        EXPECT_EQ(error.where, "");
        EXPECT_FALSE(error.request);
        EXPECT_FALSE(error.message.empty());
    }
}

TEST(Requests, AreNoObject)
{
    for (const char* line : {"1", "null", "true", "\"subscribe\"", "[]", "[{\"type\":\"ping\"}]", "1e5", "-0"})
    {
        EXPECT_EQ(ErrorOf(line).code, "bad_json") << line;
        EXPECT_NE(ErrorOf(line).message.find("an object expected"), std::string::npos) << line;
    }
}

TEST(Requests, AreNestedTooDeeply)
{
    for (const std::size_t depth : {9U, 33U, 1000U, 30'000U})
    {
        EXPECT_EQ(ErrorOf(Repeat("[", depth)).code, "bad_json");
        EXPECT_EQ(ErrorOf(Repeat("[", depth) + Repeat("]", depth)).code, "bad_json");
        EXPECT_EQ(ErrorOf(Repeat("{\"a\":", depth) + "1" + Repeat("}", depth)).code, "bad_json");
    }
    EXPECT_EQ(ErrorOf(R"({"type":"ping","request":[[[[[[1]]]]]]})").code, "bad_value") << "this deep is no harm";
}

TEST(Requests, AreBrokenUtf8)
{
    for (const char* bad : {"\x80", "\xC0\x80", "\xC3", "\xE2\x82", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xFF"})
    {
        EXPECT_EQ(ErrorOf(Ping(bad)).code, "bad_json");
    }
    EXPECT_EQ(ErrorOf(Ping("\\ud800")).code, "bad_json");
    EXPECT_EQ(ErrorOf(Ping("\\udc00\\ud800")).code, "bad_json");
    EXPECT_EQ(Parse<PingRequest>(Ping("\\ud83d\\ude42")).request, "\xF0\x9F\x99\x82");
}

TEST(Requests, HaveATypeThatThereIsNot)
{
    for (const char* type : {"SUBSCRIBE", "Ping", "hello", "result", "subscribe ", "\\u0000"})
    {
        const RequestError error = ErrorOf(std::string(R"({"request":"a","type":")") + type + "\"}");
        EXPECT_EQ(error.code, "bad_type") << type;
        EXPECT_EQ(error.where, "type");
        EXPECT_EQ(error.request, "a");
    }
}

struct Wrong
{
    const char* line;
    const char* code;
    const char* where;
};

class WrongRequests : public ::testing::TestWithParam<Wrong>
{
};

TEST_P(WrongRequests, AreRefusedWithACodeAndAPlace)
{
    const RequestError error = ErrorOf(GetParam().line);
    EXPECT_EQ(error.code, GetParam().code) << GetParam().line;
    EXPECT_EQ(error.where, GetParam().where) << GetParam().line;
    EXPECT_FALSE(error.message.empty());
}

INSTANTIATE_TEST_SUITE_P(
    OfAllKinds, WrongRequests,
    ::testing::Values(
        Wrong{R"({})", "bad_member", "type"}, Wrong{R"({"type":null})", "bad_value", "type"},
        Wrong{R"({"type":""})", "bad_value", "type"}, Wrong{R"({"type":["ping"]})", "bad_value", "type"},
        Wrong{R"({"type":"ping"})", "bad_member", "request"},
        Wrong{R"({"type":"ping","request":5})", "bad_value", "request"},
        Wrong{R"({"type":"ping","request":""})", "bad_value", "request"},
        Wrong{R"({"type":"ping","request":null})", "bad_value", "request"},
        Wrong{R"({"type":"ping","request":"a","extra":1})", "bad_member", "extra"},
        Wrong{R"({"type":"ping","request":"a","Request":"b"})", "bad_member", "Request"},
        Wrong{R"({"type":"subscribe","request":"a"})", "bad_member", "instrument"},
        Wrong{R"({"type":"subscribe","request":"a","instrument":7})", "bad_value", "instrument"},
        Wrong{R"({"type":"subscribe","request":"a","instrument":""})", "bad_value", "instrument"},
        Wrong{R"({"type":"subscribe","request":"a","instrument":"M:S","image":true})", "bad_member", "image"},
        Wrong{R"({"type":"subscribe","request":"a","instrument":"M:S","depht":5})", "bad_member", "depht"},
        Wrong{R"({"type":"subscribe","request":"a","instrument":"M:S","depth":0})", "bad_value", "depth"},
        Wrong{R"({"type":"subscribe","request":"a","instrument":"M:S","depth":-1})", "bad_value", "depth"},
        Wrong{R"({"type":"subscribe","request":"a","instrument":"M:S","depth":-2})", "bad_value", "depth"},
        Wrong{R"({"type":"subscribe","request":"a","instrument":"M:S","depth":1001})", "bad_value", "depth"},
        Wrong{R"({"type":"subscribe","request":"a","instrument":"M:S","depth":2.5})", "bad_value", "depth"},
        Wrong{R"({"type":"subscribe","request":"a","instrument":"M:S","depth":"5"})", "bad_value", "depth"},
        Wrong{R"({"type":"subscribe","request":"a","instrument":"M:S","depth":"MAX"})", "bad_value", "depth"},
        Wrong{R"({"type":"subscribe","request":"a","instrument":"M:S","depth":null})", "bad_value", "depth"},
        Wrong{R"({"type":"subscribe","request":"a","instrument":"M:S","depth":true})", "bad_value", "depth"},
        Wrong{R"({"type":"subscribe","request":"a","instrument":"M:S","depth":4294967297})", "bad_value", "depth"},
        Wrong{R"({"type":"subscribe","request":"a","instrument":"M:S","depth":18446744073709551615})", "bad_value",
              "depth"},
        Wrong{R"({"type":"subscribe","request":"a","instrument":"M:S","depth":1e300})", "bad_value", "depth"},
        Wrong{R"({"type":"subscribe","request":"a","instrument":"M:S","interval_ms":-1})", "bad_value", "interval_ms"},
        Wrong{R"({"type":"subscribe","request":"a","instrument":"M:S","interval_ms":60001})", "bad_value",
              "interval_ms"},
        Wrong{R"({"type":"subscribe","request":"a","instrument":"M:S","interval_ms":"5"})", "bad_value", "interval_ms"},
        Wrong{R"({"type":"subscribe","request":"a","instrument":"M:S","interval_ms":0.5})", "bad_value", "interval_ms"},
        Wrong{R"({"type":"subscribe","request":"a","instrument":"M:S","kinds":[]})", "bad_value", "kinds"},
        Wrong{R"({"type":"subscribe","request":"a","instrument":"M:S","kinds":"book"})", "bad_value", "kinds"},
        Wrong{R"({"type":"subscribe","request":"a","instrument":"M:S","kinds":["Book"]})", "bad_value", "kinds"},
        Wrong{R"({"type":"subscribe","request":"a","instrument":"M:S","kinds":["book",1]})", "bad_value", "kinds"},
        Wrong{R"({"type":"subscribe","request":"a","instrument":"M:S","kinds":{"book":1}})", "bad_value", "kinds"},
        Wrong{R"({"type":"subscribe","request":"a","instrument":"M:S","kinds":[[]]})", "bad_value", "kinds"},
        Wrong{R"({"type":"change","request":"a"})", "bad_member", "subscription"},
        Wrong{R"({"type":"change","request":"a","subscription":"b","image":1})", "bad_value", "image"},
        Wrong{R"({"type":"change","request":"a","subscription":"b","image":"true"})", "bad_value", "image"},
        Wrong{R"({"type":"change","request":"a","subscription":"b","instrument":"M:S"})", "bad_member", "instrument"},
        Wrong{R"({"type":"change","request":"a","subscription":{}})", "bad_value", "subscription"},
        Wrong{R"({"type":"unsubscribe","request":"a"})", "bad_member", "subscription"},
        Wrong{R"({"type":"unsubscribe","request":"a","subscription":"b","depth":5})", "bad_member", "depth"},
        Wrong{R"({"type":"authenticate"})", "bad_member", "token"},
        Wrong{R"({"type":"authenticate","token":""})", "bad_value", "token"},
        Wrong{R"({"type":"authenticate","token":[]})", "bad_value", "token"},
        Wrong{R"({"type":"authenticate","token":"t","request":"a"})", "bad_member", "request"}));

TEST(Requests, AreMeasuredInCharacters)
{
    const std::string longest = Repeat("\xE2\x82\xAC", 64);
    EXPECT_EQ(Parse<PingRequest>(Ping(longest)).request, longest);
    const RequestError error = ErrorOf(Ping(longest + "x"));
    EXPECT_EQ(error.code, "bad_value");
    EXPECT_FALSE(error.request) << "an id that is too long is not repeated, and never in part";
    EXPECT_EQ(ErrorOf(R"({"type":"authenticate","token":")" + Repeat("t", 4097) + "\"}").code, "bad_value");
    EXPECT_EQ(Parse<AuthenticateRequest>(R"({"type":"authenticate","token":")" + Repeat("t", 4096) + "\"}").token,
              Repeat("t", 4096));
    EXPECT_EQ(ErrorOf(R"({"type":"subscribe","request":"a","instrument":")" + Repeat("i", 257) + "\"}").where,
              "instrument");
}

TEST(Requests, AreRefusedInUtf8WhateverTheyHold)
{
    for (const char* character : {"\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x99\x82"})
    {
        for (std::size_t shift = 0; shift < 4; ++shift)
        {
            const std::string text = Repeat("x", shift) + Repeat(character, 5000);
            for (const std::string& line :
                 {Ping(text), R"({"type":")" + text + "\"}", R"({"type":"ping","request":"a",")" + text + "\":1}",
                  R"({"type":"subscribe","request":"a","instrument":"M:S","depth":")" + text + "\"}",
                  R"({"type":"subscribe","request":"a","instrument":"M:S","kinds":[")" + text + "\"]}"})
            {
                const RequestError error = ErrorOf(line);
                EXPECT_TRUE(IsUtf8(error.message));
                EXPECT_TRUE(IsUtf8(error.where));
                const std::string formatted = FormatError(error);
                EXPECT_LT(formatted.size(), 1500U) << "an error is no echo of everything";
                EXPECT_TRUE(Read(formatted).contains("code"));
            }
        }
    }
}

TEST(Requests, SayWhatWasFoundAndWhatWasExpected)
{
    EXPECT_EQ(ErrorOf(R"({"type":"subscribe","request":"a","instrument":"M:S","depth":0})").message,
              R"("depth" is 0: a whole number from 1 to 1000, "default" or "max" expected)");
    EXPECT_EQ(ErrorOf(R"({"type":"subscribe","request":"a","instrument":"M:S","depht":0})").message,
              R"(a request of type "subscribe" has no member "depht")");
    EXPECT_EQ(ErrorOf(R"({"type":"ping"})").message, R"("request" is missing)");
}

// --- What the server says ---

GatewayOptions MakeOptions()
{
    GatewayOptions options;
    options.version = "1.2";
    options.build = "today";
    return options;
}

TEST(Answers, SayHello)
{
    const json::object hello = Read(FormatHello(17, MakeOptions(), true, {{"USDM", "SPOT"}, false}));
    EXPECT_EQ(NamesOf(hello), (Names{"type", "protocol", "server", "version", "build", "session", "time_ns",
                                     "authenticated", "rights", "limits"}));
    EXPECT_EQ(hello.at("type"), "hello");
    EXPECT_EQ(hello.at("protocol"), 1);
    EXPECT_EQ(hello.at("session"), 17);
    EXPECT_TRUE(hello.at("time_ns").is_string());
    EXPECT_EQ(json::serialize(hello.at("rights")), R"({"markets":["USDM","SPOT"],"operations":false})");
    EXPECT_EQ(json::serialize(hello.at("limits")),
              R"({"message_bytes":65536,"subscriptions":200,"requests_per_second":100,"depth":1000,)"
              R"("conflate_bytes":262144,"close_bytes":1048576,"stall_ms":10000,"idle_ms":60000})");
}

TEST(Answers, GrantNothingToWhoHasShownNoToken)
{
    const json::object hello = Read(FormatHello(1, MakeOptions(), false, Rights{}));
    EXPECT_EQ(hello.at("authenticated"), false);
    EXPECT_EQ(json::serialize(hello.at("rights")), R"({"markets":[],"operations":false})");
    EXPECT_EQ(FormatAuthenticated({{}, true}),
              R"({"type":"authenticated","rights":{"markets":["*"],"operations":true}})");
}

TEST(Answers, RepeatWhatCannotStandInJsonEscaped)
{
    const std::string odd = "a\"\\\n\x01/\xE2\x82\xAC";
    EXPECT_EQ(Read(FormatPong(odd)).at("request"), json::string(odd));
    EXPECT_EQ(Read(FormatAccepted(odd, odd, 5)).at("instrument"), json::string(odd));
    EXPECT_EQ(Read(FormatGap(odd, 3)).at("instrument"), json::string(odd));
    EXPECT_EQ(Read(FormatConflated(odd, 5, 3)).at("instrument"), json::string(odd));
    EXPECT_EQ(Read(FormatError({odd, "bad_value", odd, odd})).at("message"), json::string(odd));
    EXPECT_TRUE(Read(FormatError({std::nullopt, "bad_json", "", "m"})).at("request").is_null());
}

TEST(Answers, HaveTheMembersOfTheContract)
{
    using ps_messages_ns::SubscriptionResult;
    EXPECT_EQ(NamesOf(Read(FormatAccepted("a", "M:S", 5))),
              (Names{"type", "request", "code", "name", "meaning", "instrument", "depth"}));
    EXPECT_EQ(NamesOf(Read(FormatAccepted("a", "", 0))), (Names{"type", "request", "code", "name", "meaning"}));
    EXPECT_EQ(Read(FormatAccepted("a", "", 0)).at("code"), 100);
    EXPECT_EQ(Read(FormatResult("a", SubscriptionResult::NoSubscription)).at("name"), "NoSubscription");
    PriceFormat format;
    format.denominator = 10;
    format.fractionDigits = 1;
    const json::object result =
        Read(FormatComponentResult("a", SubscriptionResult::Success, CompositeComponentType::Implied, format));
    EXPECT_EQ(result.at("component"), "implied");
    EXPECT_EQ(json::serialize(result.at("format")), R"({"denominator":10,"fraction_digits":1,"tick_size":1})");
    EXPECT_EQ(FormatConflated("M:S", 5, 12), R"({"type":"conflated","instrument":"M:S","depth":5,"count":12})");
    EXPECT_EQ(FormatGap("M:S", 17), R"({"type":"gap","instrument":"M:S","kind":"trades","lost":17})");
    EXPECT_EQ(NamesOf(Read(FormatPong("a"))), (Names{"type", "request", "time_ns"}));
    EXPECT_EQ(NamesOf(Read(FormatError({"a", "bad_type", "type", "m"}))),
              (Names{"type", "request", "code", "where", "message"}));
}

} // namespace
} // namespace ps_ns::gateway
