#pragma once

#include <string>
#include <string_view>

namespace ps_ns::price_client
{

/// Where a server is. A plain value.
struct Url
{
    bool isEncrypted = false;
    std::string host; ///< a name or an address; an IPv6 address without its brackets
    std::string port;
    std::string prefix; ///< of all paths, without a slash at its end; empty unless a proxy puts the server below one

    /// As HTTP names it: brackets around an IPv6 address, and no port that goes without saying.
    std::string GetHostHeader() const;
    /// "host:port", for messages.
    std::string GetPlace() const;
    /// Who listens there is on this machine, as far as the address tells.
    bool IsLoopback() const;
};

/// Reads http, https, ws and wss addresses. Throws ClientError (usage) that says what is wrong; a name or password in
/// the address is refused, and not repeated.
Url ParseUrl(std::string_view text);

/// A text as a value in the query of an address.
std::string EncodeQueryValue(std::string_view text);

} // namespace ps_ns::price_client
