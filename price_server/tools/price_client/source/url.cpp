#include "price_client/url.h"

#include "price_client/client_error.h"

#include <algorithm>
#include <cctype>
#include <charconv>

namespace ps_ns::price_client
{
namespace
{

[[noreturn]] void Refuse(std::string_view text, const std::string& why)
{
    throw ClientError(ExitCode::Usage, "--url \"" + std::string(text) + "\": " + why);
}

std::string ToLower(std::string_view text)
{
    std::string lower(text);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return lower;
}

/// Takes the scheme off; true: an encrypted one.
bool TakeScheme(std::string_view whole, std::string_view& rest)
{
    const std::size_t end = rest.find("://");
    if (end == std::string_view::npos)
    {
        Refuse(whole, "http:// or https:// is missing");
    }
    const std::string scheme = ToLower(rest.substr(0, end));
    rest.remove_prefix(end + 3);
    if (scheme != "http" && scheme != "https" && scheme != "ws" && scheme != "wss")
    {
        Refuse(whole, "\"" + scheme + "\" is none of http, https, ws and wss");
    }
    return scheme == "https" || scheme == "wss";
}

void CheckPort(std::string_view whole, std::string_view port)
{
    unsigned number = 0;
    const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), number);
    if (error != std::errc() || end != port.data() + port.size() || number == 0 || number > 65535)
    {
        Refuse(whole, "the port \"" + std::string(port) + "\" is not a whole number from 1 to 65535");
    }
}

bool IsHostCharacter(char c)
{
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '.' || c == '-' || c == '_' || c == ':' || c == '%';
}

void SplitHost(std::string_view whole, std::string_view authority, Url& url)
{
    const bool hasBracket = !authority.empty() && authority.front() == '[';
    const std::size_t hostEnd = hasBracket ? authority.find(']') : authority.find(':');
    if (hasBracket && hostEnd == std::string_view::npos)
    {
        Refuse(whole, "\"]\" is missing");
    }
    url.host = authority.substr(hasBracket ? 1 : 0, hasBracket ? hostEnd - 1 : hostEnd);
    std::string_view rest = hostEnd == std::string_view::npos ? "" : authority.substr(hostEnd + (hasBracket ? 1 : 0));
    if (url.host.empty() || !std::all_of(url.host.begin(), url.host.end(), IsHostCharacter))
    {
        Refuse(whole, url.host.empty() ? "the host is missing" : "the host has a character that no host has");
    }
    if (rest.empty())
    {
        return;
    }
    if (rest.front() != ':')
    {
        Refuse(whole, "a port is expected after \"]\"");
    }
    rest.remove_prefix(1);
    CheckPort(whole, rest);
    url.port = rest;
}

std::string Bracket(const std::string& host)
{
    return host.find(':') == std::string::npos ? host : "[" + host + "]";
}

} // namespace

std::string Url::GetHostHeader() const
{
    return port == (isEncrypted ? "443" : "80") ? Bracket(host) : GetPlace();
}

std::string Url::GetPlace() const
{
    return Bracket(host) + ":" + port;
}

bool Url::IsLoopback() const
{
    return host == "localhost" || host == "::1" || host.starts_with("127.");
}

Url ParseUrl(std::string_view text)
{
    std::string_view rest = text;
    if (text.find('@') != std::string_view::npos)
    {
        throw ClientError(ExitCode::Usage,
                          "--url: an address with a name or password in it is not taken; a token comes "
                          "from --token-file or PRICE_SERVER_TOKEN");
    }
    if (std::any_of(text.begin(), text.end(),
                    [](char c) { return static_cast<unsigned char>(c) <= ' ' || static_cast<unsigned char>(c) > '~'; }))
    {
        throw ClientError(ExitCode::Usage, "--url: a blank, a control character or one beyond ASCII is in the address");
    }
    if (text.find_first_of("?#") != std::string_view::npos)
    {
        Refuse(text, "\"?\" and \"#\" have no place here");
    }
    Url url;
    url.isEncrypted = TakeScheme(text, rest);
    url.port = url.isEncrypted ? "443" : "80";
    const std::size_t slash = rest.find('/');
    SplitHost(text, rest.substr(0, slash), url);
    if (slash != std::string_view::npos)
    {
        url.prefix = rest.substr(slash);
        url.prefix.erase(url.prefix.find_last_not_of('/') + 1);
    }
    return url;
}

std::string EncodeQueryValue(std::string_view text)
{
    constexpr std::string_view kHex = "0123456789ABCDEF";
    std::string encoded;
    for (const char c : text)
    {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x80 && (std::isalnum(byte) != 0 || std::string_view("-._~").find(c) != std::string_view::npos))
        {
            encoded += c;
            continue;
        }
        encoded += '%';
        encoded += kHex[byte >> 4];
        encoded += kHex[byte & 15];
    }
    return encoded;
}

} // namespace ps_ns::price_client
