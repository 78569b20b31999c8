#pragma once

#include "mds/symbol_rename.h"

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace ps_ns::price_publisher
{

/// How the program ends.
enum class ExitCode : int
{
    Ok = 0,      ///< ended as asked: a signal, --duration, the end of a recording with --once
    Failure = 1, ///< a file that cannot be read, a recording that is cut off, with --once one that has not arrived
    Usage = 2,   ///< wrong command line
    NoBroker = 3 ///< ended without ever having had a connection
};

/// What the command line asks for. A plain value.
struct Options
{
    std::string broker = "nats://127.0.0.1:4222"; ///< several with commas between them
    std::string user;
    std::string passwordFile; ///< its first line is the password

    std::vector<std::string> replayFiles; ///< empty: the simulated market
    double speed = 1;                     ///< times the pace of the recording; 0: as fast as the broker takes it
    bool loops = false;
    bool playsOnce = false; ///< ends with the recording; otherwise its last books stay available
    std::uint64_t seed = 1;
    std::uint32_t rate = 200;   ///< updates a second of the simulated market
    std::string market = "SIM"; ///< the simulated market's name
    std::vector<TimedRename> renames;
    bool keepsLastValues = true; ///< the broker is asked to keep directories and images for the time after this

    double delay_sec = 0; ///< between the first connection and the first message
    std::optional<double> duration_sec;
    bool isQuiet = false; ///< no progress
};

/// Instead of options: what to print, and how to end.
struct OptionsAnswer
{
    ExitCode exitCode;
    std::string text;
    bool isError;
};

/// Never throws but for memory. Reads the files that --renames names.
std::variant<Options, OptionsAnswer> ParseOptions(int argc, const char* const* argv);

} // namespace ps_ns::price_publisher
