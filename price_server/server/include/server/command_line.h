#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace ps_ns
{

/// One --rename.
struct AskedRename
{
    std::string oldSymbol; ///< SYMBOL or MARKET:SYMBOL
    std::string newSymbol;
    std::string when; ///< the last day of the old symbol, or the first moment of the new one
};

/// What the program was asked for. A plain value.
struct CommandLine
{
    std::string configFile; ///< empty: the built-in configuration
    bool checksConfig = false;
    bool printsConfig = false;
    std::vector<std::string> replayFiles; ///< not empty: these instead of the configuration's providers
    std::optional<double> speed;          ///< times the pace of the recording; 0: as fast as possible
    std::vector<std::string> renameFiles;
    std::vector<AskedRename> renames;
    bool loops = false;
    bool playsOnce = false; ///< the program ends with the recording
    std::optional<double> duration_sec;
    std::vector<std::string> watched; ///< SYMBOL or MARKET:SYMBOL
    std::int32_t depth = 10;          ///< levels a side of what is watched
    std::optional<std::uint64_t> seed;
    std::optional<unsigned> port; ///< of the gateway; 0: any that is free
    bool servesNobody = false;    ///< no gateway
    std::optional<int> logLevel;
};

/// There is nothing to run: what to print, and where to, before the program exits.
struct CommandLineAnswer
{
    int exitCode = 0;
    std::string text;
    bool isError = false; ///< for standard error
};

/// Reads the command line; never prints, never exits.
std::variant<CommandLine, CommandLineAnswer> ParseCommandLine(int argc, const char* const* argv);

} // namespace ps_ns
