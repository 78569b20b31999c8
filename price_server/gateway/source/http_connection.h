#pragma once

#include "gateway_context.h"
#include "handshake.h"
#include "http_api.h"
#include "ws_connection.h"

#include <boost/asio/ssl.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket/ssl.hpp>

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

namespace ps_ns::gateway
{

using PlainStream = beast::tcp_stream;
using TlsStream = beast::ssl_stream<beast::tcp_stream>;

/// One connection until it becomes a WebSocket session or ends: reads requests one after another, and answers them.
///
/// Threads: the I/O thread. Ownership: the operations under way hold it.
template <class Stream>
class HttpConnection final : public IConnection, public std::enable_shared_from_this<HttpConnection<Stream>>
{
public:
    HttpConnection(GatewayContext& context, Stream&& stream, std::string remote)
        : m_context(context)
        , m_stream(std::move(stream))
        , m_remote(std::move(remote))
        , m_rate(GetLimits().requests_per_second, RateLimit::Clock::now())
    {
        ++m_context.core.Counts().connections;
    }
    ~HttpConnection() override { --m_context.core.Counts().connections; }

    void Run()
    {
        beast::get_lowest_layer(m_stream).expires_after(GetLimits().handshake);
        if constexpr (std::is_same_v<Stream, TlsStream>)
        {
            m_stream.async_handshake(asio::ssl::stream_base::server,
                                     [self = this->shared_from_this()](beast::error_code error)
                                     {
                                         if (!error)
                                         {
                                             self->Read();
                                         }
                                     });
        }
        else
        {
            Read();
        }
    }

    void Drain() override
    {
        m_isDraining = true;
        if (!m_isAnswering)
        {
            Abort(); // it has asked for nothing
        }
    }
    void CheckProgress(std::chrono::steady_clock::time_point) override {}
    void Abort() override { beast::get_lowest_layer(m_stream).close(); }

private:
    static constexpr unsigned kVersion11 = 11;

    const Limits& GetLimits() const { return m_context.core.GetOptions().limits; }

    void Read()
    {
        m_isAnswering = false;
        m_isHead = false;
        m_version = kVersion11;
        m_parser.emplace();
        m_parser->header_limit(static_cast<std::uint32_t>(GetLimits().header_bytes));
        m_parser->body_limit(0);
        beast::get_lowest_layer(m_stream).expires_after(GetLimits().handshake);
        http::async_read(m_stream, m_buffer, *m_parser,
                         beast::bind_front_handler(&HttpConnection::OnRead, this->shared_from_this()));
    }

    void OnRead(beast::error_code error, std::size_t)
    {
        m_isAnswering = true;
        if (error == http::error::header_limit)
        {
            return Fail(431, "header_too_large",
                        "the header is longer than " + std::to_string(GetLimits().header_bytes) + " bytes");
        }
        if (error == http::error::body_limit)
        {
            return Fail(413, "body_too_large", "no request has a body");
        }
        if (error && error.category() == http::make_error_code(http::error::bad_method).category() &&
            error != http::error::end_of_stream && error != http::error::partial_message)
        {
            return Fail(400, "bad_request", error.message());
        }
        if (error)
        {
            return Abort();
        }
        HandleRequest(m_parser->release());
    }

