#include "price_client/connection.h"
#include "stream.h"

#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>

#include <utility>

namespace ps_ns::price_client
{

namespace websocket = beast::websocket;

namespace
{

constexpr const char* kSubprotocol = "price-server.v1";
constexpr std::chrono::seconds kIdle{30};                 // a ping after half of it; then the server counts as gone
constexpr std::chrono::milliseconds kClosePatience{1000}; // for the server's answer to our goodbye
constexpr std::size_t kLongestMessage = std::size_t{16} << 20;
constexpr std::uint16_t kPolicyViolation = 1008;

template <class Stream>
class WebSocket final : public IWebSocket
{
public:
    WebSocket(Loop& loop, const Access& access, std::optional<asio::ssl::context> context)
        : m_loop(loop)
        , m_access(access)
        , m_tls(std::move(context))
        , m_ws(MakeStream())
        , m_closeTimer(loop.GetContext())
    {
    }
    ~WebSocket() override
    {
        m_loop.SetCanceller({});
        m_closeTimer.cancel();
        beast::get_lowest_layer(m_ws).close();
        m_loop.RunUntil([this] { return !m_isWriting && !m_isClosing && !m_isTiming; });
    }

    void Open() override
    {
        beast::tcp_stream& socket = beast::get_lowest_layer(m_ws);
        m_loop.SetCanceller([&socket] { socket.close(); });
        Connect(m_loop, m_access, m_ws.next_layer());
        socket.expires_never(); // the WebSocket layer has time limits of its own
        m_ws.set_option(websocket::stream_base::timeout{m_access.timeout, kIdle, true});
        m_ws.set_option(
            websocket::stream_base::decorator([this](websocket::request_type& request) { Decorate(request); }));
        m_ws.read_message_max(kLongestMessage);
        websocket::response_type response;
        const auto error = m_loop.Await(
            [&](auto handler) {
                m_ws.async_handshake(response, m_access.url.GetHostHeader(), m_access.url.prefix + "/ws",
                                     std::move(handler));
            });
        if (error == websocket::error::upgrade_declined)
        {
            throw MakeReplyError(m_access, {response.result_int(), response.body()});
        }
        if (error)
        {
            throw MakeConnectError(m_access, error);
        }
        m_ws.text(true);
        m_loop.SetCanceller([this] { SayGoodbye(); });
    }

    bool Read(std::string& message) override
    {
        m_buffer.consume(m_buffer.size());
        const auto error = m_loop.Await([&](auto handler) { m_ws.async_read(m_buffer, std::move(handler)); });
        if (m_loop.IsStopped())
        {
            return false;
        }
        if (error)
        {
            throw MakeEndError(error);
        }
        const auto data = m_buffer.cdata();
        message.assign(static_cast<const char*>(data.data()), data.size());
        return true;
    }

    void Send(std::string text) override
    {
        if (!text.empty())
        {
            m_unsent += (m_unsent.empty() ? "" : "\n") + text;
            Write();
        }
    }

private:
    websocket::stream<Stream> MakeStream()
    {
        if constexpr (std::is_same_v<Stream, TlsStream>)
        {
            return websocket::stream<Stream>(m_loop.GetContext(), *m_tls);
        }
        else
        {
            return websocket::stream<Stream>(m_loop.GetContext());
        }
    }

    void Decorate(websocket::request_type& request) const
    {
        request.set(http::field::user_agent, "price_client");
        request.set(http::field::sec_websocket_protocol, kSubprotocol);
        if (const std::string authorization = MakeAuthorization(m_access); !authorization.empty())
        {
            request.set(http::field::authorization, authorization);
        }
    }

    /// What fails shows in the read that is always under way, or comes next.
    void Write()
    {
        if (m_isWriting || m_unsent.empty())
        {
            return;
        }
        m_isWriting = true;
        m_sent = std::exchange(m_unsent, {});
        m_ws.async_write(asio::buffer(m_sent),
                         [this](beast::error_code error, std::size_t)
                         {
                             m_isWriting = false;
                             if (!error)
                             {
                                 Write();
                             }
                         });
    }

    void SayGoodbye()
    {
        if (!m_ws.is_open() || m_isClosing)
        {
            beast::get_lowest_layer(m_ws).close();
            return;
        }
        m_isClosing = true;
        m_ws.async_close(websocket::close_code::normal, [this](beast::error_code) { m_isClosing = false; });
        m_closeTimer.expires_after(kClosePatience);
        m_isTiming = true;
        m_closeTimer.async_wait(
            [this](beast::error_code error)
            {
                m_isTiming = false;
                if (!error)
                {
                    beast::get_lowest_layer(m_ws).close();
                }
            });
    }

    ClientError MakeEndError(const beast::error_code& error) const
    {
        const std::string place = m_access.url.GetPlace();
        if (error != websocket::error::closed)
        {
            const bool isSilent = error == beast::error::timeout;
            return {ExitCode::CannotConnect,
                    place + ": the session was lost: " + (isSilent ? "the server is silent" : error.message()), true};
        }
        const websocket::close_reason& reason = m_ws.reason();
        const std::string text = std::string(reason.reason.c_str()) + " (" + std::to_string(reason.code) + ")";
        if (reason.code == kPolicyViolation)
        {
            return {ExitCode::Refused, place + " refuses: " + text};
        }
        return {ExitCode::CannotConnect, place + " has ended the session: " + text, true};
    }

    Loop& m_loop;
    const Access& m_access;
    std::optional<asio::ssl::context> m_tls; ///< none for a plain stream
    websocket::stream<Stream> m_ws;
    asio::steady_timer m_closeTimer;
    beast::flat_buffer m_buffer;
    std::string m_unsent;
    std::string m_sent; ///< of the write under way
    bool m_isWriting = false;
    bool m_isClosing = false;
    bool m_isTiming = false;
};

} // namespace

std::unique_ptr<IWebSocket> MakeWebSocket(Loop& loop, const Access& access)
{
    if (access.url.isEncrypted)
    {
        return std::make_unique<WebSocket<TlsStream>>(loop, access, MakeTlsContext(access));
    }
    return std::make_unique<WebSocket<PlainStream>>(loop, access, std::nullopt);
}

} // namespace ps_ns::price_client
