#include "gateway/gateway.h"

#include "connections.h"
#include "gateway_context.h"
#include "logging/logging.h"
#include "tcp_socket.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

#include <chrono>
#include <future>
#include <optional>
#include <stdexcept>
#include <thread>
#include <utility>

namespace ps_ns::gateway
{

using asio::ip::tcp;

namespace
{

const std::shared_ptr<const zel::logging::Source>& LogSource()
{
    static const auto source = std::make_shared<const zel::logging::Source>("gateway");
    return source;
}

} // namespace

class Gateway::Impl : public std::enable_shared_from_this<Impl>
{
public:
    Impl(GatewayOptions options, IBackend& backend)
        : m_context(std::move(options), backend,
                    [this](std::function<void()> task) { asio::post(m_io, std::move(task)); })
        , m_acceptor(m_io)
        , m_retryTimer(m_io)
        , m_checkTimer(m_io)
    {
    }

    ~Impl() { Stop(); }

    void Start()
    {
        if (const std::string problem = FindProblem(GetOptions()); !problem.empty())
        {
            throw std::runtime_error(problem);
        }
        if (UsesTls())
        {
            ReadTlsFiles();
        }
        Listen();
        Accept();
        Check();
        m_thread = std::thread([this] { Run(); });
        zel::logging::Log(10, LogSource(), [&](std::ostream& text) { text << "listening on " << GetUrl(); });
    }

    void Stop()
    {
        if (!m_thread.joinable())
        {
            return;
        }
        Drain();
        m_io.stop();
        m_thread.join();
        m_context.core.CloseMailboxes();
    }

    std::uint16_t GetPort() const noexcept { return m_port; }

    std::string GetUrl() const
    {
        const std::string& address = GetOptions().address;
        const bool isAny = address == "0.0.0.0" || address == "::";
        const std::string host = isAny                                    ? "localhost"
                                 : address.find(':') != std::string::npos ? "[" + address + "]"
                                                                          : address;
        return (UsesTls() ? "https://" : "http://") + host + ":" + std::to_string(m_port) + "/";
    }

private:
    const GatewayOptions& GetOptions() const noexcept { return m_context.core.GetOptions(); }
    bool UsesTls() const { return !GetOptions().tls.certificateChain.empty(); }

    /// One connection's failure is not the others'.
    void Run()
    {
        while (!m_io.stopped())
        {
            try
            {
                m_io.run();
            }
            catch (const std::exception& failure)
            {
                zel::logging::Log(30, LogSource(),
                                  [&](std::ostream& text) { text << "a connection has failed: " << failure.what(); });
            }
        }
    }

    void ReadTlsFiles()
    {
        m_tls.emplace(asio::ssl::context::tls_server);
        m_tls->set_options(asio::ssl::context::default_workarounds | asio::ssl::context::no_tlsv1 |
                           asio::ssl::context::no_tlsv1_1);
        beast::error_code error;
        const TlsFiles& files = GetOptions().tls;
        m_tls->use_certificate_chain_file(files.certificateChain, error);
        if (error)
        {
            throw std::runtime_error("the TLS certificate " + files.certificateChain +
                                     " cannot be used: " + error.message());
        }
        m_tls->use_private_key_file(files.privateKey, asio::ssl::context::pem, error);
        if (error)
        {
            throw std::runtime_error("the TLS key " + files.privateKey + " cannot be used: " + error.message());
        }
    }

    void Listen()
    {
        const asio::ip::address address = asio::ip::make_address(GetOptions().address);
        beast::error_code error = TryListen({address, GetOptions().port});
        if (error == asio::error::address_in_use && GetOptions().takesAnyPort)
        {
            error = TryListen({address, 0});
        }
        if (error)
        {
            throw std::runtime_error("cannot listen on " + GetOptions().address + " port " +
                                     std::to_string(GetOptions().port) + ": " + error.message());
        }
        m_port = m_acceptor.local_endpoint().port();
    }

    beast::error_code TryListen(const tcp::endpoint& endpoint)
    {
        beast::error_code error;
        beast::error_code ignored;
        m_acceptor.close(ignored);
        m_acceptor.open(endpoint.protocol(), error);
        if (!error)
        {
            m_acceptor.set_option(asio::socket_base::reuse_address(true), error);
        }
        if (!error)
        {
            m_acceptor.bind(endpoint, error);
        }
        if (!error)
        {
            m_acceptor.listen(asio::socket_base::max_listen_connections, error);
        }
        return error;
    }

