#pragma once

#include "access.h"
#include "gateway_core.h"
#include "static_files.h"

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace ps_ns::gateway
{

/// A request as the pages see it. What is in it has been checked for form, not for sense.
struct HttpQuery
{
    std::string path; ///< decoded, without the query
    std::map<std::string, std::string, std::less<>> parameters;
    std::optional<Identity> identity; ///< empty: a token is demanded, and none was shown
    bool acceptsGzip = false;
    std::string ifNoneMatch;

    /// Empty when there is none.
    std::string GetParameter(std::string_view name) const
    {
        const auto found = parameters.find(name);
        return found == parameters.end() ? "" : found->second;
    }
};

struct HttpAnswer
{
    unsigned status = 200;
    std::string type = "application/json";
    std::string body;
    std::vector<std::pair<std::string, std::string>> headers;
};

/// Splits a request's target; false: it is no path of this server.
bool ParseTarget(std::string_view target, HttpQuery& query);

HttpAnswer MakeHttpError(unsigned status, const std::string& code, const std::string& where,
                         const std::string& message);

/// Everything that is served over HTTP: the page, health, metrics, and what operators ask.
///
/// Threads: the gateway's I/O thread. What only the data-queue thread may read is asked there, and answered on the I/O
/// thread.
class HttpApi
{
public:
    using Respond = std::function<void(HttpAnswer)>;

    /// `post` runs a task on the I/O thread.
    HttpApi(GatewayCore& core, const StaticFiles& files, std::function<void(std::function<void()>)> post);

    /// Calls `respond` once, perhaps later, unless the server stops meanwhile.
    void Handle(const HttpQuery& query, const Respond& respond);

private:
    HttpAnswer GetMetrics() const;
    HttpAnswer GetStatus() const;
    HttpAnswer GetInstruments(const HttpQuery& query) const;
    HttpAnswer GetSessions() const;
    void GetSubscriptions(const HttpQuery& query, const Respond& respond);
    void Explain(const HttpQuery& query, const Respond& respond);
    HttpAnswer GetFile(const HttpQuery& query) const;
    class Reading;
    /// Reads the composite subscriptions on the data-queue thread: those of an identity, or all.
    void ReadSubscriptions(std::function<HttpAnswer(std::string)> make, const Respond& respond,
                           std::function<bool(const CompositeInstrumentDef&)> matches);

    void Answer(std::uint64_t reading, HttpAnswer answer);

    GatewayCore& m_core;
    const StaticFiles& m_files;
    const std::function<void(std::function<void()>)> m_post;
    const std::uint64_t m_started_ns;
    std::uint64_t m_lastReading = 0;
    std::unordered_map<std::uint64_t, Respond> m_awaiting; ///< by number of the reading
};

} // namespace ps_ns::gateway
