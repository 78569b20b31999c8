#include "price_publisher/options.h"

#include "server/rename_file.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <stdexcept>

namespace ps_ns::price_publisher
{
namespace
{

constexpr const char* kDescription =
    "Publishes market data by way of a message broker: recorded files, or a simulated market.\n"
    "Price servers with <Zel> in their configuration get instruments, books, trades and renames from it.";

constexpr const char* kFooter = R"(
The prices begin when there is a connection. A broker that goes away is waited for; the books are kept up to date
meanwhile, and sent as a whole to whoever asks for them afterwards.

Environment:
  PRICE_BROKER_URL  the broker, unless --broker says it

Exit codes:
  0    ended as asked (a signal, --duration, the end of the recording with --once)
  1    failure (a file that cannot be read, a recording that is cut off; with --once, one whose end the broker has
       not taken)
  2    wrong command line
  3    ended without ever having had a connection to the broker
  130  a second signal came before the stop was done

Examples:
  price_publisher
  price_publisher --replay spot.csv.zst usdm.csv.zst --loop --speed 10
  price_publisher --market NORTH --seed 7 --rate 5000 --broker nats://a:4222,nats://b:4222
  price_publisher --replay us.csv.zst --rename FB META 2022-06-08)";

constexpr short kEveryMarket = -1;

/// As the command line has it, before it is checked as a whole.
struct Raw
{
    std::vector<std::string> renameFiles;
    std::vector<std::string> renames; ///< OLD NEW WHEN, and again
};

CLI::Validator FiniteFrom(double least, double most)
{
    return CLI::Validator(
        [least, most](const std::string& text) -> std::string
        {
            double value = 0;
            const bool fits = CLI::detail::lexical_cast(text, value) && value >= least && value <= most;
            return fits ? ""
                        : "'" + text + "' is not a number from " + CLI::detail::to_string(least) + " to " +
                              CLI::detail::to_string(most);
        },
        "");
}

std::string ReadSpeed(const std::string& text)
{
    return text == "max" ? "0" : text;
}

void AddOptions(CLI::App& app, Raw& raw, Options& options)
{
    app.add_option("--broker", options.broker, "address of the broker (nats://127.0.0.1:4222)")
        ->envname("PRICE_BROKER_URL")
        ->type_name("URL");
    auto* const user = app.add_option("--user", options.user, "who we are for the broker")->type_name("NAME");
    auto* const password =
        app.add_option("--password-file", options.passwordFile, "file whose first line is the password")
            ->type_name("FILE");
    user->needs(password);
    password->needs(user);

    auto* const replay =
        app.add_option("--replay", options.replayFiles, "play recorded files (.csv, .csv.zst)")->type_name("FILE");
    app.add_option("--speed", options.speed,
                   "pace of the recording: 1 as recorded, N times as fast, 0 or max: no waiting")
        ->transform(CLI::Validator([](std::string& text) { return text = ReadSpeed(text), std::string(); }, ""))
        ->check(FiniteFrom(0, 1e6))
        ->needs(replay)
        ->type_name("N");
    auto* const loop = app.add_flag("--loop", options.loops, "begin again at the end of the recording")->needs(replay);
    app.add_flag("--once", options.playsOnce, "exit at the end of the recording")->needs(replay)->excludes(loop);
    app.add_option("--seed", options.seed, "of the simulated market (1)")->excludes(replay)->type_name("N");
    app.add_option("--rate", options.rate, "updates a second of the simulated market (200)")
        ->check(CLI::Range(1, 1'000'000))
        ->excludes(replay)
        ->type_name("N");
    app.add_option("--market", options.market, "name of the simulated market (SIM)")
        ->excludes(replay)
        ->type_name("NAME");
    app.add_option("--renames", raw.renameFiles, "rename instruments, as these files (.csv) say")->type_name("FILE");
    app.add_option("--rename", raw.renames,
                   "rename an instrument on all markets: OLD NEW WHEN, where WHEN is the last day of the old\n"
                   "symbol (YYYY-MM-DD, in UTC) or the new one's first moment (YYYY-MM-DDThh:mm:ssZ)")
        ->type_size(3)
        ->expected(1, CLI::detail::expected_max_vector_size)
        ->type_name("OLD NEW WHEN");

    app.add_flag_callback(
        "--no-last-values", [&options] { options.keepsLastValues = false; },
        "have the broker keep nothing; otherwise it keeps instruments and last books for when this is gone");

    app.add_option("--delay", options.delay_sec, "list the instruments, and wait so many seconds for price servers (0)")
        ->check(FiniteFrom(0, 1e6))
        ->type_name("SECONDS");
    app.add_option("--duration", options.duration_sec, "exit after so many seconds")
        ->check(FiniteFrom(0, 1e9))
        ->type_name("SECONDS");
    app.add_flag("--quiet", options.isQuiet, "no progress, only what goes wrong");
}

TimedRename ReadRename(const std::string& oldSymbol, const std::string& newSymbol, const std::string& when)
{
    const auto day = ParseLastDay(when);
    const auto time_ns = day ? day : ParseUtcTime(when);
    if (!time_ns || oldSymbol.empty() || newSymbol.empty() || oldSymbol == newSymbol)
    {
        throw std::invalid_argument("--rename " + oldSymbol + " " + newSymbol + " " + when +
                                    ": two different symbols, and " + std::string(kExpectedLastDay) + " or " +
                                    std::string(kExpectedUtcTime) + " are expected");
    }
    return {*time_ns, {kEveryMarket, oldSymbol, newSymbol}};
}

void Complete(const Raw& raw, Options& options)
{
    for (const std::string& path : raw.renameFiles)
    {
        const RenameFile file = ReadRenameFile(path);
        if (!file.problems.empty())
        {
            throw std::invalid_argument("--renames " + path + ":" + std::to_string(file.problems.front().line) + ": " +
                                        file.problems.front().text);
        }
        std::transform(file.rows.begin(), file.rows.end(), std::back_inserter(options.renames),
                       [](const RenameFile::Row& row) {
                           return TimedRename{row.time_ns, {kEveryMarket, row.oldSymbol, row.newSymbol}};
                       });
    }
    for (std::size_t i = 0; i + 2 < raw.renames.size(); i += 3)
    {
        options.renames.push_back(ReadRename(raw.renames[i], raw.renames[i + 1], raw.renames[i + 2]));
    }
    if (options.market.empty() || options.broker.empty())
    {
        throw std::invalid_argument("--market and --broker may not be empty");
    }
}

OptionsAnswer MakeUsageError(const char* text)
{
    return {ExitCode::Usage, "price_publisher: " + std::string(text) + "\ntry: price_publisher --help\n", true};
}

} // namespace

std::variant<Options, OptionsAnswer> ParseOptions(int argc, const char* const* argv)
{
    Options options;
    Raw raw;
    CLI::App app(kDescription, "price_publisher");
    const std::string version = std::string("price_publisher ") + PRICE_SERVER_VERSION;
    app.footer(kFooter);
    app.set_version_flag("--version", version);
    AddOptions(app, raw, options);
    try
    {
        app.parse(argc, argv);
        Complete(raw, options);
    }
    catch (const CLI::CallForHelp&)
    {
        return OptionsAnswer{ExitCode::Ok, app.help(), false};
    }
    catch (const CLI::CallForVersion&)
    {
        return OptionsAnswer{ExitCode::Ok, version + "\n", false};
    }
    catch (const CLI::ParseError& error)
    {
        return MakeUsageError(error.what());
    }
    catch (const std::invalid_argument& error)
    {
        return MakeUsageError(error.what());
    }
    return options;
}

} // namespace ps_ns::price_publisher
