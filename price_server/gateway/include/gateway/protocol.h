#pragma once

#include "composite_instrument/composite_component_type.h"
#include "composite_instrument/price_format.h"
#include "composite_instrument/subscription_result.h"
#include "gateway/gateway_options.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

/// The gateway's protocol: what clients may say, and how the server spells what it says. docs/protocol.md is the
/// contract; this is its one implementation. Pure functions over values.
namespace ps_ns::gateway
{

inline constexpr std::string_view kSubprotocol = "price-server.v1";
inline constexpr int kProtocolVersion = 1;

/// What a subscription is to bring.
struct Kinds
{
    bool book = true;
    bool trades = false;
    bool fields = false;

    friend bool operator==(const Kinds&, const Kinds&) = default;
};

struct SubscribeRequest
{
    std::string request;
    std::string instrument;  ///< MARKET:SYMBOL, as the client wrote it
    std::int32_t depth = -2; ///< levels, or a sentinel of CompositeSubscriptionInfo
    std::uint32_t interval_ms = 0;
    Kinds kinds;
};

struct ChangeRequest
{
    std::string request;
    std::string subscription;
    std::optional<std::int32_t> depth;
    std::optional<std::uint32_t> interval_ms;
    std::optional<Kinds> kinds;
    bool image = false;
};

struct UnsubscribeRequest
{
    std::string request;
    std::string subscription;
};

struct PingRequest
{
    std::string request;
};

struct AuthenticateRequest
{
    std::string token;
};

/// A request that makes no sense: what, and where.
struct RequestError
{
    std::optional<std::string> request; ///< empty: it could not be read
    std::string code;
    std::string where; ///< the member; empty: the whole
    std::string message;
    std::string subscription{}; ///< the one that is in the way; empty: none
};

using Request =
    std::variant<SubscribeRequest, ChangeRequest, UnsubscribeRequest, PingRequest, AuthenticateRequest, RequestError>;

inline constexpr std::int32_t kMaxDepth = 1000;
inline constexpr std::uint32_t kMaxInterval_ms = 60'000;

/// Reads one line. Never throws for what a client may send.
Request ParseRequest(std::string_view line);

// --- What the server says: one object each, without a line break ---

std::string FormatHello(std::uint64_t session, const GatewayOptions& options, bool isAuthenticated,
                        const Rights& rights);
std::string FormatAuthenticated(const Rights& rights);
std::string FormatError(const RequestError& error);
std::string FormatPong(const std::string& request);

/// A request is on its way. `instrument` empty: not a subscribe.
std::string FormatAccepted(const std::string& request, const std::string& instrument, std::int32_t depth);
/// What the manager says of a request as a whole.
std::string FormatResult(const std::string& request, ps_messages_ns::SubscriptionResult::Value result);
/// What a component has answered.
std::string FormatComponentResult(const std::string& request, ps_messages_ns::SubscriptionResult::Value result,
                                  CompositeComponentType::Type component, const PriceFormat& format);
std::string FormatConflated(const std::string& instrument, std::int32_t depth, std::uint64_t count);
std::string FormatGap(const std::string& instrument, std::uint64_t lost);
std::string FormatRenamed(const std::string& instrument, const std::string& symbol, std::uint64_t epoch);

/// The clock on the wall, in nanoseconds since 1970 UTC.
std::uint64_t GetTime_ns();

} // namespace ps_ns::gateway
