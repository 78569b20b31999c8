#include "http_api.h"

#include "client_session.h"
#include "gateway/protocol.h"
#include "gateway_metrics.h"
#include "metrics/metrics.h"

#include <boost/json.hpp>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <sstream>

namespace ps_ns::gateway
{

namespace json = boost::json;

namespace
{

constexpr std::size_t kMostListed = 20'000;

std::string ToLower(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

HttpAnswer MakeJson(const json::value& value)
{
    HttpAnswer answer;
    answer.body = json::serialize(value);
    return answer;
}

/// Nothing when the parameter is there and is no such number.
std::optional<std::size_t> GetNumber(const HttpQuery& query, std::string_view name, std::size_t absent)
{
    const std::string text = query.GetParameter(name);
    if (text.empty())
    {
        return absent;
    }
    std::size_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() ? std::optional<std::size_t>(number) : std::nullopt;
}

json::object ToObject(const ServerPlace& place)
{
    return {{"server", place.server},
            {"address", place.address.empty() ? json::value(nullptr) : json::value(place.address)},
            {"shards", json::array(place.shards.begin(), place.shards.end())}};
}

json::value ToValue(const std::optional<ShardsView>& shards)
{
    if (!shards)
    {
        return nullptr;
    }
    json::array servers;
    for (const ServerPlace& server : shards->servers)
    {
        servers.push_back(ToObject(server));
    }
    return json::object{{"count", shards->count}, {"servers", std::move(servers)}};
}

json::value ToValue(const std::optional<ShardPlace>& place)
{
    if (!place)
    {
        return nullptr;
    }
    return json::object{{"number", place->shard},
                        {"is_here", place->isHere},
                        {"served_by", place->server ? json::value(ToObject(*place->server)) : json::value(nullptr)}};
}

json::object ToObject(const SessionView& view)
{
    return {{"session", view.number},
            {"remote", view.remote},
            {"token", view.token},
            {"since_ns", std::to_string(view.since_ns)},
            {"subscriptions", view.subscriptions},
            {"unsent_bytes", view.unsent_bytes},
            {"lag_ms", view.oldestUnsent_ms},
            {"sent_bytes", view.sent_bytes},
            {"sent_messages", view.sentMessages},
            {"conflated", view.conflated},
            {"lost_trades", view.lostTrades}};
}

} // namespace

HttpApi::HttpApi(GatewayCore& core, const StaticFiles& files, std::function<void(std::function<void()>)> post)
    : m_core(core)
    , m_files(files)
    , m_post(std::move(post))
    , m_started_ns(GetTime_ns())
{
}

void HttpApi::Handle(const HttpQuery& query, const Respond& respond)
{
    ++m_core.Counts().requests;
    const auto isUnder = [&](std::string_view folder) { return query.path.starts_with(folder); };
    if (query.path == "/-/healthy")
    {
        return respond({200, "text/plain; charset=utf-8", "healthy\n", {}});
    }
    if (query.path == "/-/ready")
    {
        const bool isReady = m_core.GetBackend().IsReady();
        return respond({isReady ? 200U : 503U, "text/plain; charset=utf-8", isReady ? "ready\n" : "not ready\n", {}});
    }
    if (query.path != "/metrics" && !isUnder("/api/"))
    {
        return respond(GetFile(query));
    }
    if (!query.identity)
    {
        return respond(MakeHttpError(401, "unauthenticated", "Authorization", "a token is needed"));
    }
    if (!m_core.AdmitRequest())
    {
        ++m_core.Counts().refusedRequests;
        return respond(MakeTooManyRequests());
    }
    if (query.path == "/api/v1/instruments")
    {
        return respond(GetInstruments(query));
    }
    const bool isKnown = query.path == "/metrics" || query.path == "/api/v1/status" ||
                         query.path == "/api/v1/sessions" || query.path == "/api/v1/subscriptions" ||
                         query.path == "/api/v1/explain";
    if (!isKnown)
    {
        return respond(MakeHttpError(404, "not_found", query.path, "there is nothing here"));
    }
    if (!query.identity->rights.operations)
    {
        return respond(MakeHttpError(403, "forbidden", query.path, "this token does not open the operations pages"));
    }
    if (query.path == "/api/v1/subscriptions")
    {
        return GetSubscriptions(query, respond);
    }
    if (query.path == "/api/v1/explain")
    {
        return Explain(query, respond);
    }
    respond(query.path == "/metrics" ? GetMetrics() : query.path == "/api/v1/status" ? GetStatus() : GetSessions());
}

HttpAnswer HttpApi::GetMetrics() const
{
    return {200, "text/plain; version=0.0.4; charset=utf-8", WriteMetrics(m_core), {}};
}

HttpAnswer HttpApi::GetStatus() const
{
    json::object gauges;
    for (const auto& [name, value] : ReadGauges())
    {
        gauges[name] = value;
    }
    json::array markets;
    for (const Market& market : m_core.GetBackend().GetMarkets().GetAll())
    {
        markets.push_back(json::object{{"id", market.id},
                                       {"name", market.name},
                                       {"default_depth", market.defaultDepth},
                                       {"max_depth", market.maxDepth}});
    }
    json::array providers;
    for (const ProviderView& provider : m_core.GetBackend().GetProviders())
    {
        providers.push_back(
            json::object{{"name", provider.name}, {"state", provider.state}, {"instruments", provider.instruments}});
    }
    const GatewayCounts& counts = m_core.Counts();
    return MakeJson(json::object{{"server", "price_server"},
                                 {"version", m_core.GetOptions().version},
                                 {"build", m_core.GetOptions().build},
                                 {"started_ns", std::to_string(m_started_ns)},
                                 {"time_ns", std::to_string(GetTime_ns())},
                                 {"ready", m_core.GetBackend().IsReady()},
                                 {"sessions", counts.sessions.load()},
                                 {"sessions_ever", counts.sessionsEver.load()},
                                 {"instruments", m_core.GetInstruments().size()},
                                 {"providers", std::move(providers)},
                                 {"shards", ToValue(m_core.GetBackend().GetShards())},
                                 {"markets", std::move(markets)},
                                 {"gauges", std::move(gauges)}});
}

HttpAnswer HttpApi::GetInstruments(const HttpQuery& query) const
{
    const auto limit = GetNumber(query, "limit", 100);
    const auto offset = GetNumber(query, "offset", 0);
    if (!limit || *limit > kMostListed)
    {
        return MakeHttpError(400, "bad_value", "limit", "a whole number from 0 to 20000 expected");
    }
    if (!offset)
    {
        return MakeHttpError(400, "bad_value", "offset", "a whole number expected");
    }
    const std::string search = ToLower(query.GetParameter("search"));
    const std::string market = query.GetParameter("market");
    json::array listed;
    std::size_t total = 0;
    for (const ListedInstrument& instrument : m_core.GetInstruments())
    {
        const bool matches = (market.empty() || instrument.market == market) &&
                             query.identity->rights.Opens(instrument.market) &&
                             (search.empty() || ToLower(instrument.GetName()).find(search) != std::string::npos);
        if (matches && total++ >= *offset && listed.size() < *limit)
        {
            listed.push_back(json::object{{"instrument", instrument.GetName()},
                                          {"market", instrument.market},
                                          {"symbol", instrument.entry.symbol},
                                          {"exchange", instrument.entry.exchange},
                                          {"description", instrument.entry.description},
                                          {"direct", instrument.hasDirect},
                                          {"implied", instrument.hasImplied}});
        }
    }
    return MakeJson(json::object{{"total", total}, {"instruments", std::move(listed)}});
}

HttpAnswer HttpApi::GetSessions() const
{
    json::array sessions;
    for (const auto& session : m_core.GetSessions())
    {
        sessions.push_back(ToObject(session->GetView()));
    }
    return MakeJson(json::object{{"sessions", std::move(sessions)}});
}

void HttpApi::Explain(const HttpQuery& query, const Respond& respond)
{
    const std::string name = query.GetParameter("instrument");
    if (name.empty())
    {
        return respond(MakeHttpError(400, "bad_value", "instrument", "MARKET:SYMBOL expected"));
    }
    const FoundInstrument found = m_core.FindInstrument(name, query.identity->rights);
    if (!found.instrument && !m_core.GetBackend().IsReady())
    {
        return respond(
            MakeHttpError(503, "not_ready", "instrument", found.problem + "; the server is starting or stopping"));
    }
    if (!found.instrument)
    {
        return respond(MakeHttpError(404, "unknown_instrument", "instrument", found.problem));
    }
    const CompositeInstrumentDef def = MakeDefinition(*found.instrument);
    const CompositeInstrumentID identity(def);
    json::object head{{"instrument", found.instrument->GetName()},
                      {"exchange", found.instrument->entry.exchange},
                      {"identity",
                       {{"instrument_id", std::to_string(identity.instrumentId)},
                        {"market_id", identity.marketId},
                        {"submarket_id", identity.submarketId}}},
                      {"direct", found.instrument->hasDirect},
                      {"implied", found.instrument->hasImplied},
                      {"shard", ToValue(m_core.GetBackend().FindShard(found.instrument->entry))}};
    ReadSubscriptions(
        [text = json::serialize(head)](const std::string& subscriptions)
        {
            std::string body = text.substr(0, text.size() - 1) + ",\"subscriptions\":" + subscriptions + "}";
            return HttpAnswer{200, "application/json", std::move(body), {}};
        },
        respond, [identity](const CompositeInstrumentDef& other) { return CompositeInstrumentID(other) == identity; });
}

HttpAnswer HttpApi::GetFile(const HttpQuery& query) const
{
    const StaticFile* const file = m_files.Find(query.path);
    if (file == nullptr)
    {
        if (query.path == "/" && m_files.IsEmpty())
        {
            return {
                200,
                "text/plain; charset=utf-8",
                "price_server runs; its page has not been built. Prices: WebSocket at /ws. Operations: /api/v1/status, "
                "/metrics.\n",
                {}};
        }
        return MakeHttpError(404, "not_found", query.path, "there is nothing here");
    }
    const bool isGzipped = query.acceptsGzip && !file->gzipped.empty();
    const std::string& etag = isGzipped ? file->gzippedEtag : file->etag;
    HttpAnswer answer{200, file->type, "", {{"ETag", etag}, {"Vary", "Accept-Encoding"}}};
    answer.headers.emplace_back("Cache-Control",
                                file->isImmutable ? "public, max-age=31536000, immutable" : "no-cache");
    if (query.ifNoneMatch == etag)
    {
        answer.status = 304;
        return answer;
    }
    if (isGzipped)
    {
        answer.headers.emplace_back("Content-Encoding", "gzip");
        answer.body = file->gzipped;
        return answer;
    }
    answer.body = file->content;
    return answer;
}

} // namespace ps_ns::gateway
