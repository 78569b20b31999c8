#pragma once

#include "config/config_error.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ps_ns
{

/// A file of symbol renames: CSV, with one header line (kRenameFileHeader) and one line for each rename. `instrument`
/// and `source_file` are for people, and are not read. Fields have no quotes; empty lines are passed over.
struct RenameFile
{
    struct Row
    {
        std::size_t line = 0;
        std::string oldSymbol;
        std::string newSymbol;
        std::uint64_t time_ns = 0; ///< UTC: the first moment of the new symbol
    };

    std::vector<Row> rows; ///< the good ones, in the order of the file; equal ones once
    /// What is wrong, with the lines of this file: the column, its value and what was expected. After
    /// kMaxRenameFileProblems of them the rest is only counted.
    std::vector<ConfigProblem> problems;
};

inline constexpr std::string_view kRenameFileHeader =
    "instrument,old_symbol,new_symbol,last_day_old_symbol,source_file";
inline constexpr std::size_t kMaxRenameFileProblems = 20;
inline constexpr std::size_t kMaxRenameFileBytes = 4 * 1024 * 1024;
inline constexpr std::size_t kMaxSymbolBytes = 64;

/// Reads it whole. A file that cannot be read, or is too large, has one problem. Throws nothing but for memory.
RenameFile ReadRenameFile(const std::string& path);

/// The end of a day "YYYY-MM-DD" in UTC, which is the next midnight, in ns since 1970. Nothing: see kExpectedLastDay.
std::optional<std::uint64_t> ParseLastDay(std::string_view text);
inline constexpr std::string_view kExpectedLastDay = "a day YYYY-MM-DD of the years 1970 to 2499";

/// A moment "YYYY-MM-DDThh:mm:ssZ" in ns since 1970. Nothing: see kExpectedUtcTime.
std::optional<std::uint64_t> ParseUtcTime(std::string_view text);
inline constexpr std::string_view kExpectedUtcTime = "a time YYYY-MM-DDThh:mm:ssZ of the years 1970 to 2499";

} // namespace ps_ns
