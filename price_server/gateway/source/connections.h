#pragma once

#include "gateway_context.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>

#include <string>

/// The two kinds of connections, each compiled by itself: what a stream makes of the HTTP and WebSocket libraries takes
/// a compiler minutes.
namespace ps_ns::gateway
{

/// Adds a connection to the context, which begins to read its first request.
void BeginPlain(GatewayContext& context, asio::ip::tcp::socket socket, const std::string& remote);
/// The same, after a handshake.
void BeginTls(GatewayContext& context, asio::ip::tcp::socket socket, asio::ssl::context& tls,
              const std::string& remote);

} // namespace ps_ns::gateway
