#pragma once

#include "price_client/book.h"

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ps_ns::price_client
{

/// Where prices go. Instruments are numbered as they were asked for.
///
/// Threads: the feed's caller.
class IFeedView
{
public:
    virtual ~IFeedView() = default;
    /// What the server calls it: MARKET:SYMBOL.
    virtual void OnName(std::size_t instrument, const std::string& name) = 0;
    /// Decimals of its prices, of one of its components.
    virtual void OnDigits(std::size_t instrument, unsigned digits) = 0;
    /// Every object about prices, as it was received.
    virtual void OnObject(std::string_view type, std::string_view line) = 0;
    virtual void OnBook(std::size_t instrument, const Book& book) = 0;
    virtual void OnTrades(std::size_t instrument, const boost::json::object& message) = 0;
    /// The session has ended: what is known is old.
    virtual void OnLost() = 0;
};

/// What is to be subscribed. A plain value.
struct FeedRequest
{
    std::vector<std::string> instruments;
    std::string depth; ///< a number, "default" or "max"; empty: the market's own
    unsigned interval_ms = 0;
    std::vector<std::string> kinds; ///< empty: books only
    std::string token;              ///< empty: none
};

/// The client's side of docs/protocol.md over sessions that come and go: subscribes, puts books together, asks for
/// images, subscribes again what the server has lost. Knows no network: texts come in, texts to send come out.
///
/// Threads: one. Ownership: the view is the caller's, and outlives it.
class Feed
{
public:
    using Clock = std::chrono::steady_clock;
    using Talk = std::function<void(const std::string&)>;

    static constexpr std::chrono::seconds kResubscribeAfter{5};

    /// `talk` hears what the user should know.
    Feed(FeedRequest request, IFeedView& view, Talk talk);

    /// One message, of one or more objects. Returns what is to be sent, which may be nothing.
    /// Throws ClientError: that the server says no, or talks nonsense; when MayPass, a new session may help.
    std::string OnMessage(std::string_view message, Clock::time_point now);
    /// Now and then. Returns what is to be sent.
    std::string OnTick(Clock::time_point now);
    /// The session has ended.
    void OnLost();

    /// The server has greeted, ever.
    bool WasGreeted() const noexcept { return m_wasGreeted; }
    /// This session has delivered prices.
    bool HasPrices() const noexcept { return m_hasPrices; }

private:
    struct Subscription
    {
        std::string asked;
        std::string name; ///< the server's; empty: not accepted yet
        std::string request;
        unsigned generation = 0; ///< counts its requests: each has an id of its own
        std::uint64_t depth = 0;
        bool wasAccepted = false; ///< ever
        std::optional<Clock::time_point> subscribeAgain;
        Book book;
    };

    void OnObject(std::string_view line, Clock::time_point now);
    void OnHello(const boost::json::object& message);
    void OnResult(const boost::json::object& message, Clock::time_point now);
    void OnAccepted(std::size_t index, const boost::json::object& message);
    void OnError(const boost::json::object& message, Clock::time_point now);
    void OnBookObject(const boost::json::object& message);
    void OnRenamed(const boost::json::object& message);
    void OnTold(const boost::json::object& message, std::string_view type);
    void Subscribe(std::size_t index);
    void Send(const boost::json::object& request);
    std::optional<std::size_t> FindByRequest(const boost::json::object& message) const;
    std::optional<std::size_t> FindByName(const boost::json::object& message) const;
    std::string TakeOut();

    const FeedRequest m_request;
    IFeedView& m_view;
    const Talk m_talk;
    std::vector<Subscription> m_subscriptions;
    std::map<std::string, std::size_t> m_indexByRequest; ///< of all requests of this session
    std::map<std::string, std::size_t> m_indexByName;    ///< of this session
    std::string m_out;
    bool m_wasGreeted = false;
    bool m_hasPrices = false;
};

} // namespace ps_ns::price_client