    void HandleRequest(HttpRequest request)
    {
        const AccessControl& access = m_context.core.GetAccess();
        m_keepsAlive = request.keep_alive() && !m_isDraining;
        m_isHead = request.method() == http::verb::head;
        m_version = request.version();
        if (!m_rate.Take(RateLimit::Clock::now()))
        {
            ++m_context.core.Counts().refusedRequests;
            return Respond(MakeTooManyRequests());
        }
        if (request.count(http::field::host) > 1 || (m_version >= kVersion11 && request.count(http::field::host) == 0))
        {
            return Fail(400, "bad_host", "a request names one host");
        }
        if (request.count(http::field::transfer_encoding) != 0)
        {
            return Fail(400, "bad_request", "no request has a body");
        }
        if (!access.AllowsHost(request[http::field::host]))
        {
            return Fail(421, "wrong_host", "this server is not called that");
        }
        HttpQuery query;
        if (!ParseTarget(request.target(), query))
        {
            return Fail(400, "bad_target", "the address makes no sense");
        }
        if (request.method() != http::verb::get && !m_isHead)
        {
            HttpAnswer answer = MakeHttpError(405, "bad_method", "", "only GET and HEAD are served");
            answer.headers.emplace_back("Allow", "GET, HEAD");
            return Respond(std::move(answer));
        }
        query.identity = Identify(request);
        if (query.path == "/ws")
        {
            return Upgrade(request, std::move(query.identity));
        }
        query.acceptsGzip = AcceptsGzip(request[http::field::accept_encoding]);
        query.ifNoneMatch = std::string(request[http::field::if_none_match]);
        beast::get_lowest_layer(m_stream).expires_after(GetLimits().handshake);
        m_context.api.Handle(query, [self = this->shared_from_this()](HttpAnswer answer)
                             { self->Respond(std::move(answer)); });
    }

    std::optional<Identity> Identify(const HttpRequest& request) const
    {
        const AccessControl& access = m_context.core.GetAccess();
        if (!access.DemandsToken())
        {
            return access.GetAnybody();
        }
        const auto header = request[http::field::authorization];
        auto identity = access.CheckHeader({header.data(), header.size()});
        if (!identity && !header.empty())
        {
            m_context.core.CountRefusedToken();
        }
        return identity;
    }

    void Upgrade(const HttpRequest& request, std::optional<Identity> identity)
    {
        const AccessControl& access = m_context.core.GetAccess();
        if (!websocket::is_upgrade(request))
        {
            HttpAnswer answer = MakeHttpError(426, "upgrade_required", "/ws", "WebSocket is spoken here");
            answer.headers.emplace_back("Upgrade", "websocket");
            return Respond(std::move(answer));
        }
        const auto origin = request[http::field::origin];
        const auto host = request[http::field::host];
        if (!access.AllowsOrigin({origin.data(), origin.size()}, {host.data(), host.size()}))
        {
            return Fail(403, "wrong_origin", "pages of this origin may not open a session");
        }
        if (request[http::field::sec_websocket_version] != "13")
        {
            HttpAnswer answer =
                MakeHttpError(426, "wrong_version", "Sec-WebSocket-Version", "version 13 is spoken here");
            answer.headers.emplace_back("Sec-WebSocket-Version", "13");
            answer.headers.emplace_back("Upgrade", "websocket");
            return Respond(std::move(answer));
        }
        if (request.count(http::field::sec_websocket_key) != 1 ||
            !IsWebSocketKey(request[http::field::sec_websocket_key]))
        {
            return Fail(400, "bad_key", "Sec-WebSocket-Key has 16 bytes in base64");
        }
        if (!OffersSubprotocol(request))
        {
            return Fail(400, "wrong_subprotocol", "the subprotocol is " + std::string(kSubprotocol));
        }
        if (m_buffer.size() != 0)
        {
            return Fail(400, "too_early", "a client waits for the answer to its handshake");
        }
        const bool hasHeader = request.count(http::field::authorization) != 0;
        if (access.DemandsToken() && hasHeader && !identity)
        {
            return Fail(401, "unauthenticated", "the token is wrong");
        }
        if (m_isDraining || m_context.core.Counts().sessions >= GetLimits().sessions)
        {
            HttpAnswer answer = MakeHttpError(503, "too_many_sessions", "/ws", "try again later");
            answer.headers.emplace_back("Retry-After", "5");
            return Respond(std::move(answer));
        }
        auto session = std::make_shared<WsConnection<Stream>>(m_context.core, std::move(m_stream));
        m_context.Add(session);
        session->Run(request, m_remote, std::move(identity));
    }

