#include "stream.h"

#include <boost/asio/ip/address.hpp>
#include <openssl/x509_vfy.h>

namespace ps_ns::price_client
{

asio::ssl::context MakeTlsContext(const Access& access)
{
    asio::ssl::context context(asio::ssl::context::tls_client);
    context.set_options(asio::ssl::context::no_tlsv1 | asio::ssl::context::no_tlsv1_1);
    context.set_verify_mode(asio::ssl::verify_peer);
    beast::error_code error;
    if (access.caFile.empty())
    {
        context.set_default_verify_paths(error);
    }
    else
    {
        context.load_verify_file(access.caFile, error);
    }
    if (error)
    {
        throw ClientError(ExitCode::Failure, "--ca " + access.caFile + ": no certificates can be read from it");
    }
    return context;
}

ClientError MakeConnectError(const Access& access, const beast::error_code& error)
{
    const std::string why = error == beast::error::timeout
                                ? "no answer within " + std::to_string(access.timeout.count()) + " ms"
                                : error.message();
    return {ExitCode::CannotConnect, "cannot connect to " + access.url.GetPlace() + ": " + why, true};
}

ClientError MakeTlsError(const Access& access, const beast::error_code& error, SSL* ssl)
{
    const long verified = ::SSL_get_verify_result(ssl);
    if (verified == X509_V_OK)
    {
        return MakeConnectError(access, error);
    }
    return {ExitCode::CannotConnect, "cannot connect to " + access.url.GetPlace() +
                                         ": its certificate is not trusted: " +
                                         ::X509_verify_cert_error_string(verified) + "; --ca says whom to trust"};
}

void ConnectSocket(Loop& loop, const Access& access, beast::tcp_stream& stream)
{
    asio::ip::tcp::resolver resolver(loop.GetContext());
    asio::ip::tcp::resolver::results_type addresses;
    auto error = loop.Await(
        [&](auto handler)
        {
            resolver.async_resolve(access.url.host, access.url.port,
                                   [&addresses, handler](beast::error_code resolveError, auto found) mutable
                                   {
                                       addresses = std::move(found);
                                       handler(resolveError);
                                   });
        });
    if (!error && !loop.IsStopped())
    {
        stream.expires_after(access.timeout);
        error = loop.Await([&](auto handler) { stream.async_connect(addresses, std::move(handler)); });
    }
    if (error || loop.IsStopped())
    {
        throw MakeConnectError(access, error ? error : beast::error_code(asio::error::operation_aborted));
    }
    beast::error_code ignored;
    stream.socket().set_option(asio::ip::tcp::no_delay(true), ignored);
}

void SetServerName(const Access& access, TlsStream& stream)
{
    beast::error_code isNoAddress;
    asio::ip::make_address(access.url.host, isNoAddress);
    std::string name = access.url.host;
    // The library's own macro for this has a cast of the old kind in it.
    if (isNoAddress &&
        ::SSL_ctrl(stream.native_handle(), SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name, name.data()) != 1)
    {
        throw ClientError(ExitCode::CannotConnect, "\"" + access.url.host + "\" is no name for a certificate");
    }
    stream.set_verify_callback(asio::ssl::host_name_verification(access.url.host));
}

} // namespace ps_ns::price_client
