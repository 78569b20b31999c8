#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace prometheus
{
class Collectable;
}

namespace ps_ns
{

/// What the kernel says of a process, in its own units.
struct ProcessStat
{
    std::uint64_t cpu_ticks = 0;   ///< in user and kernel mode
    std::uint64_t start_ticks = 0; ///< since the machine started
    std::uint64_t virtual_bytes = 0;
    std::uint64_t resident_pages = 0;
};

/// Reads the text of /proc/<pid>/stat; nothing when it is none. The name in it may have blanks and parentheses.
std::optional<ProcessStat> ParseProcessStat(const std::string& text);

/// This process under the names that Prometheus' own clients use: processor time, memory, descriptors, start time. What
/// the kernel does not tell is left out.
///
/// Threads: any.
std::shared_ptr<prometheus::Collectable> MakeProcessMetrics();

} // namespace ps_ns