    void Fail(unsigned status, const std::string& code, const std::string& message)
    {
        m_keepsAlive = false;
        Respond(MakeHttpError(status, code, "", message));
    }

    void Respond(HttpAnswer answer)
    {
        m_response.emplace(static_cast<http::status>(answer.status), m_version);
        auto& response = *m_response;
        response.set(http::field::server, "price_server");
        response.set(http::field::content_type, answer.type);
        response.set("X-Content-Type-Options", "nosniff");
        response.set("Referrer-Policy", "no-referrer");
        response.set("Cross-Origin-Resource-Policy", "same-origin");
        response.set(
            "Content-Security-Policy",
            "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; img-src 'self' data:; "
            "font-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'");
        bool isCacheable = false;
        for (const auto& [name, value] : answer.headers)
        {
            response.set(name, value);
            isCacheable = isCacheable || name == "Cache-Control";
        }
        if (!isCacheable)
        {
            response.set(http::field::cache_control, "no-store");
        }
        response.keep_alive(m_keepsAlive);
        const std::size_t size = answer.body.size();
        if (!m_isHead)
        {
            response.body() = std::move(answer.body);
        }
        if (answer.status != 304)
        {
            response.content_length(size);
        }
        beast::get_lowest_layer(m_stream).expires_after(GetLimits().stall);
        m_serializer.emplace(*m_response);
        if (m_isHead)
        {
            http::async_write_header(m_stream, *m_serializer,
                                     beast::bind_front_handler(&HttpConnection::OnWrite, this->shared_from_this()));
        }
        else
        {
            http::async_write(m_stream, *m_serializer,
                              beast::bind_front_handler(&HttpConnection::OnWrite, this->shared_from_this()));
        }
    }

    void OnWrite(beast::error_code error, std::size_t)
    {
        if (error)
        {
            return Abort();
        }
        if (m_keepsAlive && !m_isDraining)
        {
            return Read();
        }
        Part();
    }

    /// Says that nothing more comes, and lets the client read what has: a socket that is closed with something unread
    /// in it takes the answer away from the client.
    void Part()
    {
        constexpr std::chrono::seconds kPatience{1};
        m_isAnswering = false;
        beast::get_lowest_layer(m_stream).expires_after(kPatience);
        if constexpr (std::is_same_v<Stream, TlsStream>)
        {
            m_stream.async_shutdown([self = this->shared_from_this()](beast::error_code) { self->DropRest(); });
        }
        else
        {
            DropRest();
        }
    }

    void DropRest()
    {
        beast::error_code ignored;
        beast::get_lowest_layer(m_stream).socket().shutdown(asio::ip::tcp::socket::shutdown_send, ignored);
        ReadRest();
    }

    /// Until the client closes too, or patience ends; so that endless senders do not stay, no more than a little.
    void ReadRest()
    {
        beast::get_lowest_layer(m_stream).async_read_some(
            asio::buffer(m_rest),
            [self = this->shared_from_this()](beast::error_code error, std::size_t bytes)
            {
                constexpr std::size_t kMostRest = 1024 * 1024;
                self->m_restBytes += bytes;
                if (error || self->m_restBytes > kMostRest)
                {
                    return self->Abort();
                }
                self->ReadRest();
            });
    }

    GatewayContext& m_context;
    Stream m_stream;
    const std::string m_remote;
    RateLimit m_rate;
    beast::flat_buffer m_buffer;
    std::optional<http::request_parser<http::empty_body>> m_parser;
    std::optional<http::response<http::string_body>> m_response;
    std::optional<http::response_serializer<http::string_body>> m_serializer;
    bool m_keepsAlive = false;
    bool m_isHead = false;
    bool m_isDraining = false;
    bool m_isAnswering = false; ///< a request has come whose answer has not gone yet
    unsigned m_version = kVersion11;
    std::array<char, 4096> m_rest{}; ///< what comes when nothing is read any more
    std::size_t m_restBytes = 0;
};

} // namespace ps_ns::gateway
