#include "access.h"

#include <boost/asio/ip/address.hpp>
#include <openssl/crypto.h>
#include <openssl/sha.h>

#include <algorithm>
#include <array>

namespace ps_ns::gateway
{
namespace
{

using Digest = std::array<unsigned char, SHA256_DIGEST_LENGTH>;

Digest MakeDigest(std::string_view text)
{
    Digest digest{};
    SHA256(reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest.data());
    return digest;
}

/// Of equal length whatever the texts are, so that the comparison tells nothing about them.
bool AreEqual(std::string_view a, std::string_view b)
{
    const Digest first = MakeDigest(a);
    const Digest second = MakeDigest(b);
    return CRYPTO_memcmp(first.data(), second.data(), first.size()) == 0;
}

char ToLower(char c) noexcept
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool EqualsIgnoringCase(std::string_view a, std::string_view b)
{
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) { return ToLower(x) == ToLower(y); });
}

/// Without the port: "[::1]:8080" gives "[::1]".
std::string_view GetHostName(std::string_view host)
{
    const std::size_t colon = host.rfind(':');
    const std::size_t bracket = host.rfind(']');
    const bool hasPort = colon != std::string_view::npos && (bracket == std::string_view::npos || colon > bracket);
    return hasPort ? host.substr(0, colon) : host;
}

} // namespace

bool Rights::Opens(const std::string& market) const noexcept
{
    return markets.empty() || std::find(markets.begin(), markets.end(), market) != markets.end();
}

bool IsLoopback(const std::string& address)
{
    boost::system::error_code error;
    const auto parsed = boost::asio::ip::make_address(address, error);
    return !error && parsed.is_loopback();
}

std::string FindProblem(const GatewayOptions& options)
{
    boost::system::error_code error;
    boost::asio::ip::make_address(options.address, error);
    if (error)
    {
        return "\"" + options.address + "\" is no IP address to listen on";
    }
    if (!IsLoopback(options.address) && options.tokens.empty())
    {
        return "a gateway that listens beyond this machine (" + options.address + ") needs a token";
    }
    if (options.tls.certificateChain.empty() != options.tls.privateKey.empty())
    {
        return "TLS needs both a certificate and a key";
    }
    const auto isEmpty = [](const Token& token) { return token.value.empty(); };
    if (std::any_of(options.tokens.begin(), options.tokens.end(), isEmpty))
    {
        return "a token is empty";
    }
    return "";
}

AccessControl::AccessControl(const GatewayOptions& options)
    : m_tokens(options.tokens)
    , m_origins(options.origins)
    , m_scheme(options.tls.certificateChain.empty() ? "http://" : "https://")
    , m_address(options.address)
    , m_isOnLoopback(IsLoopback(options.address))
{
}

std::optional<Identity> AccessControl::Check(std::string_view token) const
{
    std::optional<Identity> identity;
    for (const Token& known : m_tokens)
    {
        if (AreEqual(known.value, token))
        {
            identity = Identity{known.name, known.rights};
        }
    }
    return identity;
}

std::optional<Identity> AccessControl::CheckHeader(std::string_view authorization) const
{
    constexpr std::string_view kScheme = "Bearer ";
    if (authorization.size() <= kScheme.size() || !EqualsIgnoringCase(authorization.substr(0, kScheme.size()), kScheme))
    {
        return std::nullopt;
    }
    return Check(authorization.substr(kScheme.size()));
}

bool AccessControl::AllowsOrigin(std::string_view origin, std::string_view host) const
{
    if (origin.empty() || EqualsIgnoringCase(origin, m_scheme + std::string(host)))
    {
        return true;
    }
    return std::any_of(m_origins.begin(), m_origins.end(),
                       [&](const std::string& allowed) { return EqualsIgnoringCase(origin, allowed); });
}

bool AccessControl::AllowsHost(std::string_view host) const
{
    if (!m_isOnLoopback)
    {
        return true; // a token is demanded there
    }
    const std::string_view name = GetHostName(host);
    return EqualsIgnoringCase(name, "localhost") || EqualsIgnoringCase(name, m_address) || name == "127.0.0.1" ||
           name == "[::1]";
}

} // namespace ps_ns::gateway
