#include "price_client/url.h"

#include "price_client/client_error.h"

#include <gtest/gtest.h>

namespace ps_ns::price_client
{
namespace
{

TEST(Url, HasSchemeHostPortAndPrefix)
{
    const Url url = ParseUrl("https://prices.example:8443/below/it/");
    EXPECT_TRUE(url.isEncrypted);
    EXPECT_EQ(url.host, "prices.example");
    EXPECT_EQ(url.port, "8443");
    EXPECT_EQ(url.prefix, "/below/it");
    EXPECT_EQ(url.GetHostHeader(), "prices.example:8443");
    EXPECT_FALSE(url.IsLoopback());
}

TEST(Url, HasThePortThatGoesWithItsScheme)
{
    EXPECT_EQ(ParseUrl("http://h").port, "80");
    EXPECT_EQ(ParseUrl("ws://h/").port, "80");
    EXPECT_EQ(ParseUrl("HTTPS://h").port, "443");
    EXPECT_TRUE(ParseUrl("wss://h").isEncrypted);
    EXPECT_EQ(ParseUrl("https://h").GetHostHeader(), "h");
    EXPECT_EQ(ParseUrl("http://h:443").GetHostHeader(), "h:443");
}

TEST(Url, TakesAnIpv6AddressInBrackets)
{
    const Url url = ParseUrl("http://[::1]:81");
    EXPECT_EQ(url.host, "::1");
    EXPECT_EQ(url.port, "81");
    EXPECT_EQ(url.GetPlace(), "[::1]:81");
    EXPECT_TRUE(url.IsLoopback());
}

TEST(Url, IsRefusedWithAReason)
{
    const std::pair<const char*, const char*> kCases[] = {{"localhost:8080", "http:// or https:// is missing"},
                                                          {"ftp://h", "\"ftp\""},
                                                          {"http://", "the host is missing"},
                                                          {"http://:80", "the host is missing"},
                                                          {"http://h:0", "the port \"0\""},
                                                          {"http://h:65536", "the port \"65536\""},
                                                          {"http://h:x", "the port \"x\""},
                                                          {"http://h:", "the port \"\""},
                                                          {"http://[::1", "\"]\" is missing"},
                                                          {"http://[::1]80", "a port is expected"},
                                                          {"http://h/?a=b", "have no place here"},
                                                          {"http://h\r\nX: y", "control character"},
                                                          {"http://h\"x", "a character that no host has"}};
    for (const auto& [text, why] : kCases)
    {
        try
        {
            ParseUrl(text);
            ADD_FAILURE() << text << " was taken";
        }
        catch (const ClientError& error)
        {
            EXPECT_EQ(error.GetExitCode(), ExitCode::Usage);
            EXPECT_NE(std::string(error.what()).find(why), std::string::npos) << error.what();
        }
    }
}

TEST(Url, WithAPasswordIsRefusedWithoutRepeatingIt)
{
    try
    {
        ParseUrl("http://user:secret@h");
        ADD_FAILURE();
    }
    catch (const ClientError& error)
    {
        EXPECT_EQ(std::string(error.what()).find("secret"), std::string::npos);
    }
}

TEST(Url, EncodesWhatWouldEndAQueryValue)
{
    EXPECT_EQ(EncodeQueryValue("SIM:GOLD-JUN27"), "SIM%3AGOLD-JUN27");
    EXPECT_EQ(EncodeQueryValue("a&b=c d+\xc3\xa9%"), "a%26b%3Dc%20d%2B%C3%A9%25");
}

} // namespace
} // namespace ps_ns::price_client
