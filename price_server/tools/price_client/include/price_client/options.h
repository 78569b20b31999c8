#pragma once

#include "price_client/client_error.h"
#include "price_client/url.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace ps_ns::price_client
{

enum class Command
{
    Watch,
    Subscribe,
    Instruments,
    Status,
    Explain,
    Completion
};

/// How the server is reached. A plain value.
struct Access
{
    Url url;
    std::string token;  ///< empty: none is shown
    std::string caFile; ///< certificates to trust (PEM) instead of the system's; empty: the system's
    std::chrono::milliseconds timeout{5000};
};

/// What the program was asked for. A plain value.
struct Options
{
    Command command = Command::Status;
    Access access;
    std::vector<std::string> instruments; ///< MARKET:SYMBOL or SYMBOL, each once
    std::string depth;                    ///< a number, "default" or "max"; empty: the command's own
    std::optional<unsigned> interval_ms;
    std::vector<std::string> kinds; ///< of subscribe: "book", "trades", "fields"
    bool writesBooks = false;       ///< of subscribe: whole books instead of what was received
    std::optional<std::uint64_t> count;
    bool writesJson = false; ///< the server's words as they are; subscribe has them anyway
    bool writesNames = false;
    std::string search;
    std::string market;
    std::optional<std::size_t> limit;
    std::string shell; ///< of completion
};

/// There is nothing to run: what to print, and where to, before the program exits.
struct OptionsAnswer
{
    ExitCode exitCode = ExitCode::Ok;
    std::string text;
    bool isError = false; ///< for standard error
};

/// Reads the command line, PRICE_SERVER_URL, PRICE_SERVER_TOKEN and the token file; never prints, never exits. The
/// token is never taken from the command line, which every user of the machine can read.
std::variant<Options, OptionsAnswer> ParseOptions(int argc, const char* const* argv);

} // namespace ps_ns::price_client
