#include "gateway/protocol.h"

#include "composite_instrument/composite_subscription_info.h"
#include "gateway/component_name.h"
#include "utf8.h"

#include <boost/json.hpp>

#include <algorithm>
#include <array>
#include <chrono>
#include <initializer_list>

namespace ps_ns::gateway
{

namespace json = boost::json;
using ps_messages_ns::SubscriptionResult;

namespace
{

constexpr std::size_t kMaxRequestId = 64; // characters
constexpr std::size_t kShown = 40;        // characters of what a client said that an error repeats

/// Thrown and caught within ParseRequest only.
struct Refusal
{
    std::string code;
    std::string where;
    std::string message;
};

std::string Quote(std::string_view text)
{
    const std::string_view shown = TakeCharacters(text, kShown);
    return '"' + std::string(shown) + (shown.size() < text.size() ? "…\"" : "\"");
}

std::string Show(const json::value& value)
{
    return value.is_string() ? Quote(value.as_string()) : std::string(TakeCharacters(json::serialize(value), kShown));
}

bool IsTextOf(const json::value& value, std::size_t longest)
{
    return value.is_string() && !value.as_string().empty() && CountCharacters(value.as_string()) <= longest;
}

/// Reads the members of one object, and knows which have been asked for.
class Members
{
public:
    explicit Members(const json::object& object)
        : m_object(object)
    {
    }

    const json::value* Find(std::string_view name) { return m_object.if_contains(name); }

    std::string GetText(std::string_view name, std::size_t longest)
    {
        const json::value* const value = Find(name);
        if (value == nullptr)
        {
            throw Refusal{"bad_member", std::string(name), Quote(name) + " is missing"};
        }
        if (!IsTextOf(*value, longest))
        {
            throw Refusal{"bad_value", std::string(name),
                          Quote(name) + " is " + Show(*value) + ": a text of 1 to " + std::to_string(longest) +
                              " characters expected"};
        }
        return std::string(value->as_string());
    }

    std::optional<std::int32_t> GetDepth()
    {
        const json::value* const value = Find("depth");
        if (value == nullptr)
        {
            return std::nullopt;
        }
        if (value->is_string() && value->as_string() == "default")
        {
            return CompositeSubscriptionInfo::kDefaultDepth;
        }
        if (value->is_string() && value->as_string() == "max")
        {
            return CompositeSubscriptionInfo::kMaxDepth;
        }
        if (const auto number = ToNumber(*value); number && *number >= 1 && *number <= kMaxDepth)
        {
            return static_cast<std::int32_t>(*number);
        }
        throw Refusal{"bad_value", "depth",
                      "\"depth\" is " + Show(*value) + ": a whole number from 1 to " + std::to_string(kMaxDepth) +
                          ", \"default\" or \"max\" expected"};
    }

    std::optional<std::uint32_t> GetInterval()
    {
        const json::value* const value = Find("interval_ms");
        if (value == nullptr)
        {
            return std::nullopt;
        }
        if (const auto number = ToNumber(*value); number && *number >= 0 && *number <= kMaxInterval_ms)
        {
            return static_cast<std::uint32_t>(*number);
        }
        throw Refusal{"bad_value", "interval_ms",
                      "\"interval_ms\" is " + Show(*value) + ": a whole number from 0 to " +
                          std::to_string(kMaxInterval_ms) + " expected"};
    }

    std::optional<Kinds> GetKinds()
    {
        const json::value* const value = Find("kinds");
        if (value == nullptr)
        {
            return std::nullopt;
        }
        Kinds kinds{false, false, false};
        const json::array* const array = value->if_array();
        const bool isGood =
            array != nullptr && !array->empty() &&
            std::all_of(array->begin(), array->end(), [&](const json::value& kind) { return AddKind(kind, kinds); });
        if (!isGood)
        {
            throw Refusal{"bad_value", "kinds",
                          "\"kinds\" is " + Show(*value) +
                              ": an array with at least one of \"book\", \"trades\", \"fields\" expected"};
        }
        return kinds;
    }

    bool GetFlag(std::string_view name)
    {
        const json::value* const value = Find(name);
        if (value == nullptr)
        {
            return false;
        }
        if (!value->is_bool())
        {
            throw Refusal{"bad_value", std::string(name),
                          Quote(name) + " is " + Show(*value) + ": true or false expected"};
        }
        return value->as_bool();
    }

