#include "price_client/program.h"

#include "price_client/book.h"
#include "price_client/client_error.h"
#include "price_client/completion.h"
#include "price_client/connection.h"
#include "price_client/reports.h"
#include "price_commands.h"
#include "server/stop_signals.h"

#include <boost/json.hpp>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>

namespace ps_ns::price_client
{

namespace json = boost::json;

namespace
{

constexpr std::size_t kPage = 20'000; // the server gives no more at a time
constexpr unsigned kHttpOk = 200;

/// A reader that has gone has got what it wanted.
void Print(std::string_view text)
{
    const bool isWritten = std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0;
    if (!isWritten && errno != EPIPE)
    {
        throw ClientError(ExitCode::Failure, std::string("standard output cannot be written: ") + std::strerror(errno));
    }
}

json::object ReadObject(const Access& access, const std::string& body)
{
    boost::system::error_code error;
    json::value value = json::parse(body, error);
    if (error || !value.is_object())
    {
        throw ClientError(ExitCode::Failure, access.url.GetPlace() + " answers what no price server does: " +
                                                 (error ? error.message() : "no JSON object"));
    }
    return std::move(value.get_object());
}

/// Asks for pages over HTTP; a signal ends it.
class Asker
{
public:
    explicit Asker(const Access& access)
        : m_access(access)
        , m_signals([this] { m_loop.RequestStop(); }, [] {})
    {
    }

    std::string Ask(const std::string& target)
    {
        try
        {
            HttpReply reply = Get(m_loop, m_access, target);
            if (reply.status != kHttpOk)
            {
                throw MakeReplyError(m_access, reply);
            }
            return std::move(reply.body);
        }
        catch (const ClientError&)
        {
            if (m_signals.IsStopRequested())
            {
                throw ClientError(ExitCode::Failure, "interrupted");
            }
            throw;
        }
    }
    json::object AskForObject(const std::string& target) { return ReadObject(m_access, Ask(target)); }

private:
    const Access& m_access;
    Loop m_loop;
    StopSignals m_signals;
};

void PrintReport(const Options& options, const std::string& target, std::string (*format)(const json::object&))
{
    Asker asker(options.access);
    if (options.writesJson)
    {
        return Print(asker.Ask(target) + "\n");
    }
    Print(format(asker.AskForObject(target)));
}

/// All of them, however many pages they are.
json::array AskForInstruments(const Options& options)
{
    Asker asker(options.access);
    json::array all;
    const std::size_t limit = options.limit.value_or(static_cast<std::size_t>(-1));
    for (std::size_t total = 1; all.size() < std::min(limit, total);)
    {
        const std::string target = "/api/v1/instruments?search=" + EncodeQueryValue(options.search) +
                                   "&market=" + EncodeQueryValue(options.market) +
                                   "&limit=" + std::to_string(std::min(kPage, limit - all.size())) +
                                   "&offset=" + std::to_string(all.size());
        const json::object page = asker.AskForObject(target);
        const json::value* const listed = page.if_contains("instruments");
        total = ReadNumber(page, "total");
        if (listed == nullptr || !listed->is_array())
        {
            throw ClientError(ExitCode::Failure, options.access.url.GetPlace() + " lists no instruments");
        }
        all.insert(all.end(), listed->get_array().begin(), listed->get_array().end());
        if (listed->get_array().empty())
        {
            break;
        }
    }
    return all;
}

void PrintInstruments(const Options& options)
{
    const json::array instruments = AskForInstruments(options);
    Print(options.writesJson    ? FormatLines(instruments)
          : options.writesNames ? FormatNames(instruments)
                                : FormatInstruments(instruments));
}

void WarnOfOpenToken(const Access& access)
{
    if (!access.token.empty() && !access.url.isEncrypted && !access.url.IsLoopback())
    {
        std::fprintf(stderr, "price_client: the token goes to %s unencrypted: https:// hides it\n",
                     access.url.GetPlace().c_str());
    }
}

void RunAsAsked(const Options& options)
{
    switch (options.command)
    {
    case Command::Watch:
        return RunWatch(options);
    case Command::Subscribe:
        return RunSubscribe(options);
    case Command::Instruments:
        return PrintInstruments(options);
    case Command::Status:
        return PrintReport(options, "/api/v1/status", &FormatStatus);
    case Command::Explain:
        return PrintReport(options, "/api/v1/explain?instrument=" + EncodeQueryValue(options.instruments.at(0)),
                           &FormatExplanation);
    case Command::Completion:
        return Print(GetCompletionScript(options.shell));
    }
}

int Fail(ExitCode code, const char* text)
{
    std::fprintf(stderr, "price_client: %s\n", text);
    return static_cast<int>(code);
}

} // namespace

int RunProgram(const Options& options)
{
    try
    {
        WarnOfOpenToken(options.access);
        RunAsAsked(options);
        return static_cast<int>(ExitCode::Ok);
    }
    catch (const ClientError& error)
    {
        return Fail(error.GetExitCode(), error.what());
    }
    catch (const std::exception& error)
    {
        return Fail(ExitCode::Failure, error.what());
    }
}

} // namespace ps_ns::price_client
