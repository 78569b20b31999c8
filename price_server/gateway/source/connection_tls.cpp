#include "connections.h"
#include "http_connection.h"

#include <memory>
#include <utility>

namespace ps_ns::gateway
{

void BeginTls(GatewayContext& context, asio::ip::tcp::socket socket, asio::ssl::context& tls, const std::string& remote)
{
    const auto connection = std::make_shared<HttpConnection<TlsStream>>(
        context, TlsStream(beast::tcp_stream(std::move(socket)), tls), remote);
    context.Add(connection);
    connection->Run();
}

} // namespace ps_ns::gateway
