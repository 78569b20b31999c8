#include "access.h"

#include "handshake.h"
#include "http_api.h"
#include "utf8.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace ps_ns::gateway
{
namespace
{

GatewayOptions MakeOptions(const std::string& address = "127.0.0.1")
{
    GatewayOptions options;
    options.address = address;
    options.tokens = {{"desk", "secret-one", {{"USDM"}, false}}, {"ops", "secret-two", {{}, true}}};
    options.origins = {"https://desk.example"};
    return options;
}

// --- Tokens ---

TEST(AccessControl, KnowsTheOwnerOfAToken)
{
    const AccessControl access(MakeOptions());
    EXPECT_TRUE(access.DemandsToken());
    EXPECT_EQ(access.Check("secret-one")->name, "desk");
    EXPECT_EQ(access.Check("secret-two")->name, "ops");
    EXPECT_TRUE(access.Check("secret-one")->rights.Opens("USDM"));
    EXPECT_FALSE(access.Check("secret-one")->rights.Opens("SPOT"));
    EXPECT_FALSE(access.Check("secret-one")->rights.Opens(""));
    EXPECT_TRUE(access.Check("secret-two")->rights.Opens("SPOT"));
}

TEST(AccessControl, RefusesWhatIsNearlyAToken)
{
    const AccessControl access(MakeOptions());
    const std::vector<std::string> wrong{"",
                                         "secret",
                                         "secret-on",
                                         "secret-one ",
                                         " secret-one",
                                         "Secret-one",
                                         "secret-one\n",
                                         "secret-onesecret-two",
                                         std::string("secret-one\0", 11),
                                         std::string(1 << 20, 's')};
    for (const std::string& token : wrong)
    {
        EXPECT_FALSE(access.Check(token)) << token.substr(0, 30);
    }
}

TEST(AccessControl, ReadsTokensFromHeaders)
{
    const AccessControl access(MakeOptions());
    for (const char* value : {"Bearer secret-one", "bearer secret-one", "BEARER secret-one"})
    {
        EXPECT_TRUE(access.CheckHeader(value)) << value;
    }
    for (const char* value : {"", "Bearer", "Bearer ", "secret-one", "Basic secret-one", "Bearersecret-one",
                              "Bearer  secret-one", "Bearer\tsecret-one", "Bearer secret-one, Bearer secret-two"})
    {
        EXPECT_FALSE(access.CheckHeader(value)) << value;
    }
}

TEST(AccessControl, DemandsNoTokenWhereThereIsNone)
{
    const AccessControl access{GatewayOptions{}};
    EXPECT_FALSE(access.DemandsToken());
    EXPECT_FALSE(access.Check(""));
    EXPECT_TRUE(access.GetAnybody().rights.Opens("ANY"));
}

// --- Origins and hosts ---

TEST(AccessControl, LetsItsOwnPageInAndThoseThatAreNamed)
{
    const AccessControl access(MakeOptions());
    for (const char* origin :
         {"", "http://127.0.0.1:8080", "HTTP://127.0.0.1:8080", "https://desk.example", "https://DESK.example"})
    {
        EXPECT_TRUE(access.AllowsOrigin(origin, "127.0.0.1:8080")) << origin;
    }
    for (const char* origin :
         {"null", "http://127.0.0.1", "http://127.0.0.1:80800", "https://127.0.0.1:8080", "http://evil.example",
          "https://desk.example.evil.example", "https://desk.example/", "https://desk.example:443",
          "http://desk.example", "desk.example", "http://", "http://localhost:8080", "file://"})
    {
        EXPECT_FALSE(access.AllowsOrigin(origin, "127.0.0.1:8080")) << origin;
    }
}

TEST(AccessControl, KnowsItsOwnPageByTheSchemeThatItServes)
{
    GatewayOptions options = MakeOptions();
    options.tls = {"cert.pem", "key.pem"};
    const AccessControl access(options);
    EXPECT_TRUE(access.AllowsOrigin("https://localhost:8443", "localhost:8443"));
    EXPECT_FALSE(access.AllowsOrigin("http://localhost:8443", "localhost:8443"));
}

TEST(AccessControl, AnswersOnLoopbackToItsNamesOnly)
{
    const AccessControl access(MakeOptions("127.0.0.3"));
    for (const char* host :
         {"localhost", "LOCALHOST:1", "127.0.0.1", "127.0.0.1:8080", "127.0.0.3:8080", "[::1]", "[::1]:8080"})
    {
        EXPECT_TRUE(access.AllowsHost(host)) << host;
    }
    for (const char* host :
         {"", ":8080", "evil.example", "localhost.evil.example", "127.0.0.2", "127.0.0.1.evil.example", "::1",
          "[::2]:8080", "[::1", "localhost.", "a@localhost", "127.0.0.1:80:80", "0.0.0.0"})
    {
        EXPECT_FALSE(access.AllowsHost(host)) << host;
    }
}

TEST(AccessControl, AnswersBeyondLoopbackToEveryName)
{
    const AccessControl access(MakeOptions("0.0.0.0"));
    EXPECT_TRUE(access.AllowsHost("prices.example"));
    EXPECT_TRUE(access.AllowsHost(""));
}

TEST(Loopback, IsWhatOnlyThisMachineReaches)
{
    for (const char* address : {"127.0.0.1", "127.255.255.254", "::1"})
    {
        EXPECT_TRUE(IsLoopback(address)) << address;
    }
    for (const char* address :
         {"0.0.0.0", "::", "10.0.0.1", "128.0.0.1", "fe80::1", "localhost", "", "127.1", "::ffff:1.2.3.4"})
    {
        EXPECT_FALSE(IsLoopback(address)) << address;
    }
}

TEST(GatewayOptions, MakeNoSenseWithoutAnAddressATokenOrBothTlsFiles)
{
    EXPECT_EQ(FindProblem(MakeOptions()), "");
    EXPECT_EQ(FindProblem(MakeOptions("0.0.0.0")), "");
    EXPECT_EQ(FindProblem(GatewayOptions{}), "");
    EXPECT_EQ(FindProblem(MakeOptions("localhost")), "\"localhost\" is no IP address to listen on");
    GatewayOptions open = MakeOptions("0.0.0.0");
    open.tokens.clear();
    EXPECT_NE(FindProblem(open).find("needs a token"), std::string::npos);
    open.address = "::ffff:10.0.0.1";
    EXPECT_NE(FindProblem(open), "");
    GatewayOptions half = MakeOptions();
    half.tls.privateKey = "key.pem";
    EXPECT_EQ(FindProblem(half), "TLS needs both a certificate and a key");
    GatewayOptions empty = MakeOptions();
    empty.tokens[1].value = "";
    EXPECT_EQ(FindProblem(empty), "a token is empty");
}

// --- Targets ---

TEST(Targets, AreDecoded)
{
    HttpQuery query;
    ASSERT_TRUE(ParseTarget("/a%20b+c/%E2%82%AC?x=1+2&y=%26%3D&z&=q&x=3", query));
    EXPECT_EQ(query.path, "/a b+c/\xE2\x82\xAC");
    EXPECT_EQ(query.parameters.at("x"), "3") << "the last one counts";
    EXPECT_EQ(query.parameters.at("y"), "&=");
    EXPECT_EQ(query.parameters.at("z"), "");
    HttpQuery blank;
    ASSERT_TRUE(ParseTarget("/?q=1+2", blank));
    EXPECT_EQ(blank.parameters.at("q"), "1 2");
    EXPECT_EQ(blank.path, "/");
}

TEST(Targets, AreRefusedWhenTheyAreNoPathOrTheirEscapesAreBroken)
{
    for (const char* target : {"",      "*",    "ws",    "http://host/", "?a=b",    "/%",         "/%4",        "/%4g",
                               "/%g4",  "/a%",  "/?%",   "/?a=%1",       "/%00",    "/%0a",       "/?a=%0D%0A", "/%1f",
                               "/\x01", "/%ff", "/\xff", "/%c3",         "/?%80=1", "/%ed%a0%80", "/%c0%ae"})
    {
        HttpQuery query;
        EXPECT_FALSE(ParseTarget(target, query)) << target;
    }
}

TEST(Targets, StayWhatTheyAreWhenTheyClimb)
{
    HttpQuery query;
    ASSERT_TRUE(ParseTarget("/%2e%2e/..%2fetc/passwd", query));
    EXPECT_EQ(query.path, "/../../etc/passwd") << "nothing is resolved, and so nothing is found";
}

// --- Handshakes ---

TEST(Handshake, HasAKeyOfSixteenBytes)
{
    EXPECT_TRUE(IsWebSocketKey("dGhlIHNhbXBsZSBub25jZQ=="));
    EXPECT_TRUE(IsWebSocketKey("////////////////////++=="));
    for (const char* key : {"", "short", "dGhlIHNhbXBsZSBub25jZQ=", "dGhlIHNhbXBsZSBub25jZQ===",
                            "dGhlIHNhbXBsZSBub25jZQAA", "dGhlIHNhbXBsZSBub25jZ===", "dGhlIHNhbXBsZSBub25-ZQ=="})
    {
        EXPECT_FALSE(IsWebSocketKey(key)) << key;
    }
}

TEST(Handshake, OffersTheSubprotocolInItsVerySpellingOrNone)
{
    const auto offers = [](const std::vector<const char*>& values)
    {
        HttpRequest request;
        for (const char* value : values)
        {
            request.insert(boost::beast::http::field::sec_websocket_protocol, value);
        }
        return OffersSubprotocol(request);
    };
    EXPECT_TRUE(offers({}));
    EXPECT_TRUE(offers({"price-server.v1"}));
    EXPECT_TRUE(offers({"other, price-server.v1"}));
    EXPECT_TRUE(offers({"other", "price-server.v1"}));
    EXPECT_FALSE(offers({""}));
    EXPECT_FALSE(offers({"Price-Server.v1"}));
    EXPECT_FALSE(offers({"price-server.v1x", "other"}));
}

TEST(Handshake, AcceptsGzipUnlessItIsWeighedAtNothing)
{
    for (const char* value : {"gzip", "GZIP", "deflate, gzip;q=0.5", "gzip;q=1.0, *;q=0", "br,gzip"})
    {
        EXPECT_TRUE(AcceptsGzip(value)) << value;
    }
    for (const char* value : {"", "identity", "gzip;q=0", "gzip; q=0.000", "br", "gzipped", "x-gzip"})
    {
        EXPECT_FALSE(AcceptsGzip(value)) << value;
    }
}

// --- UTF-8 ---

TEST(Utf8, IsWellFormedOrNot)
{
    for (const char* good : {"", "a", "\x7F", "\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80", "\xED\x9F\xBF", "\xEE\x80\x80",
                             "\xEF\xBF\xBF", "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF"})
    {
        EXPECT_TRUE(IsUtf8(good)) << good;
    }
    for (const char* bad : {"\x80", "a\xBF", "\xC0\x80", "\xC1\xBF", "\xC2", "\xC2x", "\xE0\x9F\xBF", "\xE2\x82",
                            "\xE2(\xA1", "\xED\xA0\x80", "\xED\xBF\xBF", "\xF0\x8F\xBF\xBF", "\xF0\x9F\x98",
                            "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xFE", "\xFF"})
    {
        EXPECT_FALSE(IsUtf8(bad));
    }
}

TEST(Utf8, IsCountedAndCutInCharacters)
{
    const std::string text = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x99\x82";
    EXPECT_EQ(CountCharacters(text), 4U);
    EXPECT_EQ(TakeCharacters(text, 0), "");
    EXPECT_EQ(TakeCharacters(text, 2), "a\xC3\xA9");
    EXPECT_EQ(TakeCharacters(text, 3), "a\xC3\xA9\xE2\x82\xAC");
    EXPECT_EQ(TakeCharacters(text, 4), text);
    EXPECT_EQ(TakeCharacters(text, 400), text);
}

} // namespace
} // namespace ps_ns::gateway