    /// What a request of this type does not have is an error: a misspelt member must not be taken for an absent one.
    void AllowOnly(std::string_view type, std::initializer_list<std::string_view> names) const
    {
        for (const auto& member : m_object)
        {
            const std::string_view name = member.key();
            if (name != "type" && std::find(names.begin(), names.end(), name) == names.end())
            {
                throw Refusal{"bad_member", std::string(TakeCharacters(name, kMaxRequestId)),
                              "a request of type " + Quote(type) + " has no member " + Quote(name)};
            }
        }
    }

private:
    static std::optional<std::int64_t> ToNumber(const json::value& value)
    {
        return value.is_int64() ? std::optional<std::int64_t>(value.as_int64()) : std::nullopt;
    }

    static bool AddKind(const json::value& value, Kinds& kinds)
    {
        const std::string_view name = value.is_string() ? std::string_view(value.as_string()) : std::string_view();
        kinds.book = kinds.book || name == "book";
        kinds.trades = kinds.trades || name == "trades";
        kinds.fields = kinds.fields || name == "fields";
        return name == "book" || name == "trades" || name == "fields";
    }

    const json::object& m_object;
};

SubscribeRequest ReadSubscribe(Members& members, std::string request)
{
    constexpr std::size_t kMaxInstrument = 256;
    members.AllowOnly("subscribe", {"request", "instrument", "depth", "interval_ms", "kinds"});
    SubscribeRequest subscribe;
    subscribe.request = std::move(request);
    subscribe.instrument = members.GetText("instrument", kMaxInstrument);
    subscribe.depth = members.GetDepth().value_or(CompositeSubscriptionInfo::kDefaultDepth);
    subscribe.interval_ms = members.GetInterval().value_or(0);
    subscribe.kinds = members.GetKinds().value_or(Kinds{});
    return subscribe;
}

ChangeRequest ReadChange(Members& members, std::string request)
{
    members.AllowOnly("change", {"request", "subscription", "depth", "interval_ms", "kinds", "image"});
    ChangeRequest change;
    change.request = std::move(request);
    change.subscription = members.GetText("subscription", kMaxRequestId);
    change.depth = members.GetDepth();
    change.interval_ms = members.GetInterval();
    change.kinds = members.GetKinds();
    change.image = members.GetFlag("image");
    return change;
}

Request ReadRequest(const json::object& object, std::optional<std::string>& request)
{
    constexpr std::size_t kMaxToken = 4096;
    Members members(object);
    if (const json::value* const id = members.Find("request"); id != nullptr && IsTextOf(*id, kMaxRequestId))
    {
        request = std::string(id->as_string());
    }
    const std::string type = members.GetText("type", kMaxRequestId);
    if (type == "authenticate")
    {
        members.AllowOnly(type, {"token"});
        return AuthenticateRequest{members.GetText("token", kMaxToken)};
    }
    if (type != "subscribe" && type != "change" && type != "unsubscribe" && type != "ping")
    {
        throw Refusal{"bad_type", "type", "there is no request of type " + Quote(type)};
    }
    std::string id = members.GetText("request", kMaxRequestId);
    if (type == "subscribe")
    {
        return ReadSubscribe(members, std::move(id));
    }
    if (type == "change")
    {
        return ReadChange(members, std::move(id));
    }
    if (type == "ping")
    {
        members.AllowOnly(type, {"request"});
        return PingRequest{std::move(id)};
    }
    members.AllowOnly(type, {"request", "subscription"});
    return UnsubscribeRequest{std::move(id), members.GetText("subscription", kMaxRequestId)};
}

json::object ToObject(const Rights& rights)
{
    json::array markets;
    for (const std::string& market : rights.markets)
    {
        markets.push_back(json::string(market));
    }
    if (rights.markets.empty())
    {
        markets.push_back("*");
    }
    return {{"markets", std::move(markets)}, {"operations", rights.operations}};
}

json::object MakeResult(const std::string& request, SubscriptionResult::Value result)
{
    return {{"type", "result"},
            {"request", request},
            {"code", static_cast<int>(result)},
            {"name", SubscriptionResult::GetName(result)},
            {"meaning", SubscriptionResult::GetMeaning(result)}};
}

} // namespace

Request ParseRequest(std::string_view line)
{
    boost::system::error_code error;
    json::parse_options options;
    options.max_depth = 8;
    const json::value value = json::parse(json::string_view(line.data(), line.size()), error, {}, options);
    if (error || !value.is_object())
    {
        return RequestError{std::nullopt, "bad_json", "",
                            error ? "this is no JSON: " + error.message()
                                  : "an object expected, " + Show(value) + " found"};
    }
    std::optional<std::string> request;
    try
    {
        return ReadRequest(value.as_object(), request);
    }
    catch (const Refusal& refusal)
    {
        return RequestError{request, refusal.code, refusal.where, refusal.message};
    }
}

std::uint64_t GetTime_ns()
{
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch())
            .count());
}

