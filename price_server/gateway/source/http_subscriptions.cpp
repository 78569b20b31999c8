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

} // namespace

/// Reads the composite subscriptions in slices, each with an action of its own, so that a long list holds up nobody's
/// requests. What is made or dropped between two slices may be in the list or not.
///
/// Threads: the data-queue thread, once it has begun.
class HttpApi::Reading : public std::enable_shared_from_this<Reading>
{
public:
    using Matches = std::function<bool(const CompositeInstrumentDef&)>;
    using Finish = std::function<void(std::string)>;

    /// `finish` gets what has been found, as a JSON array; on the data-queue thread.
    Reading(IBackend& backend, Matches matches, Finish finish)
        : m_backend(backend)
        , m_matches(std::move(matches))
        , m_finish(std::move(finish))
    {
    }

    /// False: the server takes no actions. One that stops drops what it has taken.
    bool Go()
    {
        return m_backend.RunOnQueue(
            [self = shared_from_this()](CompositeSubscriptionMgr&, SimpleSubscriptionMgr& simple)
            { self->ReadSlice(simple); });
    }

private:
    static constexpr std::size_t kSlice = 500;

    struct Found
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
        m_finish(Write());
    }

    bool IsInSlice(const EnrolledSubscription& enrolled) const
    {
        constexpr std::uintptr_t kBlock = 64; // of the heap; the bits below are the same for all
        return reinterpret_cast<std::uintptr_t>(&enrolled) / kBlock % m_slices == m_slice;
    }

    void Read(const EnrolledSubscription& enrolled, const MarketTable& markets)
    {
        const auto* const subscription = dynamic_cast<const CompositeInstrumentSubscription*>(&enrolled);
        if (subscription != nullptr && m_matches(subscription->GetDefinition()))
        {
            const json::object object = ToObject(*subscription, markets);
            m_found.push_back({std::string(object.at("instrument").as_string()), json::serialize(object)});
        }
    }

    std::string Write()
    {
        std::sort(m_found.begin(), m_found.end(),
                  [](const Found& a, const Found& b) { return a.instrument < b.instrument; });
        std::string text = "[";
        for (const Found& found : m_found)
        {
            text.append(text.size() > 1 ? "," : "").append(found.text);
        }
        return text + "]";
    }

    IBackend& m_backend;
    const Matches m_matches;
    const Finish m_finish;
    std::vector<Found> m_found;
    std::size_t m_slice = 0;
    std::size_t m_slices = 1;
};

/// Who is to be answered stays on this thread: the last reference to a connection must not be dropped on another.
void HttpApi::ReadSubscriptions(std::function<HttpAnswer(std::string)> make, const Respond& respond,
                                std::function<bool(const CompositeInstrumentDef&)> matches)
{
    const std::uint64_t number = ++m_lastReading;
    m_awaiting.emplace(number, respond);
    const auto reading = std::make_shared<Reading>(
        m_core.GetBackend(), std::move(matches),
        [this, number, make = std::move(make), post = m_post](std::string found)
        { post([this, number, answer = make(std::move(found))]() mutable { Answer(number, std::move(answer)); }); });
    if (!reading->Go())
    {
        Answer(number, MakeHttpError(503, "not_ready", "", "the server is starting or stopping"));
    }
}

void HttpApi::Answer(std::uint64_t reading, HttpAnswer answer)
{
    const auto found = m_awaiting.find(reading);
    const Respond respond = std::move(found->second);
    m_awaiting.erase(found);
    respond(std::move(answer));
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
