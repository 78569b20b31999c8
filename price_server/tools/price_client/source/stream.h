#pragma once

#include "price_client/client_error.h"
#include "price_client/loop.h"
#include "price_client/options.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>

#include <type_traits>

namespace ps_ns::price_client
{

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;

using PlainStream = beast::tcp_stream;
using TlsStream = beast::ssl_stream<beast::tcp_stream>;

/// Verifies certificates: the given file's, or the system's. Throws ClientError when the file cannot be used.
asio::ssl::context MakeTlsContext(const Access& access);

/// Of an operation on the way to the server.
ClientError MakeConnectError(const Access& access, const beast::error_code& error);
/// The same, of the encryption: says what is wrong with the certificate.
ClientError MakeTlsError(const Access& access, const beast::error_code& error, SSL* ssl);

/// Connects the socket within the time that the access allows. Throws ClientError.
void ConnectSocket(Loop& loop, const Access& access, beast::tcp_stream& stream);
/// The name that the certificate must have, and that the server is told. Throws ClientError.
void SetServerName(const Access& access, TlsStream& stream);

/// A stream that is connected, and encrypted if the address says so. Throws ClientError. Afterwards its time limit
/// still runs.
template <class Stream>
void Connect(Loop& loop, const Access& access, Stream& stream)
{
    ConnectSocket(loop, access, beast::get_lowest_layer(stream));
    if constexpr (std::is_same_v<Stream, TlsStream>)
    {
        SetServerName(access, stream);
        const auto error = loop.Await([&](auto handler)
                                      { stream.async_handshake(asio::ssl::stream_base::client, std::move(handler)); });
        if (error)
        {
            throw MakeTlsError(access, error, stream.native_handle());
        }
    }
}

/// Takes the stream's part of the loop's canceller for as long as it lives.
class CancelGuard
{
public:
    CancelGuard(Loop& loop, beast::tcp_stream& stream)
        : m_loop(loop)
    {
        m_loop.SetCanceller([&stream] { stream.close(); });
    }
    ~CancelGuard() { m_loop.SetCanceller({}); }
    CancelGuard(const CancelGuard&) = delete;
    CancelGuard& operator=(const CancelGuard&) = delete;

private:
    Loop& m_loop;
};

/// The value of the header "Authorization"; empty: none is sent.
inline std::string MakeAuthorization(const Access& access)
{
    return access.token.empty() ? "" : "Bearer " + access.token;
}

} // namespace ps_ns::price_client
