#include "gateway/gateway.h"

#include "access.h"

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <vector>

namespace ps_ns::gateway
{
namespace
{

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using asio::ip::tcp;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

/// A server without a manager: enough for everything but prices.
class EmptyBackend final : public IBackend
{
public:
    bool TryRequest(const std::function<void(CompositeSubscriptionMgr&)>&) override { return false; }
    bool RunOnQueue(std::function<void(CompositeSubscriptionMgr&, SimpleSubscriptionMgr&)>) override { return false; }
    const MarketTable& GetMarkets() const override { return m_markets; }
    std::vector<DirectoryEntry> GetDirectoryEntries() const override { return {}; }
    DirectoryVersion GetDirectoryVersion() const override { return {}; }
    std::vector<ProviderView> GetProviders() const override { return {{"mds", "serving", 0}}; }
    bool IsReady() const override { return true; }

private:
    const MarketTable m_markets{{{1, "ONE"}}};
};

class GatewayTest : public ::testing::Test
{
protected:
    /// Blocks in its calls, as a simple client does.
    struct Client
    {
        /// `receiveBuffer_bytes`: of the system; 0: as it likes.
        explicit Client(std::uint16_t port, int receiveBuffer_bytes = 0)
            : ws(io)
        {
            ws.next_layer().open(tcp::v4());
            if (receiveBuffer_bytes != 0)
            {
                ws.next_layer().set_option(asio::socket_base::receive_buffer_size(receiveBuffer_bytes));
            }
            ws.next_layer().connect(tcp::endpoint(asio::ip::make_address("127.0.0.1"), port));
        }
        void Shake() { ws.handshake("127.0.0.1", "/ws"); }
        /// Reads until the session ends; its close code, or 0.
        unsigned ReadToEnd()
        {
            beast::error_code error;
            while (!error)
            {
                beast::flat_buffer buffer;
                ws.read(buffer, error);
                messages += error ? 0 : 1;
            }
            return error == websocket::error::closed ? ws.reason().code : 0U;
        }

        http::response<http::string_body> Ask(const std::string& path)
        {
            constexpr unsigned kVersion11 = 11;
            http::request<http::empty_body> request(http::verb::get, path, kVersion11);
            request.set(http::field::host, "127.0.0.1");
            http::write(ws.next_layer(), request);
            beast::flat_buffer buffer;
            http::response<http::string_body> response;
            http::read(ws.next_layer(), buffer, response);
            return response;
        }
        /// Thousands of requests, whose answers are not read.
        void Flood(int count)
        {
            ws.text(true);
            const std::string line = R"({"type":"ping","request":"0123456789012345678901234567890123456789"})";
            std::string message;
            while (message.size() + line.size() < 60'000)
            {
                message += line + "\n";
            }
            for (int i = 0; i < count; ++i)
            {
                ws.write(asio::buffer(message));
            }
        }

        asio::io_context io;
        websocket::stream<tcp::socket> ws;
        int messages = 0;
    };

    Gateway& Start()
    {
        options.port = 0;
        gateway = std::make_unique<Gateway>(options, backend);
        gateway->Start();
        return *gateway;
    }

    std::string Get(const std::string& path) const { return Client(gateway->GetPort()).Ask(path).body(); }

