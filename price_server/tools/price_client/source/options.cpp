#include "price_client/options.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>

namespace ps_ns::price_client
{
namespace
{

constexpr const char* kDescription =
    "Asks a price server: prices as a ladder or as JSON lines, its instruments, its status.";

constexpr const char* kFooter = R"(
Data goes to standard output, talk to standard error. NO_COLOR is respected.

Environment:
  PRICE_SERVER_URL    the address, unless --url says it
  PRICE_SERVER_TOKEN  the token, unless --token-file says where it is

Exit codes:
  0    done, or ended as asked (a signal, a reader that has left, --count)
  1    failure (output cannot be written, the server answers nonsense)
  2    wrong command line
  3    cannot connect
  4    refused by the server
  5    not found: there is no such instrument
  130  a second signal came before the end was done

Examples:
  price_client watch SIM:GOLD-JUN27
  price_client subscribe --json SIM:GOLD-JUN27 | head -1
  price_client explain SIM:GOLD-JUN27
  source <(price_client completion bash))";

constexpr const char* kDefaultUrl = "http://127.0.0.1:8080";
constexpr std::size_t kLongestToken = 4096;
constexpr double kLongestTimeout_sec = 3600;

/// As the command line has it, before it is checked as a whole.
struct Raw
{
    std::string url = kDefaultUrl;
    std::string tokenFile;
    double timeout_sec = 5;
};

std::string CheckDepth(const std::string& text)
{
    int depth = 0;
    const bool isNumber = CLI::detail::lexical_cast(text, depth) && depth >= 1 && depth <= 1000;
    return isNumber || text == "default" || text == "max" ? ""
                                                          : "'" + text + "' is no depth: 1 to 1000, default or max";
}

std::string CheckTimeout(const std::string& text)
{
    double seconds = 0;
    const bool fits = CLI::detail::lexical_cast(text, seconds) && seconds >= 0.001 && seconds <= kLongestTimeout_sec;
    return fits ? "" : "'" + text + "' is not a number of seconds from 0.001 to 3600";
}

void AddAccessOptions(CLI::App& app, Raw& raw, Options& options)
{
    app.add_option("--url", raw.url, "address of the server (" + std::string(kDefaultUrl) + ")")
        ->envname("PRICE_SERVER_URL")
        ->type_name("URL");
    app.add_option("--token-file", raw.tokenFile, "file whose first line is the token")->type_name("FILE");
    app.add_option("--ca", options.access.caFile, "trust these certificates (PEM) instead of the system's")
        ->type_name("FILE");
    app.add_option("--timeout", raw.timeout_sec, "seconds to wait for a connection and for an answer (5)")
        ->check(CLI::Validator([](std::string& text) { return CheckTimeout(text); }, ""))
        ->type_name("SECONDS");
}

/// What commands with prices share.
CLI::App* AddPriceCommand(CLI::App& app, const char* name, const char* what, const char* defaultDepth, Options& options)
{
    CLI::App* const command = app.add_subcommand(name, what);
    command->add_option("instruments", options.instruments, "MARKET:SYMBOL, or SYMBOL when one market has it")
        ->required()
        ->type_name("INSTRUMENT");
    command
        ->add_option("--depth", options.depth,
                     "levels a side: a number, default or max (" + std::string(defaultDepth) + ")")
        ->check(CLI::Validator([](std::string& text) { return CheckDepth(text); }, ""))
        ->type_name("N");
    command
        ->add_option("--interval", options.interval_ms,
                     "milliseconds between two books of an instrument, at least; 0: every change")
        ->check(CLI::Range(0, 60000))
        ->type_name("MS");
    return command;
}

void AddCommands(CLI::App& app, Options& options)
{
    const auto chooses = [&options](CLI::App* command, Command what)
    { command->callback([&options, what] { options.command = what; }); };

    chooses(AddPriceCommand(app, "watch", "show books as ladders, redrawn in place", "10", options), Command::Watch);

    CLI::App* const subscribe = AddPriceCommand(
        app, "subscribe", "write updates, one JSON object a line, until a signal comes", "the market's own", options);
    auto* const json = subscribe->add_flag("--json", options.writesJson,
                                           "objects as they are received: images and updates (the default)");
    subscribe->add_flag("--books", options.writesBooks, "the whole book after each image and update")->excludes(json);
    subscribe->add_option("--kinds", options.kinds, "book, trades, fields; with commas between them (book)")
        ->delimiter(',')
        ->check(CLI::IsMember({"book", "trades", "fields"}))
        ->type_name("KINDS");
    subscribe->add_option("--count", options.count, "end after so many lines")
        ->check(CLI::Range(std::uint64_t{1}, std::uint64_t{1} << 62))
        ->type_name("N");
    chooses(subscribe, Command::Subscribe);

    CLI::App* const instruments = app.add_subcommand("instruments", "list the instruments that the token opens");
    instruments->add_option("--search", options.search, "only those with this text in their name")->type_name("TEXT");
    instruments->add_option("--market", options.market, "only those of this market")->type_name("MARKET");
    instruments->add_option("--limit", options.limit, "at most so many")->type_name("N");
    auto* const names = instruments->add_flag("--names", options.writesNames, "names only, one a line");
    instruments->add_flag("--json", options.writesJson, "one JSON object a line")->excludes(names);
    chooses(instruments, Command::Instruments);

    CLI::App* const status = app.add_subcommand("status", "show what the server is and how it does");
    status->add_flag("--json", options.writesJson, "the server's answer as it is");
    chooses(status, Command::Status);

    CLI::App* const explain = app.add_subcommand("explain", "say why an instrument shows what it shows");
    explain->add_option("instrument", options.instruments, "MARKET:SYMBOL, or SYMBOL when one market has it")
        ->required()
        ->expected(1)
        ->type_name("INSTRUMENT");
    explain->add_flag("--json", options.writesJson, "the server's answer as it is");
    chooses(explain, Command::Explain);

    CLI::App* const completion = app.add_subcommand("completion", "write a shell's completion script");
    completion->add_option("shell", options.shell, "bash, zsh or fish")
        ->required()
        ->check(CLI::IsMember({"bash", "zsh", "fish"}))
        ->type_name("SHELL");
    chooses(completion, Command::Completion);
}

void CheckToken(const std::string& token, const std::string& place)
{
    if (token.empty())
    {
        throw ClientError(ExitCode::Usage, place + " is empty: a token expected");
    }
    if (token.size() > kLongestToken ||
        std::any_of(token.begin(), token.end(), [](char c) { return static_cast<unsigned char>(c) < ' ' || c == 127; }))
    {
        throw ClientError(ExitCode::Usage, place + " is no token: longer than 4096 bytes, or with control characters");
    }
}

/// As the server reads its own token files: the first line, without blanks at its end.
std::string ReadTokenFile(const std::string& file)
{
    std::ifstream in(file);
    std::string token;
    if (!in || (!std::getline(in, token) && !in.eof()))
    {
        throw ClientError(ExitCode::Failure, "--token-file " + file + ": cannot be read");
    }
    token.erase(token.find_last_not_of(" \r") + 1);
    CheckToken(token, "the first line of --token-file " + file);
    return token;
}

std::string FindToken(const std::string& file)
{
    if (!file.empty())
    {
        return ReadTokenFile(file);
    }
    const char* const token = std::getenv("PRICE_SERVER_TOKEN");
    if (token == nullptr || *token == '\0')
    {
        return "";
    }
    CheckToken(token, "PRICE_SERVER_TOKEN");
    return token;
}

void RemoveDuplicates(std::vector<std::string>& texts)
{
    std::vector<std::string> once;
    for (std::string& text : texts)
    {
        if (std::find(once.begin(), once.end(), text) == once.end())
        {
            once.push_back(std::move(text));
        }
    }
    texts = std::move(once);
}

void Complete(const Raw& raw, Options& options)
{
    RemoveDuplicates(options.instruments);
    RemoveDuplicates(options.kinds);
    if (std::find(options.instruments.begin(), options.instruments.end(), "") != options.instruments.end())
    {
        throw ClientError(ExitCode::Usage, "an instrument's name is empty");
    }
    if (options.command == Command::Completion)
    {
        return; // no server is asked
    }
    options.access.url = ParseUrl(raw.url);
    options.access.timeout = std::chrono::milliseconds(std::lround(raw.timeout_sec * 1000));
    options.access.token = FindToken(raw.tokenFile);
}

OptionsAnswer MakeError(ExitCode code, const std::string& text)
{
    return {code, "price_client: " + text + "\n" + (code == ExitCode::Usage ? "try: price_client --help\n" : ""), true};
}

std::string Version()
{
    return std::string("price_client ") + PRICE_SERVER_VERSION;
}

} // namespace

std::variant<Options, OptionsAnswer> ParseOptions(int argc, const char* const* argv)
{
    Options options;
    Raw raw;
    CLI::App app(kDescription, "price_client");
    app.footer(kFooter);
    app.set_version_flag("--version", Version());
    app.fallthrough();            // --url and its like may stand behind the command
    app.require_subcommand(0, 1); // that there is one is checked below, with a better message
    AddAccessOptions(app, raw, options);
    AddCommands(app, options);
    try
    {
        app.parse(argc, argv);
        if (app.get_subcommands().empty())
        {
            throw ClientError(ExitCode::Usage,
                              "a command is missing: watch, subscribe, instruments, status, explain or completion");
        }
        Complete(raw, options);
    }
    catch (const CLI::CallForHelp&)
    {
        return OptionsAnswer{ExitCode::Ok, app.help(), false};
    }
    catch (const CLI::CallForVersion&)
    {
        return OptionsAnswer{ExitCode::Ok, Version() + "\n", false};
    }
    catch (const CLI::ParseError& error)
    {
        return MakeError(ExitCode::Usage, error.what());
    }
    catch (const ClientError& error)
    {
        return MakeError(error.GetExitCode(), error.what());
    }
    return options;
}

} // namespace ps_ns::price_client
