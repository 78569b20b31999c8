#include "server/gateway_wiring.h"

#include "server/server_config.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

namespace ps_ns
{
namespace
{

std::string ReadToken(const std::string& file)
{
    std::ifstream in(file);
    std::string token;
    if (!std::getline(in, token))
    {
        throw std::runtime_error("the token file " + file + " cannot be read, or is empty");
    }
    while (!token.empty() && (token.back() == '\r' || token.back() == ' '))
    {
        token.pop_back();
    }
    if (token.empty())
    {
        throw std::runtime_error("the token file " + file + " has no token in its first line");
    }
    return token;
}

/// <build>/web for <build>/bin/price_server.
std::string FindPageBesideProgram()
{
    std::error_code error;
    const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", error);
    return error ? "" : (program.parent_path().parent_path() / "web").string();
}

} // namespace

gateway::GatewayOptions MakeGatewayOptions(const GatewaySettings& settings)
{
    gateway::GatewayOptions options;
    options.address = settings.address;
    options.port = settings.port;
    options.webRoot = settings.webRoot.empty() ? FindPageBesideProgram() : settings.webRoot;
    std::transform(settings.tokens.begin(), settings.tokens.end(), std::back_inserter(options.tokens),
                   [](const TokenSettings& token) {
                       return gateway::Token{token.name, ReadToken(token.file), {token.markets, token.operations}};
                   });
    options.origins = settings.origins;
    options.tls = {settings.tlsCertificate, settings.tlsKey};
    options.limits.sessions = settings.maxSessions;
    options.limits.connections = 2 * std::size_t{settings.maxSessions};
    options.limits.subscriptions = settings.maxSubscriptions;
    options.limits.requests_per_second = settings.maxRequestsPerSecond;
    options.limits.httpRequests_per_second = settings.maxHttpRequestsPerSecond;
    options.version = PRICE_SERVER_VERSION;
    options.build = PRICE_SERVER_REVISION;
    return options;
}

} // namespace ps_ns
