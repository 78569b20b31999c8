#include "server/command_line.h"

#include "server/exit_code.h"

#include <CLI/CLI.hpp>

#include <sstream>

namespace ps_ns
{
namespace
{

constexpr const char* kDescription =
    "Serves composite prices: merges an instrument's direct and implied books into one.\n"
    "Without options it runs on a simulated market and shows a few instruments.";

constexpr const char* kFooter = R"(
Prices go to standard output: on a terminal as ladders that are redrawn in place,
otherwise as one JSON object a line. Everything else goes to standard error.

Exit codes:
  0    ended as asked (a signal, --duration, the end of a recording, a reader that has left)
  1    could not run or go on (a file that cannot be read, a recording that is cut off,
       an instrument that nobody knows)
  2    wrong command line
  3    wrong configuration
  130  a second signal came before the stop was done

Examples:
  price_server
  price_server --replay spot.csv.zst usdm.csv.zst --watch SPOT:BTCUSDT --depth 5
  price_server --replay spot.csv.zst --speed max --once --watch BTCUSDT | head
  price_server --replay us.csv.zst --rename FB META 2022-06-08 --watch FB
  price_server --config price_server.xml --check-config)";

std::string ReadSpeed(const std::string& text)
{
    return text == "max" ? "0" : text;
}

/// "inf" and "nan" are numbers for the parser, but not for us.
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

/// Three arguments each time that it is there.
void AddRenameOption(CLI::App& app, CommandLine& line)
{
    constexpr std::size_t kArguments = 3;
    app.add_option_function<std::vector<std::string>>(
           "--rename",
           [&line](const std::vector<std::string>& values)
           {
               if (values.empty() || values.size() % kArguments != 0)
               {
                   throw CLI::ValidationError("--rename", "OLD, NEW and WHEN are expected each time");
               }
               for (std::size_t i = 0; i < values.size(); i += kArguments)
               {
                   line.renames.push_back({values[i], values[i + 1], values[i + 2]});
               }
           },
           "rename an instrument: [MARKET:]OLD NEW WHEN, where WHEN is the last day of the old\n"
           "symbol (YYYY-MM-DD, in UTC) or the new one's first moment (YYYY-MM-DDThh:mm:ssZ)")
        ->type_size(kArguments)
        ->expected(1, CLI::detail::expected_max_vector_size)
        ->type_name("OLD NEW WHEN");
}

void AddSourceOptions(CLI::App& app, CommandLine& line)
{
    auto* const config = app.add_option("--config", line.configFile, "configuration file (XML)")->type_name("FILE");
    app.add_flag("--check-config", line.checksConfig, "print everything that is wrong with the file, and exit")
        ->needs(config);
    app.add_flag("--print-config", line.printsConfig, "print the built-in configuration, and exit")->excludes(config);
    app.add_option("--replay", line.replayFiles, "play recorded files (.csv, .csv.zst) instead of what is configured")
        ->type_name("FILE");
    app.add_option("--speed", line.speed, "pace of the recording: 1 as recorded, N times as fast, 0 or max: no waiting")
        ->transform(CLI::Validator([](std::string& text) { return text = ReadSpeed(text), std::string(); }, ""))
        ->check(FiniteFrom(0, 1e6))
        ->type_name("N");
    app.add_option("--renames", line.renameFiles, "rename instruments while they are served, as these files (.csv) say")
        ->type_name("FILE");
    AddRenameOption(app, line);
    auto* const loop = app.add_flag("--loop", line.loops, "begin again at the end of the recording");
    app.add_flag("--once", line.playsOnce, "exit at the end of the recording; usual with --replay")->excludes(loop);
    app.add_option("--seed", line.seed, "of the simulated market")->check(CLI::NonNegativeNumber)->type_name("N");
}

void AddShowOptions(CLI::App& app, CommandLine& line)
{
    app.add_option("--watch", line.watched, "show these instruments: SYMBOL or MARKET:SYMBOL")->type_name("SYMBOL");
    app.add_option("--depth", line.depth, "levels a side of what is shown (10)")
        ->check(CLI::Range(1, 10000))
        ->type_name("N");
    app.add_option("--duration", line.duration_sec, "exit after so many seconds")
        ->check(FiniteFrom(0, 1e9))
        ->type_name("SECONDS");
    auto* const port = app.add_option("--port", line.port, "port of the gateway: page, prices, metrics (8080); 0: any")
                           ->check(CLI::Range(0, 65535))
                           ->type_name("N");
    app.add_flag("--no-gateway", line.servesNobody, "listen to nobody: no page, no clients")->excludes(port);
    app.add_option("--log-level", line.logLevel, "write records from this level on (0 to 100)")
        ->check(CLI::Range(0, 100))
        ->type_name("N");
}

std::string Version()
{
    return std::string("price_server ") + PRICE_SERVER_VERSION;
}

} // namespace

std::variant<CommandLine, CommandLineAnswer> ParseCommandLine(int argc, const char* const* argv)
{
    CommandLine line;
    CLI::App app(kDescription, "price_server");
    app.footer(kFooter);
    app.set_version_flag("--version", Version());
    AddSourceOptions(app, line);
    AddShowOptions(app, line);
    try
    {
        app.parse(argc, argv);
    }
    catch (const CLI::CallForHelp&)
    {
        return CommandLineAnswer{ExitOk, app.help(), false};
    }
    catch (const CLI::CallForVersion&)
    {
        return CommandLineAnswer{ExitOk, Version() + "\n", false};
    }
    catch (const CLI::ParseError& error)
    {
        return CommandLineAnswer{ExitUsage,
                                 "price_server: " + std::string(error.what()) + "\ntry: price_server --help\n", true};
    }
    return line;
}

} // namespace ps_ns
