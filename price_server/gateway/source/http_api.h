#pragma once

#include "access.h"
#include "gateway_core.h"
#include "static_files.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
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
HttpAnswer MakeTooManyRequests();

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
    /// Who still waits for an answer is told that the server stops, and so is who asks from now on.
    void EndReadings();

private:
    HttpAnswer GetMetrics() const;
    HttpAnswer GetStatus() const;
    HttpAnswer GetInstruments(const HttpQuery& query) const;
    HttpAnswer GetSessions() const;
    void GetSubscriptions(const HttpQuery& query, const Respond& respond);
    void Explain(const HttpQuery& query, const Respond& respond);
    HttpAnswer GetFile(const HttpQuery& query) const;

    class Reading;
    /// Who waits for what is read on the data-queue thread.
    struct Asked
    {
        std::uint64_t number;
        Respond respond;
        std::shared_ptr<Reading> reading; ///< null: it has begun
    };
    /// Those that wait; more are told to come again.
    static constexpr std::size_t kMostAsked = 32;

    /// Reads the composite subscriptions on the data-queue thread, one list after another: those that `matches` wants.
    void ReadSubscriptions(std::function<HttpAnswer(std::string)> make, const Respond& respond,
                           std::function<bool(const CompositeInstrumentDef&)> matches);
    void BeginReading();
    /// Nothing happens when nobody waits for it any more.
    void Answer(std::uint64_t number, HttpAnswer answer);

    GatewayCore& m_core;
    const StaticFiles& m_files;
    const std::function<void(std::function<void()>)> m_post;
    const std::uint64_t m_started_ns;
    std::uint64_t m_lastReading = 0;
    std::deque<Asked> m_asked; ///< the first is being read
    bool m_isEnding = false;
};

} // namespace ps_ns::gateway
