#pragma once

#include "price_client/loop.h"
#include "price_client/options.h"

#include <memory>
#include <string>

namespace ps_ns::price_client
{

struct HttpReply
{
    unsigned status = 0;
    std::string body;
};

/// One GET of a page below the server's address, on a connection of its own. Throws ClientError when there is no
/// answer; any answer is returned.
HttpReply Get(Loop& loop, const Access& access, const std::string& target);

/// What an answer other than 200 says, as an error with the fitting exit code.
ClientError MakeReplyError(const Access& access, const HttpReply& reply);

/// One WebSocket session.
///
/// Threads: the loop's.
class IWebSocket
{
public:
    virtual ~IWebSocket() = default;
    /// Connects and shakes hands. Throws ClientError.
    virtual void Open() = 0;
    /// The next message; false: the loop was stopped, and the session has been closed. Throws ClientError when it ends
    /// otherwise.
    virtual bool Read(std::string& message) = 0;
    /// Queues a message; an empty one is not sent.
    virtual void Send(std::string text) = 0;
};

/// Ownership: loop and access outlive it.
std::unique_ptr<IWebSocket> MakeWebSocket(Loop& loop, const Access& access);

} // namespace ps_ns::price_client