std::string FormatHello(std::uint64_t session, const GatewayOptions& options, bool isAuthenticated,
                        const Rights& rights)
{
    const Limits& limits = options.limits;
    const json::object none{{"markets", json::array()}, {"operations", false}};
    return json::serialize(json::object{{"type", "hello"},
                                        {"protocol", kProtocolVersion},
                                        {"server", "price_server"},
                                        {"version", options.version},
                                        {"build", options.build},
                                        {"session", session},
                                        {"time_ns", std::to_string(GetTime_ns())},
                                        {"authenticated", isAuthenticated},
                                        {"rights", isAuthenticated ? ToObject(rights) : none},
                                        {"limits",
                                         {{"message_bytes", limits.message_bytes},
                                          {"subscriptions", limits.subscriptions},
                                          {"requests_per_second", limits.requests_per_second},
                                          {"depth", kMaxDepth},
                                          {"conflate_bytes", limits.conflate_bytes},
                                          {"close_bytes", limits.close_bytes},
                                          {"stall_ms", limits.stall.count()},
                                          {"idle_ms", limits.idle.count()}}}});
}

std::string FormatAuthenticated(const Rights& rights)
{
    return json::serialize(json::object{{"type", "authenticated"}, {"rights", ToObject(rights)}});
}

std::string FormatError(const RequestError& error)
{
    json::object object{{"type", "error"},
                        {"request", error.request ? json::value(json::string(*error.request)) : json::value(nullptr)},
                        {"code", error.code},
                        {"where", error.where},
                        {"message", error.message}};
    if (!error.subscription.empty())
    {
        object["subscription"] = error.subscription;
    }
    return json::serialize(object);
}

std::string FormatPong(const std::string& request)
{
    return json::serialize(
        json::object{{"type", "pong"}, {"request", request}, {"time_ns", std::to_string(GetTime_ns())}});
}

std::string FormatAccepted(const std::string& request, const std::string& instrument, std::int32_t depth)
{
    json::object result = MakeResult(request, SubscriptionResult::Accepted);
    if (!instrument.empty())
    {
        result["instrument"] = instrument;
        result["depth"] = depth;
    }
    return json::serialize(result);
}

std::string FormatResult(const std::string& request, SubscriptionResult::Value result)
{
    return json::serialize(MakeResult(request, result));
}

std::string FormatComponentResult(const std::string& request, SubscriptionResult::Value result,
                                  CompositeComponentType::Type component, const PriceFormat& format)
{
    json::object object = MakeResult(request, result);
    object["component"] = GetComponentName(component);
    object["format"] = {{"denominator", format.denominator},
                        {"fraction_digits", format.fractionDigits},
                        {"tick_size", format.tickSize}};
    return json::serialize(object);
}

std::string FormatConflated(const std::string& instrument, std::int32_t depth, std::uint64_t count)
{
    return json::serialize(
        json::object{{"type", "conflated"}, {"instrument", instrument}, {"depth", depth}, {"count", count}});
}

std::string FormatGap(const std::string& instrument, std::uint64_t lost)
{
    return json::serialize(
        json::object{{"type", "gap"}, {"instrument", instrument}, {"kind", "trades"}, {"lost", lost}});
}

std::string FormatRenamed(const std::string& instrument, const std::string& symbol, std::uint64_t epoch)
{
    return json::serialize(
        json::object{{"type", "renamed"}, {"instrument", instrument}, {"symbol", symbol}, {"epoch", epoch}});
}

} // namespace ps_ns::gateway
