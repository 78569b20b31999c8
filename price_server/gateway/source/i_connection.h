#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/error.hpp>

#include <chrono>

namespace ps_ns::gateway
{

namespace asio = boost::asio;
namespace beast = boost::beast;

/// What the gateway asks of a connection, whatever stream is below it.
class IConnection
{
public:
    virtual ~IConnection() = default;
    /// The server stops: say so to the client, and go.
    virtual void Drain() = 0;
    /// Now and then: sees whether the client takes what it is sent.
    virtual void CheckProgress(std::chrono::steady_clock::time_point now) = 0;
    /// Away with it, without another word.
    virtual void Abort() = 0;
};

} // namespace ps_ns::gateway
