#pragma once

#include <boost/beast/core/string.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/message.hpp>

/// What headers say, beyond what the HTTP library reads in them. Pure functions.
namespace ps_ns::gateway
{

using HttpRequest = boost::beast::http::request<boost::beast::http::empty_body>;

/// Sixteen bytes in base64.
bool IsWebSocketKey(boost::beast::string_view key);

/// True when a handshake offers the gateway's subprotocol, in its very spelling, or none at all.
bool OffersSubprotocol(const HttpRequest& request);

/// For the value of Accept-Encoding: true when gzip is named in it, and not with a weight of zero.
bool AcceptsGzip(boost::beast::string_view acceptEncoding);

} // namespace ps_ns::gateway