    GatewayOptions options;
    EmptyBackend backend;
    std::unique_ptr<Gateway> gateway;
};

TEST_F(GatewayTest, SaysWhyItCannotStart)
{
    Start();
    GatewayOptions same = options;
    same.port = gateway->GetPort();
    EXPECT_THROW(Gateway(same, backend).Start(), std::runtime_error);
    same.takesAnyPort = true;
    Gateway other(same, backend);
    other.Start();
    EXPECT_NE(other.GetPort(), gateway->GetPort());
    GatewayOptions open = options;
    open.address = "0.0.0.0";
    EXPECT_THROW(Gateway(open, backend).Start(), std::runtime_error);
    GatewayOptions tls = options;
    tls.tls = {"/nowhere/cert.pem", "/nowhere/key.pem"};
    EXPECT_THROW(Gateway(tls, backend).Start(), std::runtime_error);
}

TEST_F(GatewayTest, PingsWhoIsSilentAndKeepsWhoAnswers)
{
    options.limits.idle = 1200ms;
    Client client(Start().GetPort());
    int pings = 0;
    client.ws.control_callback([&](websocket::frame_type kind, beast::string_view)
                               { pings += kind == websocket::frame_type::ping ? 1 : 0; });
    client.Shake();
    auto end = std::async(std::launch::async, [&] { return client.ReadToEnd(); }); // its library answers pings
    EXPECT_EQ(end.wait_for(3s), std::future_status::timeout);
    gateway->Stop();
    EXPECT_EQ(end.get(), 1001U);
    EXPECT_GE(pings, 3);
}

TEST_F(GatewayTest, TellsWhoIsSilentForTooLongThatItGoes)
{
    options.limits.idle = 800ms;
    Client client(Start().GetPort());
    client.Shake();
    // A raw read does not answer the ping: after it comes the close with its code.
    const auto begin = Clock::now();
    std::string bytes;
    beast::error_code error;
    while (!error)
    {
        std::array<char, 4096> part{};
        bytes.append(part.data(), client.ws.next_layer().read_some(asio::buffer(part), error));
    }
    EXPECT_GE(Clock::now() - begin, 700ms);
    const std::size_t ping = bytes.find(std::string("\x89\x00", 2));
    const std::size_t close = bytes.find("\x03\xE9silent for too long");
    EXPECT_NE(ping, std::string::npos);
    ASSERT_NE(close, std::string::npos);
    EXPECT_LT(ping, close);
}

TEST_F(GatewayTest, EndsASessionWithoutATokenInTime)
{
    options.tokens = {{"one", "secret", {}}};
    options.limits.handshake = 300ms;
    Client client(Start().GetPort());
    client.Shake();
    EXPECT_EQ(client.ReadToEnd(), 1008U);
    EXPECT_EQ(client.messages, 1) << "the hello";
}

TEST_F(GatewayTest, TellsASessionThatWakesInTimeThatItWasTooSlow)
{
    options.limits.stall = 700ms;
    options.limits.requests_per_second = 1'000'000;
    options.limits.close_bytes = 64'000'000;
    options.limits.idle = 60'000ms;
    Client client(Start().GetPort());
    client.Shake();
    // Answers to thousands of requests that it does not read.
    client.Flood(200);
    // Longer than the session may stall, and shorter than its end is waited for.
    std::promise<void> never;
    never.get_future().wait_for(1500ms);
    EXPECT_EQ(client.ReadToEnd(), 1013U);
}

TEST_F(GatewayTest, LetsASlowClientBeThatTakesALittleNowAndThen)
{
    options.limits.stall = 1500ms;
    options.limits.requests_per_second = 1'000'000;
    options.limits.close_bytes = 64'000'000;
    options.limits.idle = 60'000ms;
    Client client(Start().GetPort(), 8192);
    client.Shake();
    client.Flood(20);
    // One write of the server takes longer than it may stall, and is seen to go on.
    beast::error_code error;
    std::array<char, 2048> some{};
    for (const auto end = Clock::now() + 4s; Clock::now() < end && !error;)
    {
        asio::read(client.ws.next_layer(), asio::buffer(some), error);
        std::promise<void> never;
        never.get_future().wait_for(100ms);
    }
    EXPECT_FALSE(error) << error.message();
    EXPECT_NE(Get("/metrics").find("price_server_gateway_slow_sessions_total 0\n"), std::string::npos);
}

TEST_F(GatewayTest, RefusesRequestsThatComeTooFastOfAConnectionAndOfAllTogether)
{
    options.limits.requests_per_second = 3; // six at once
    options.limits.httpRequests_per_second = 5;
    Start();
    Client first(gateway->GetPort());
    int served = 0;
    auto answer = first.Ask("/-/healthy");
    for (; answer.result() == http::status::ok && served < 100; ++served)
    {
        answer = first.Ask("/-/healthy");
    }
    EXPECT_GE(served, 6);
    EXPECT_LT(served, 100);
    EXPECT_EQ(answer.result_int(), 429U);
    EXPECT_EQ(answer[http::field::retry_after], "1");
    EXPECT_NE(answer.body().find("too_many_requests"), std::string::npos);

    served = 0;
    std::vector<std::unique_ptr<Client>> others;
    do
    {
        others.push_back(std::make_unique<Client>(gateway->GetPort()));
        answer = others.back()->Ask("/api/v1/status");
        ++served;
    } while (answer.result() == http::status::ok && served < 200);
    EXPECT_GE(served, 10);
    EXPECT_LT(served, 200);
    EXPECT_EQ(answer.result_int(), 429U);
    for (int i = 0; i < 20; ++i)
    {
        Client(gateway->GetPort()).Shake(); // nor does it keep anybody from a session,
        EXPECT_EQ(Client(gateway->GetPort()).Ask("/").result(), http::status::ok) << "from the page,";
        EXPECT_EQ(Client(gateway->GetPort()).Ask("/-/healthy").result(), http::status::ok) << "or from the health";
    }
}

TEST_F(GatewayTest, StopsWithConnectionsOfEveryKindOpen)
{
    const std::uint16_t port = Start().GetPort();
    Client idle(port); // has said nothing
    Client half(port);
    half.ws.next_layer().write_some(asio::buffer("GET / HT", 8));
    Client session(port);
    session.Shake();
    auto end = std::async(std::launch::async, [&] { return session.ReadToEnd(); });
    Client deaf(port); // does not answer the close
    deaf.Shake();
    const auto begin = Clock::now();
    gateway->Stop();
    EXPECT_LT(Clock::now() - begin, 3s);
    EXPECT_EQ(end.get(), 1001U);
    gateway->Stop();
    gateway.reset();
}

TEST_F(GatewayTest, StopsAtOnceWhenNobodyHasAskedForAnything)
{
    const std::uint16_t port = Start().GetPort();
    std::vector<std::unique_ptr<Client>> clients;
    for (int i = 0; i < 20; ++i)
    {
        clients.push_back(std::make_unique<Client>(port));
    }
    Client session(port); // the others are accepted before it
    session.Shake();
    auto end = std::async(std::launch::async, [&] { return session.ReadToEnd(); });
    const auto begin = Clock::now();
    gateway->Stop();
    EXPECT_LT(Clock::now() - begin, 700ms);
    EXPECT_EQ(end.get(), 1001U);
}

TEST_F(GatewayTest, SurvivesClientsThatGoAtAnyMoment)
{
    const std::uint16_t port = Start().GetPort();
    const std::string request = "GET /ws HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                                "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n";
    for (std::size_t cut = 0; cut <= request.size(); ++cut)
    {
        Client client(port);
        client.ws.next_layer().write_some(asio::buffer(request.data(), cut));
        client.ws.next_layer().set_option(asio::socket_base::linger(true, 0)); // a reset
    }
    Client client(port);
    client.Shake();
    beast::flat_buffer buffer;
    client.ws.read(buffer);
    EXPECT_NE(beast::buffers_to_string(buffer.data()).find("\"hello\""), std::string::npos);
}

} // namespace
} // namespace ps_ns::gateway
