#include "client_session.h"

#include "gateway_core.h"
#include "price_unifier/source/composite_subscription_mgr.h"

#include <algorithm>
#include <type_traits>
#include <utility>

namespace ps_ns::gateway
{
namespace
{

constexpr std::uint16_t kPolicyViolation = 1008;

/// What a refusal of any request repeats; nothing when there is none, or it could not be read.
std::optional<std::string> GetId(const Request& request)
{
    return std::visit(
        [](const auto& known) -> std::optional<std::string>
        {
            if constexpr (std::is_same_v<std::decay_t<decltype(known)>, AuthenticateRequest>)
            {
                return std::nullopt;
            }
            else
            {
                return known.request;
            }
        },
        request);
}

} // namespace

ClientSession::ClientSession(GatewayCore& core, std::uint64_t number, std::string remote,
                             std::optional<Identity> identity, std::function<void()> onOutput)
    : m_core(core)
    , m_number(number)
    , m_remote(std::move(remote))
    , m_since_ns(GetTime_ns())
    , m_identity(std::move(identity))
    , m_onOutput(std::move(onOutput))
    , m_out(core.GetOptions().limits.conflate_bytes, core.GetOptions().limits.close_bytes)
    , m_rate(core.GetOptions().limits.requests_per_second, Clock::now())
{
}

ClientSession::~ClientSession()
{
    End();
}

void ClientSession::Start()
{
    m_out.Push(
        FormatHello(m_number, m_core.GetOptions(), IsAuthenticated(), m_identity ? m_identity->rights : Rights{}));
}

void ClientSession::End()
{
    if (std::exchange(m_hasEnded, true))
    {
        return;
    }
    for (const auto& [id, subscription] : m_subscriptions)
    {
        m_core.GetSlots().Remove(id);
        m_core.Unsubscribe(subscription.def, subscription.subscriber, id);
    }
    m_subscriptions.clear();
    m_idByRequest.clear();
    m_waiting.clear();
    m_out.Clear();
}

void ClientSession::EndWith(std::uint16_t code, std::string reason)
{
    if (!m_end)
    {
        m_end = SessionEnd{code, std::move(reason)};
    }
}

// --- Requests --------------------------------------------------------------------------------------------------------

void ClientSession::OnMessage(std::string_view message)
{
    // Thousands of short lines make more answers than they have bytes: what nobody can be sent is not made.
    while (!message.empty() && !m_end && !m_hasEnded && !m_out.IsOverfull())
    {
        const std::size_t end = message.find('\n');
        const std::string_view line = message.substr(0, end);
        message.remove_prefix(end == std::string_view::npos ? message.size() : end + 1);
        if (line.find_first_not_of(" \t\r") != std::string_view::npos)
        {
            HandleLine(line);
        }
    }
    Settle();
}

void ClientSession::HandleLine(std::string_view line)
{
    const Request request = ParseRequest(line);
    if (!m_rate.Take(Clock::now()))
    {
        return Handle(RequestError{GetId(request), "too_many_requests", "",
                                   "more than " + std::to_string(m_core.GetOptions().limits.requests_per_second) +
                                       " requests a second"});
    }
    // What is no request at all may be a token that was sent wrongly: the client is told what is wrong with it.
    const bool isAllowed = IsAuthenticated() || std::holds_alternative<AuthenticateRequest>(request) ||
                           std::holds_alternative<RequestError>(request);
    if (!isAllowed)
    {
        return Handle(RequestError{GetId(request), "unauthenticated", "", "a token must come first"});
    }
    std::visit([this](const auto& known) { Handle(known); }, request);
}

void ClientSession::Handle(const RequestError& error)
{
    m_out.Push(FormatError(error));
}

void ClientSession::Refuse(const std::string& request, const char* code, const char* where, std::string message)
{
    Handle(RequestError{request, code, where, std::move(message)});
}

void ClientSession::Handle(const PingRequest& request)
{
    m_out.Push(FormatPong(request.request));
}

void ClientSession::Handle(const AuthenticateRequest& request)
{
    if (IsAuthenticated())
    {
        return Handle(RequestError{std::nullopt, "bad_type", "type", "this session needs no token any more"});
    }
    m_identity = m_core.GetAccess().Check(request.token);
    if (!m_identity)
    {
        m_core.CountRefusedToken();
        return EndWith(kPolicyViolation, "wrong token");
    }
    m_out.Push(FormatAuthenticated(m_identity->rights));
}

ClientSession::Subscription* ClientSession::FindByRequest(const std::string& request)
{
    const auto id = m_idByRequest.find(request);
    return id == m_idByRequest.end() ? nullptr : &m_subscriptions.at(id->second);
}

const ClientSession::Subscription* ClientSession::FindStream(const std::string& instrument, std::int32_t depth,
                                                             const Subscription* except) const
{
    const auto found = std::find_if(m_subscriptions.begin(), m_subscriptions.end(),
                                    [&](const auto& entry)
                                    {
                                        const Subscription& subscription = entry.second;
                                        return &subscription != except && subscription.scope.depth == depth &&
                                               subscription.stream->GetInstrument() == instrument;
                                    });
    return found == m_subscriptions.end() ? nullptr : &found->second;
}

void ClientSession::RefuseDuplicate(const std::string& request, const Subscription& other)
{
    Handle(RequestError{request, "duplicate_subscription", "depth",
                        "this session's subscription called \"" + other.request + "\" is of " +
                            other.stream->GetInstrument() + " with depth " + std::to_string(other.scope.depth) +
                            " already",
                        other.request});
}

std::int32_t ClientSession::ResolveDepth(short marketId, std::int32_t depth) const
{
    const Market& market = m_core.GetBackend().GetMarkets().Get(marketId);
    const auto most = static_cast<std::int32_t>(std::min<unsigned>(market.maxDepth, kMaxDepth));
    if (depth == CompositeSubscriptionInfo::kDefaultDepth)
    {
        return std::min(static_cast<std::int32_t>(market.defaultDepth), most);
    }
    return depth == CompositeSubscriptionInfo::kMaxDepth ? most : std::min(depth, most);
}

void ClientSession::Handle(const SubscribeRequest& request)
{
    const Limits& limits = m_core.GetOptions().limits;
    if (FindByRequest(request.request) != nullptr)
    {
        return Refuse(request.request, "duplicate_request", "request",
                      "a subscription is called \"" + request.request + "\" already");
    }
    if (m_subscriptions.size() >= limits.subscriptions)
    {
        return Refuse(request.request, "too_many_subscriptions", "",
                      "a session has at most " + std::to_string(limits.subscriptions) + " subscriptions");
    }
    const FoundInstrument found = m_core.FindInstrument(request.instrument, m_identity->rights);
    if (!found.instrument && !m_core.GetBackend().IsReady())
    {
        return Refuse(request.request, "not_ready", "instrument",
                      found.problem + "; the server is starting or stopping");
    }
    if (!found.instrument)
    {
        return Refuse(request.request, "unknown_instrument", "instrument", found.problem);
    }
    const std::string name = found.instrument->GetName();
    if (!m_identity->rights.Opens(found.instrument->market))
    {
        return Refuse(request.request, "forbidden", "instrument",
                      "this token does not open the market " + found.instrument->market);
    }
    Subscription subscription;
    subscription.def = MakeDefinition(*found.instrument);
    subscription.entry = found.instrument->entry;
    subscription.scope = {ResolveDepth(subscription.def.marketId, request.depth), request.interval_ms,
                          request.kinds.trades, request.kinds.fields};
    if (const Subscription* const other = FindStream(name, subscription.scope.depth, nullptr))
    {
        return RefuseDuplicate(request.request, *other);
    }
    subscription.id = m_core.GetSlots().Add(*this);
    subscription.request = request.request;
    subscription.kinds = request.kinds;
    subscription.stream = m_core.GetStream(name, subscription.scope.depth);
    subscription.subscriber = std::make_shared<Subscriber>("gateway-" + std::to_string(m_number), request.request,
                                                           m_core.GetMailbox(subscription.def), weak_from_this());
    if (!m_core.Subscribe(subscription.def, subscription.entry, subscription.scope, subscription.subscriber,
                          subscription.id))
    {
        m_core.GetSlots().Remove(subscription.id);
        return Refuse(request.request, "not_ready", "", "the server is starting or stopping");
    }
    m_out.Push(FormatAccepted(request.request, name, subscription.scope.depth));
    const unsigned long id = subscription.id;
    m_idByRequest[request.request] = id;
    m_core.GetSlots().Set(id, m_subscriptions.emplace(id, std::move(subscription)).first->second);
}

void ClientSession::Handle(const ChangeRequest& request)
{
    Subscription* const subscription = FindByRequest(request.subscription);
    if (subscription == nullptr)
    {
        return Refuse(request.request, "unknown_subscription", "subscription",
                      "no subscription is called \"" + request.subscription + "\"");
    }
    CompositeSubscriptionInfo scope = subscription->scope;
    const Kinds kinds = request.kinds.value_or(subscription->kinds);
    scope.depth = request.depth ? ResolveDepth(subscription->def.marketId, *request.depth) : scope.depth;
    scope.conflationInterval_ms = request.interval_ms.value_or(scope.conflationInterval_ms);
    scope.trades = kinds.trades;
    scope.customFields = kinds.fields;
    const std::string& name = subscription->stream->GetInstrument();
    if (const Subscription* const other = FindStream(name, scope.depth, subscription))
    {
        return RefuseDuplicate(request.request, *other);
    }
    const bool needsImage =
        request.image || scope.depth != subscription->scope.depth || (kinds.book && !subscription->kinds.book);
    subscription->subscriber->SetRequest(request.request);
    // The manager's snapshot would be a second image, but for levels that the latest book does not have.
    const bool needsSnapshot =
        needsImage && (subscription->latest == nullptr || scope.depth > subscription->scope.depth);
    if (!m_core.ChangeScope(subscription->def, scope, subscription->subscriber, subscription->id, needsSnapshot))
    {
        return Refuse(request.request, "not_ready", "", "the server is starting or stopping");
    }
    m_out.Push(FormatAccepted(request.request, name, scope.depth));
    subscription->kinds = kinds;
    subscription->scope = scope;
    subscription->stream = m_core.GetStream(name, scope.depth);
    if (needsImage || !kinds.book)
    {
        subscription->waiting.reset();
        subscription->skipped = kinds.book ? subscription->skipped : 0;
    }
    if (!kinds.fields)
    {
        subscription->waitingFields.reset();
    }
    if (needsImage)
    {
        // The newest book there is comes at once: the manager sends a snapshot only when the merged scope stays.
        subscription->sent.reset();
        if (subscription->latest != nullptr && kinds.book)
        {
            OnBook(*subscription, subscription->latest);
        }
    }
}

void ClientSession::Handle(const UnsubscribeRequest& request)
{
    Subscription* const subscription = FindByRequest(request.subscription);
    if (subscription == nullptr)
    {
        return Refuse(request.request, "unknown_subscription", "subscription",
                      "no subscription is called \"" + request.subscription + "\"");
    }
    subscription->subscriber->SetRequest(request.request);
    m_core.Unsubscribe(subscription->def, subscription->subscriber, subscription->id);
    const unsigned long id = subscription->id;
    m_core.GetSlots().Remove(id);
    m_idByRequest.erase(request.subscription);
    m_subscriptions.erase(id);
    m_out.Push(FormatAccepted(request.request, "", 0));
}

} // namespace ps_ns::gateway
