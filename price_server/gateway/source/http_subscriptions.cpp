#include "gateway/component_name.h"
#include "gateway/protocol.h"
#include "http_api.h"
#include "price_unifier/source/composite_instrument_subscription.h"
#include "price_unifier/source/composite_subscription_mgr.h"
#include "simple_subscription/simple_subscription_mgr.h"

#include <boost/json.hpp>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace ps_ns::gateway
{

namespace json = boost::json;
using ps_messages_ns::SubscriptionResult;

namespace
{

const char* GetProviderName(ProviderType::Value provider)
{
    return provider == ProviderType::Mds ? "mds" : "zel";
}

json::object ToObject(const CompositeSubscriptionInfo& scope)
{
    return {{"depth", scope.depth},
            {"interval_ms", scope.conflationInterval_ms},
            {"trades", scope.trades},
            {"fields", scope.customFields}};
}

json::object ToObject(SubscriptionResult::Value result)
{
    return {{"code", static_cast<int>(result)},
            {"name", SubscriptionResult::GetName(result)},
            {"meaning", SubscriptionResult::GetMeaning(result)}};
}

json::array GetComponents(const CompositeInstrumentSubscription& subscription)
{
    json::array components;
    for (const auto type : kComponents)
    {
        const ComponentView view = subscription.GetComponentView(type);
        if (view.isWanted)
        {
            components.push_back(json::object{{"component", GetComponentName(type)},
                                              {"symbol", view.symbol},
                                              {"provider", GetProviderName(view.provider)},
                                              {"is_final", view.isDecided},
                                              {"is_subscribed", view.isSubscribed},
                                              {"result", ToObject(view.result)}});
        }
    }
    return components;
}

json::object ToObject(const CompositeInstrumentSubscription& subscription, const MarketTable& markets)
{
    const CompositeInstrumentDef& def = subscription.GetDefinition();
    json::array holders;
    subscription.ForEachScope(
        [&](unsigned long id, const CompositeSubscriptionInfo& scope, const std::string& holder) {
            holders.push_back(json::object{{"id", id}, {"holder", holder}, {"scope", ToObject(scope)}});
        });
    const auto time_ns = subscription.GetLastUpdateTime_ns();
    return {
        {"instrument", markets.Get(def.marketId).name + ":" + def.GetSymbol()},
        {"symbol", subscription.GetSymbol()},
        {"provider", GetProviderName(subscription.GetProviderType())},
        {"state", subscription.GetLifeState() == CompositeInstrumentSubscription::Active ? "active" : "unsubscribed"},
        {"merged_scope", ToObject(subscription.GetMergedScope())},
        {"components", GetComponents(subscription)},
        {"holders", std::move(holders)},
        {"callbacks", subscription.GetCountsAsString()},
        {"last_update_ns", time_ns == 0 ? json::value(nullptr) : json::value(std::to_string(time_ns))}};
}

HttpAnswer MakeNotReady()
{
    return MakeHttpError(503, "not_ready", "", "the server is starting or stopping");
}

} // namespace

/// Reads the composite subscriptions in slices, each with an action of its own, so that requests get their turn between
/// them. What is made or dropped between two slices may be in the list or not, or twice.
///
/// Threads: the data-queue thread, once it has begun.
/// Failure: when it is dropped before it is done, as by a server that takes no actions any more, it answers 503.
class HttpApi::Reading : public std::enable_shared_from_this<Reading>
{
public:
    using Matches = std::function<bool(const CompositeInstrumentDef&)>;
    using Make = std::function<HttpAnswer(std::string)>;

    /// `make` gets what has been found, as a JSON array; `answer` is called once, on whatever thread lets go of it
    /// last.
    Reading(IBackend& backend, Matches matches, Make make, Respond answer)
        : m_backend(backend)
        , m_matches(std::move(matches))
        , m_make(std::move(make))
        , m_answer(std::move(answer))
    {
    }
    ~Reading() { m_answer(m_found ? std::move(*m_found) : MakeNotReady()); }
    Reading(const Reading&) = delete;
    Reading& operator=(const Reading&) = delete;

    void Go()
    {
        m_backend.RunOnQueue([self = shared_from_this()](CompositeSubscriptionMgr&, SimpleSubscriptionMgr& simple)
                             { self->ReadSlice(simple); });
    }

private:
    static constexpr std::size_t kSlice = 500;

    struct Row
    {
        std::string instrument;
        std::string text;
    };

    void ReadSlice(SimpleSubscriptionMgr& simple)
    {
        if (m_slice == 0)
        {
            m_slices = 1 + simple.GetRegistry().GetSize() / kSlice;
        }
        simple.GetRegistry().ForEach(
            [&](const EnrolledSubscription& enrolled)
            {
                if (IsInSlice(enrolled))
                {
                    Read(enrolled, simple.GetMarkets());
                }
            });
        if (++m_slice < m_slices)
        {
            Go();
            return;
        }
        m_found = m_make(Write());
    }

    bool IsInSlice(const EnrolledSubscription& enrolled) const
    {
        constexpr std::uint64_t kMix = 0x9E3779B97F4A7C15; // addresses come at even distances
        constexpr unsigned kHalf = 32;
        return (reinterpret_cast<std::uintptr_t>(&enrolled) * kMix >> kHalf) % m_slices == m_slice;
    }

    void Read(const EnrolledSubscription& enrolled, const MarketTable& markets)
    {
        const auto* const subscription = dynamic_cast<const CompositeInstrumentSubscription*>(&enrolled);
        if (subscription != nullptr && m_matches(subscription->GetDefinition()))
        {
            const json::object object = ToObject(*subscription, markets);
            m_rows.push_back({std::string(object.at("instrument").as_string()), json::serialize(object)});
        }
    }

    std::string Write()
    {
        std::sort(m_rows.begin(), m_rows.end(), [](const Row& a, const Row& b) { return a.instrument < b.instrument; });
        std::string text = "[";
        for (const Row& row : m_rows)
        {
            text.append(text.size() > 1 ? "," : "").append(row.text);
        }
        return text + "]";
    }

    IBackend& m_backend;
    const Matches m_matches;
    const Make m_make;
    const Respond m_answer;
    std::vector<Row> m_rows;
    std::optional<HttpAnswer> m_found; ///< once it is done
    std::size_t m_slice = 0;
    std::size_t m_slices = 1;
};

/// Who is to be answered stays on this thread: the last reference to a connection must not be dropped on another.
void HttpApi::ReadSubscriptions(std::function<HttpAnswer(std::string)> make, const Respond& respond,
                                std::function<bool(const CompositeInstrumentDef&)> matches)
{
    if (m_isEnding)
    {
        return respond(MakeNotReady());
    }
    if (m_asked.size() >= kMostAsked)
    {
        HttpAnswer answer = MakeHttpError(503, "busy", "", "too many lists are being read; try again later");
        answer.headers.emplace_back("Retry-After", "1");
        return respond(std::move(answer));
    }
    const std::uint64_t number = ++m_lastReading;
    auto reading = std::make_shared<Reading>(
        m_core.GetBackend(), std::move(matches), std::move(make),
        [this, number, post = m_post](HttpAnswer answer)
        { post([this, number, answer = std::move(answer)]() mutable { Answer(number, std::move(answer)); }); });
    m_asked.push_back({number, respond, std::move(reading)});
    if (m_asked.size() == 1)
    {
        BeginReading();
    }
}

void HttpApi::BeginReading()
{
    const std::shared_ptr<Reading> reading = std::move(m_asked.front().reading);
    reading->Go();
}

void HttpApi::Answer(std::uint64_t number, HttpAnswer answer)
{
    if (m_asked.empty() || m_asked.front().number != number)
    {
        return;
    }
    const Respond respond = std::move(m_asked.front().respond);
    m_asked.pop_front();
    if (!m_asked.empty())
    {
        BeginReading();
    }
    respond(std::move(answer));
}

void HttpApi::EndReadings()
{
    m_isEnding = true;
    for (const Asked& asked : std::exchange(m_asked, {}))
    {
        asked.respond(MakeNotReady());
    }
}

void HttpApi::GetSubscriptions(const HttpQuery& query, const Respond& respond)
{
    const std::string market = query.GetParameter("market");
    const std::string symbol = query.GetParameter("symbol");
    ReadSubscriptions(
        [](std::string found) {
            return HttpAnswer{200, "application/json", "{\"subscriptions\":" + std::move(found) + "}", {}};
        },
        respond,
        [market, symbol, markets = &m_core.GetBackend().GetMarkets()](const CompositeInstrumentDef& def)
        {
            return (symbol.empty() || def.GetSymbol() == symbol) &&
                   (market.empty() || markets->Get(def.marketId).name == market);
        });
}

} // namespace ps_ns::gateway