    void Accept()
    {
        m_acceptor.async_accept([this](beast::error_code error, tcp::socket socket)
                                { OnAccept(error, std::move(socket)); });
    }

    void OnAccept(beast::error_code error, tcp::socket socket)
    {
        if (error == asio::error::operation_aborted || m_isDraining)
        {
            return;
        }
        if (error)
        {
            // Out of descriptors, mostly: a little later there may be some.
            constexpr std::chrono::milliseconds kPause{100};
            m_retryTimer.expires_after(kPause);
            m_retryTimer.async_wait(
                [this](beast::error_code waitError)
                {
                    if (!waitError)
                    {
                        Accept();
                    }
                });
            return;
        }
        Accept(); // whatever becomes of this one
        if (m_context.core.Counts().connections < GetOptions().limits.connections)
        {
            Begin(std::move(socket));
        }
    }

    void Begin(tcp::socket socket)
    {
        beast::error_code ignored;
        socket.set_option(tcp::no_delay(true), ignored);
        // What the system holds for a client cannot be conflated any more: megabytes of it, unless it is told.
        constexpr int kSystemBuffer = 256 * 1024;
        socket.set_option(asio::socket_base::send_buffer_size(kSystemBuffer), ignored);
        BoundResendPause(socket.native_handle());
        const auto remote = socket.remote_endpoint(ignored);
        const std::string name = remote.address().to_string() + ":" + std::to_string(remote.port());
        if (m_tls)
        {
            BeginTls(m_context, std::move(socket), *m_tls, name);
        }
        else
        {
            BeginPlain(m_context, std::move(socket), name);
        }
    }

    /// Looks after slow clients, and forgets connections that are gone.
    void Check()
    {
        constexpr std::chrono::milliseconds kInterval{250};
        m_checkTimer.expires_after(kInterval);
        m_checkTimer.async_wait(
            [this](beast::error_code error)
            {
                if (error)
                {
                    return;
                }
                Check(); // whatever becomes of this one
                for (const auto& connection : m_context.GetConnections())
                {
                    connection->CheckProgress(std::chrono::steady_clock::now());
                }
            });
    }

    /// Tells all clients, and gives them a moment to hear it.
    void Drain()
    {
        constexpr std::chrono::milliseconds kPatience{1000};
        constexpr std::chrono::milliseconds kLook{5};
        asio::post(m_io,
                   [this]
                   {
                       m_isDraining = true;
                       beast::error_code ignored;
                       m_acceptor.close(ignored);
                       m_context.api.EndReadings();
                       for (const auto& connection : m_context.GetConnections())
                       {
                           connection->Drain();
                       }
                   });
        const auto end = std::chrono::steady_clock::now() + kPatience;
        while (std::chrono::steady_clock::now() < end && GetOpenCount() != 0)
        {
            std::this_thread::sleep_for(kLook);
        }
        std::promise<void> isDone;
        asio::post(m_io,
                   [&]
                   {
                       for (const auto& connection : m_context.GetConnections())
                       {
                           connection->Abort();
                       }
                       m_checkTimer.cancel();
                       m_retryTimer.cancel();
                       isDone.set_value();
                   });
        isDone.get_future().wait();
    }

    /// WebSocket connections that have not gone yet.
    std::size_t GetOpenCount()
    {
        std::promise<std::size_t> count;
        asio::post(m_io, [&] { count.set_value(m_context.GetConnections().size()); });
        return count.get_future().get();
    }

    GatewayContext m_context; ///< I/O thread; outlives m_io, whose last operations hold connections that count here
    asio::io_context m_io{1};
    std::optional<asio::ssl::context> m_tls;
    tcp::acceptor m_acceptor;
    asio::steady_timer m_retryTimer;
    asio::steady_timer m_checkTimer;
    bool m_isDraining = false; ///< I/O thread
    std::uint16_t m_port = 0;  ///< set by Start
    std::thread m_thread;
};

Gateway::Gateway(GatewayOptions options, IBackend& backend)
    : m_impl(std::make_shared<Impl>(std::move(options), backend))
{
}

Gateway::~Gateway()
{
    Stop();
}

void Gateway::Start()
{
    m_impl->Start();
}

void Gateway::Stop()
{
    m_impl->Stop();
}

std::uint16_t Gateway::GetPort() const noexcept
{
    return m_impl->GetPort();
}

std::string Gateway::GetUrl() const
{
    return m_impl->GetUrl();
}

} // namespace ps_ns::gateway
