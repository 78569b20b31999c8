#include "price_client/feed.h"

#include "price_client/client_error.h"

#include <algorithm>
#include <utility>

namespace ps_ns::price_client
{

namespace json = boost::json;

namespace
{

constexpr std::uint64_t kProtocol = 1;

// Codes of results.
constexpr std::uint64_t kSuccess = 0;
constexpr std::uint64_t kNoSubscription = 13;
constexpr std::uint64_t kUnknownSubscription = 24;
constexpr std::uint64_t kAccepted = 100;

json::object ParseObject(std::string_view line)
{
    boost::system::error_code error;
    json::value value = json::parse(json::string_view(line.data(), line.size()), error);
    if (error || !value.is_object())
    {
        throw ClientError(ExitCode::Failure, "the server sent what is no JSON object: " +
                                                 (error ? error.message() : std::string(line.substr(0, 40))));
    }
    return std::move(value.get_object());
}

std::string FindText(const json::object& object, std::string_view name)
{
    const json::value* const value = object.if_contains(name);
    return value != nullptr && value->is_string() ? std::string(value->get_string()) : std::string();
}

json::value MakeDepth(const std::string& depth)
{
    return depth == "default" || depth == "max" ? json::value(json::string(depth)) : json::value(std::stoi(depth));
}

} // namespace

Feed::Feed(FeedRequest request, IFeedView& view, Talk talk)
    : m_request(std::move(request))
    , m_view(view)
    , m_talk(std::move(talk))
{
    for (const std::string& instrument : m_request.instruments)
    {
        m_subscriptions.emplace_back().asked = instrument;
    }
}

std::string Feed::OnMessage(std::string_view message, Clock::time_point now)
{
    while (!message.empty())
    {
        const std::size_t end = message.find('\n');
        const std::string_view line = message.substr(0, end);
        message.remove_prefix(end == std::string_view::npos ? message.size() : end + 1);
        OnObject(line, now);
    }
    return TakeOut();
}

std::string Feed::OnTick(Clock::time_point now)
{
    for (std::size_t i = 0; i < m_subscriptions.size(); ++i)
    {
        Subscription& subscription = m_subscriptions[i];
        if (subscription.subscribeAgain && *subscription.subscribeAgain <= now)
        {
            // The server may still know the old one: it would be in the way.
            Send({{"type", "unsubscribe"},
                  {"request", "end-" + subscription.request},
                  {"subscription", subscription.request}});
            Subscribe(i);
        }
    }
    return TakeOut();
}

void Feed::OnLost()
{
    for (Subscription& subscription : m_subscriptions)
    {
        subscription.book.Forget();
        subscription.subscribeAgain.reset();
    }
    m_indexByRequest.clear();
    m_indexByName.clear();
    m_out.clear();
    m_hasPrices = false;
    m_view.OnLost();
}

void Feed::OnObject(std::string_view line, Clock::time_point now)
{
    const json::object message = ParseObject(line);
    const std::string type = ReadText(message, "type");
    if (type == "hello")
    {
        return OnHello(message);
    }
    if (type == "result")
    {
        return OnResult(message, now);
    }
    if (type == "error")
    {
        return OnError(message, now);
    }
    if (!FindByName(message))
    {
        return; // an answer that nothing depends on, or of a subscription that has been given up
    }
    m_view.OnObject(type, line);
    if (type == "image" || type == "update")
    {
        return OnBookObject(message);
    }
    if (type == "trades")
    {
        return m_view.OnTrades(*FindByName(message), message);
    }
    OnTold(message, type);
}

void Feed::OnHello(const json::object& message)
{
    if (const std::uint64_t protocol = ReadNumber(message, "protocol"); protocol != kProtocol)
    {
        throw ClientError(ExitCode::Failure, "the server speaks protocol " + std::to_string(protocol) +
                                                 ", and this client " + std::to_string(kProtocol));
    }
    m_wasGreeted = true;
    const json::value* const authenticated = message.if_contains("authenticated");
    if (authenticated != nullptr && authenticated->is_bool() && !authenticated->get_bool())
    {
        if (m_request.token.empty())
        {
            throw ClientError(ExitCode::Refused,
                              "the server wants a token: --token-file, or PRICE_SERVER_TOKEN in the environment");
        }
        // The handshake has shown it already; a proxy between may have taken it off.
        Send({{"type", "authenticate"}, {"token", m_request.token}});
    }
    for (std::size_t i = 0; i < m_subscriptions.size(); ++i)
    {
        Subscribe(i);
    }
}

void Feed::Subscribe(std::size_t index)
{
    Subscription& subscription = m_subscriptions[index];
    subscription.subscribeAgain.reset();
    subscription.book.Forget();
    subscription.request = "s" + std::to_string(index) + "." + std::to_string(++subscription.generation);
    m_indexByRequest[subscription.request] = index;
    json::object request{{"type", "subscribe"},
                         {"request", subscription.request},
                         {"instrument", subscription.asked},
                         {"interval_ms", m_request.interval_ms}};
    if (!m_request.depth.empty())
    {
        request["depth"] = MakeDepth(m_request.depth);
    }
    if (!m_request.kinds.empty())
    {
        json::array& kinds = request["kinds"].emplace_array();
        for (const std::string& kind : m_request.kinds)
        {
            kinds.push_back(json::string(kind));
        }
    }
    Send(request);
}

void Feed::OnResult(const json::object& message, Clock::time_point now)
{
    const auto index = FindByRequest(message);
    if (!index)
    {
        return;
    }
    Subscription& subscription = m_subscriptions[*index];
    const std::uint64_t code = ReadNumber(message, "code");
    if (code == kAccepted)
    {
        return OnAccepted(*index, message);
    }
    const std::string component = FindText(message, "component");
    if (code == kSuccess)
    {
        if (const json::value* const format = message.if_contains("format"); format != nullptr && format->is_object())
        {
            m_view.OnDigits(*index, static_cast<unsigned>(ReadNumber(format->get_object(), "fraction_digits")));
        }
        return;
    }
    const bool isLost = code == kNoSubscription || code == kUnknownSubscription || component.empty();
    m_talk(subscription.name + (component.empty() ? "" : ", " + component) + ": " + FindText(message, "meaning") +
           " (" + std::to_string(code) + " " + FindText(message, "name") + ")" + (isLost ? "; asking again soon" : ""));
    if (isLost && !subscription.subscribeAgain)
    {
        subscription.subscribeAgain = now + kResubscribeAfter;
    }
}

void Feed::OnAccepted(std::size_t index, const json::object& message)
{
    if (!message.contains("instrument"))
    {
        return;
    }
    Subscription& subscription = m_subscriptions[index];
    subscription.name = ReadText(message, "instrument");
    subscription.depth = ReadNumber(message, "depth");
    subscription.wasAccepted = true;
    m_indexByName[subscription.name] = index;
    m_view.OnName(index, subscription.name);
}

void Feed::OnError(const json::object& message, Clock::time_point now)
{
    const std::string code = FindText(message, "code");
    const std::string text = FindText(message, "message");
    const auto index = FindByRequest(message);
    const std::string place = index ? m_subscriptions[*index].asked + ": " : "";
    if (code == "unknown_subscription")
    {
        if (index && !m_subscriptions[*index].subscribeAgain)
        {
            m_subscriptions[*index].subscribeAgain = now + kResubscribeAfter;
        }
        return;
    }
    if (code == "duplicate_subscription")
    {
        return m_talk(place + "asked for twice, shown once");
    }
    if (code == "unknown_instrument")
    {
        // Once known, it may come back: a server that has just been started is still reading its instruments.
        throw ClientError(ExitCode::NotFound, text, index && m_subscriptions[*index].wasAccepted);
    }
    const bool mayPass = code == "not_ready" || code == "too_many_requests";
    throw ClientError(ExitCode::Refused, place + text + " (" + code + ")", mayPass);
}

void Feed::OnBookObject(const json::object& message)
{
    Subscription& subscription = m_subscriptions[*FindByName(message)];
    if (ReadNumber(message, "depth") != subscription.depth)
    {
        return;
    }
    switch (subscription.book.Apply(message))
    {
    case Book::Outcome::Applied:
        m_hasPrices = true;
        return m_view.OnBook(*FindByName(message), subscription.book);
    case Book::Outcome::NeedsImage:
    {
        const std::string request = "image-" + std::to_string(++subscription.generation) + "-" + subscription.request;
        m_indexByRequest[request] = *FindByName(message);
        return Send(
            {{"type", "change"}, {"request", request}, {"subscription", subscription.request}, {"image", true}});
    }
    case Book::Outcome::Ignored:
        return;
    }
}

void Feed::OnRenamed(const json::object& message)
{
    const std::string name = ReadText(message, "instrument");
    const std::string symbol = ReadText(message, "symbol");
    const std::size_t index = *FindByName(message);
    const std::string newName = name.substr(0, name.find(':')) + ":" + symbol;
    m_indexByName[newName] = index; // whichever name the next image bears
    m_talk(name + " is called " + newName + " now");
    m_subscriptions[index].asked = newName; // should the session end
    m_view.OnName(index, newName);
}

/// What people should hear, and programs have read already.
void Feed::OnTold(const json::object& message, std::string_view type)
{
    if (type == "renamed")
    {
        return OnRenamed(message);
    }
    if (type == "gap")
    {
        m_talk(ReadText(message, "instrument") + ": " + std::to_string(ReadNumber(message, "lost")) + " trades lost");
    }
}

void Feed::Send(const json::object& request)
{
    m_out += (m_out.empty() ? "" : "\n") + json::serialize(request);
}

std::optional<std::size_t> Feed::FindByRequest(const json::object& message) const
{
    const auto found = m_indexByRequest.find(FindText(message, "request"));
    return found == m_indexByRequest.end() ? std::nullopt : std::optional(found->second);
}

std::optional<std::size_t> Feed::FindByName(const json::object& message) const
{
    const auto found = m_indexByName.find(FindText(message, "instrument"));
    return found == m_indexByName.end() ? std::nullopt : std::optional(found->second);
}

std::string Feed::TakeOut()
{
    return std::exchange(m_out, {});
}

} // namespace ps_ns::price_client
