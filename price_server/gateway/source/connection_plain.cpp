#include "connections.h"
#include "http_connection.h"

#include <memory>
#include <utility>

namespace ps_ns::gateway
{

void BeginPlain(GatewayContext& context, asio::ip::tcp::socket socket, const std::string& remote)
{
    const auto connection =
        std::make_shared<HttpConnection<PlainStream>>(context, PlainStream(std::move(socket)), remote);
    context.Add(connection);
    connection->Run();
}

} // namespace ps_ns::gateway
