#pragma once

#include "client_session.h"
#include "gateway_core.h"
#include "handshake.h"
#include "i_connection.h"
#include "tcp_socket.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace ps_ns::gateway
{

namespace http = beast::http;
namespace websocket = beast::websocket;

/// One WebSocket session over a plain or an encrypted stream.
///
/// Threads: the I/O thread.
/// Ownership: the operations under way hold it; the gateway has a weak reference.
template <class Stream>
class WsConnection final : public IConnection, public std::enable_shared_from_this<WsConnection<Stream>>
{
    using Clock = std::chrono::steady_clock;

    /// What a write is given: it copies its buffers several times, and so it gets no vector of them. TLS copies the
    /// parts into one buffer after all.
    struct PartsView
    {
        using value_type = asio::const_buffer;
        const value_type* first;
        const value_type* last;
        const value_type* begin() const noexcept { return first; }
        const value_type* end() const noexcept { return last; }
    };

public:
    WsConnection(GatewayCore& core, Stream&& stream)
        : m_core(core)
        , m_ws(std::move(stream))
        , m_tokenTimer(m_ws.get_executor())
        , m_closeTimer(m_ws.get_executor())
        , m_lastHeard(Clock::now())
    {
        ++m_core.Counts().connections;
    }
    ~WsConnection() override
    {
        EndSession();
        --m_core.Counts().connections;
    }

    /// Accepts the handshake in `request`.
    void Run(const HttpRequest& request, const std::string& remote, std::optional<Identity> identity)
    {
        const Limits& limits = m_core.GetOptions().limits;
        beast::get_lowest_layer(m_ws).expires_never(); // the WebSocket layer has timeouts of its own
        // Its idle time-out would cut the connection without a word; CheckProgress says 1001 first.
        m_ws.set_option(websocket::stream_base::timeout{limits.handshake, websocket::stream_base::none(), false});
        m_ws.control_callback(
            [weak = this->weak_from_this()](websocket::frame_type, beast::string_view)
            {
                if (const auto self = weak.lock())
                {
                    self->m_lastHeard = Clock::now();
                }
            });
        const bool offersProtocol = request.count(http::field::sec_websocket_protocol) != 0;
        m_ws.set_option(websocket::stream_base::decorator(
            [offersProtocol](websocket::response_type& response)
            {
                response.set(http::field::server, "price_server");
                if (offersProtocol)
                {
                    response.set(http::field::sec_websocket_protocol, kSubprotocol);
                }
            }));
        m_ws.read_message_max(limits.message_bytes);
        m_ws.auto_fragment(false);
        m_ws.text(true);
        std::weak_ptr<WsConnection> weak = this->weak_from_this();
        m_session = std::make_shared<ClientSession>(m_core, m_core.MakeSessionNumber(), remote, std::move(identity),
                                                    [weak]
                                                    {
                                                        if (const auto self = weak.lock())
                                                        {
                                                            self->OnOutput();
                                                        }
                                                    });
        m_core.Enter(m_session); // it takes one of the places from now on
        m_ws.async_accept(request, beast::bind_front_handler(&WsConnection::OnAccept, this->shared_from_this()));
    }

    void Drain() override { Close({1001, "the server stops"}); }
    void CheckProgress(Clock::time_point now) override
    {
        if (m_session == nullptr || !m_isOpen || m_isClosing)
        {
            return;
        }
        const Limits& limits = m_core.GetOptions().limits;
        constexpr std::chrono::seconds kAsleep{1};
        const Clock::duration stall = GetStall(now);
        if (stall > kAsleep)
        {
            m_session->ForgetSent();
        }
        const Clock::duration silence = now - m_lastHeard;
        if (stall > limits.stall)
        {
            ++m_core.Counts().tooSlow;
            Close({1013, "too slow: nothing was taken for too long"});
        }
        else if (silence > limits.idle)
        {
            Close({1001, "silent for too long"});
        }
        else if (silence > limits.GetPingAfter() && m_lastPing < m_lastHeard && !m_isPinging)
        {
            Ping(now);
        }
    }
    void Abort() override
    {
        EndSession();
        beast::get_lowest_layer(m_ws).close();
    }

private:
    void OnAccept(beast::error_code error)
    {
        if (error)
        {
            EndSession(); // the client has gone
            return;
        }
        m_isOpen = true;
        if (m_isClosing)
        {
            SendClose(); // the server has begun to stop meanwhile
            return Read();
        }
        m_lastHeard = Clock::now();
        m_session->Start();
        if (!m_session->IsAuthenticated())
        {
            m_tokenTimer.expires_after(m_core.GetOptions().limits.handshake);
            m_tokenTimer.async_wait(
                [self = this->shared_from_this()](beast::error_code waitError)
                {
                    if (!waitError && self->m_session != nullptr && !self->m_session->IsAuthenticated())
                    {
                        self->Close({1008, "no token came in time"});
                    }
                });
        }
        Write();
        Read();
    }

    void Read()
    {
        m_ws.async_read(m_buffer, beast::bind_front_handler(&WsConnection::OnRead, this->shared_from_this()));
    }

    void OnRead(beast::error_code error, std::size_t)
    {
        if (error)
        {
            // Broken protocol and too long messages have been answered with their close frame already. A write that
            // nobody takes any more must not keep the connection.
            EndSession();
            m_closeTimer.cancel();
            beast::get_lowest_layer(m_ws).close();
            return;
        }
        m_lastHeard = Clock::now();
        if (!m_ws.got_text())
        {
            Close({1003, "messages are text"});
        }
        else if (!m_isClosing)
        {
            const auto data = m_buffer.cdata();
            m_session->OnMessage({static_cast<const char*>(data.data()), data.size()});
        }
        m_buffer.consume(m_buffer.size());
        AfterSession();
        Read(); // also while closing: the answer to the close comes this way
    }

    /// For how long the client has taken nothing of the write under way; zero when there is none.
    Clock::duration GetStall(Clock::time_point now)
    {
        if (!m_isWriting)
        {
            return Clock::duration::zero();
        }
        const std::uint64_t taken = GetTakenBytes(beast::get_lowest_layer(m_ws).socket().native_handle());
        if (std::exchange(m_takenBytes, taken) != taken)
        {
            m_lastTaken = now;
        }
        return std::min(m_session->GetWriteAge(now), now - m_lastTaken);
    }

    void Ping(Clock::time_point now)
    {
        m_lastPing = now;
        m_isPinging = true;
        m_ws.async_ping({}, [self = this->shared_from_this()](beast::error_code) { self->m_isPinging = false; });
    }

    void OnOutput()
    {
        if (m_isOpen)
        {
            AfterSession();
        }
    }

    void AfterSession()
    {
        if (m_session == nullptr || m_isClosing)
        {
            return;
        }
        if (m_session->GetEnd())
        {
            m_core.Counts().tooSlow += m_session->GetEnd()->code == 1013 ? 1 : 0;
            Write(); // what explains the end
            Close(*m_session->GetEnd());
            return;
        }
        Write();
    }

    void Write()
    {
        if (m_isWriting || m_isClosing || m_session == nullptr || !m_session->HasOutput())
        {
            return;
        }
        m_batch = m_session->BeginWrite();
        m_parts.clear();
        m_parts.reserve(m_batch.GetPartCount());
        m_isWriting = true;
        m_batch.ForEachPart([this](std::string_view part) { m_parts.emplace_back(part.data(), part.size()); });
        m_ws.async_write(PartsView{m_parts.data(), m_parts.data() + m_parts.size()},
                         beast::bind_front_handler(&WsConnection::OnWrite, this->shared_from_this()));
    }

    void OnWrite(beast::error_code error, std::size_t)
    {
        m_isWriting = false;
        if (error || m_session == nullptr)
        {
            EndSession();
            return;
        }
        m_session->FinishWrite(std::move(m_batch));
        AfterSession();
    }

    /// Says why, once the handshake has been answered, and goes for good when the client does not answer.
    void Close(SessionEnd end)
    {
        if (std::exchange(m_isClosing, true))
        {
            return;
        }
        EndSession();
        m_end = std::move(end);
        if (m_isOpen)
        {
            SendClose();
        }
    }

    void SendClose()
    {
        constexpr std::chrono::seconds kPatience{3};
        m_closeTimer.expires_after(kPatience);
        m_closeTimer.async_wait(
            [weak = this->weak_from_this()](beast::error_code error)
            {
                const auto self = weak.lock();
                if (!error && self != nullptr)
                {
                    beast::get_lowest_layer(self->m_ws).close();
                }
            });
        constexpr std::size_t kMostReason = 120; // a close frame has room for no more
        websocket::close_reason reason(static_cast<websocket::close_code>(m_end.code));
        reason.reason = m_end.reason.substr(0, kMostReason);
        m_ws.async_close(reason, [self = this->shared_from_this()](beast::error_code) { self->m_closeTimer.cancel(); });
    }

    void EndSession()
    {
        m_tokenTimer.cancel();
        if (m_session == nullptr)
        {
            return;
        }
        const SessionView view = m_session->GetView();
        m_core.Counts().conflated += view.conflated;
        m_core.Counts().lostTrades += view.lostTrades;
        m_core.Counts().sentBytes += view.sent_bytes;
        m_session->End();
        m_core.Leave(m_session->GetNumber());
        m_session.reset();
    }

    GatewayCore& m_core;
    websocket::stream<Stream> m_ws;
    asio::steady_timer m_tokenTimer;
    asio::steady_timer m_closeTimer;
    beast::flat_buffer m_buffer;
    std::shared_ptr<ClientSession> m_session; ///< null once it has ended
    SessionEnd m_end;                         ///< once m_isClosing
    bool m_isOpen = false;                    ///< the handshake has been answered
    bool m_isClosing = false;
    bool m_isWriting = false;
    bool m_isPinging = false;
    Clock::time_point m_lastHeard; ///< a message, or a control frame
    Clock::time_point m_lastPing{};
    Clock::time_point m_lastTaken{}; ///< when that was last seen to grow:
    std::uint64_t m_takenBytes = 0;  ///< by the client's system
    // Of the write under way:
    OutboundBatch m_batch;
    std::vector<asio::const_buffer> m_parts;
};

} // namespace ps_ns::gateway
