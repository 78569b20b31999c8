#include "price_client/connection.h"
#include "stream.h"

#include <boost/json.hpp>

namespace ps_ns::price_client
{
namespace
{

constexpr std::uint64_t kLongestBody = std::uint64_t{64} << 20;

template <class Stream>
HttpReply Exchange(Loop& loop, const Access& access, const std::string& target, Stream stream)
{
    beast::tcp_stream& socket = beast::get_lowest_layer(stream);
    const CancelGuard guard(loop, socket);
    Connect(loop, access, stream);
    http::request<http::empty_body> request(http::verb::get, access.url.prefix + target, 11);
    request.set(http::field::host, access.url.GetHostHeader());
    request.set(http::field::user_agent, "price_client");
    request.keep_alive(false);
    if (const std::string authorization = MakeAuthorization(access); !authorization.empty())
    {
        request.set(http::field::authorization, authorization);
    }
    socket.expires_after(access.timeout);
    auto error = loop.Await([&](auto handler) { http::async_write(stream, request, std::move(handler)); });
    http::response_parser<http::string_body> parser;
    parser.body_limit(kLongestBody);
    beast::flat_buffer buffer;
    if (!error)
    {
        error = loop.Await([&](auto handler) { http::async_read(stream, buffer, parser, std::move(handler)); });
    }
    if (error)
    {
        const std::string why = error == beast::error::timeout
                                    ? "no answer within " + std::to_string(access.timeout.count()) + " ms"
                                    : error.message();
        throw ClientError(ExitCode::CannotConnect, access.url.GetPlace() + target + ": " + why);
    }
    return {parser.get().result_int(), std::move(parser.get().body())};
}

std::string FindText(const boost::json::value& body, const char* name)
{
    const boost::json::object* const object = body.if_object();
    const boost::json::value* const error = object == nullptr ? nullptr : object->if_contains("error");
    const boost::json::object* const members = error == nullptr ? nullptr : error->if_object();
    const boost::json::value* const text = members == nullptr ? nullptr : members->if_contains(name);
    return text != nullptr && text->is_string() ? std::string(text->get_string()) : std::string();
}

} // namespace

HttpReply Get(Loop& loop, const Access& access, const std::string& target)
{
    if (access.url.isEncrypted)
    {
        asio::ssl::context context = MakeTlsContext(access);
        return Exchange(loop, access, target, TlsStream(loop.GetContext(), context));
    }
    return Exchange(loop, access, target, PlainStream(loop.GetContext()));
}

ClientError MakeReplyError(const Access& access, const HttpReply& reply)
{
    boost::system::error_code ignored;
    const boost::json::value body = boost::json::parse(reply.body, ignored);
    const std::string code = FindText(body, "code");
    std::string text = FindText(body, "message");
    if (code == "unknown_instrument")
    {
        return {ExitCode::NotFound, text};
    }
    text = access.url.GetPlace() + " refuses: " + (text.empty() ? "no reason is given" : text) + " (HTTP " +
           std::to_string(reply.status) + (code.empty() ? "" : ", " + code) + ")";
    if (reply.status == 401)
    {
        text += access.token.empty() ? "; --token-file, or PRICE_SERVER_TOKEN in the environment, gives one" : "";
    }
    const bool mayPass = reply.status == 429 || reply.status == 502 || reply.status == 503 || reply.status == 504;
    return {ExitCode::Refused, text, mayPass};
}

} // namespace ps_ns::price_client
