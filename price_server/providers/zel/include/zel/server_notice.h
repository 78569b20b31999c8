#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ps_ns
{

/// What a price server tells the others of itself.
///
/// As text: "1 SESSION SERVER ADDRESS STATE SHARDS", the texts as EscapeToken writes them, STATE "here" or "leaving",
/// SHARDS their numbers with commas between them, or "-".
struct ServerNotice
{
    std::string session; ///< of one run of the server
    std::string server;  ///< its name
    std::string address; ///< of its gateway; may be empty
    bool isLeaving = false;
    std::vector<std::uint32_t> shards; ///< that it serves, in ascending order

    friend bool operator==(const ServerNotice&, const ServerNotice&) = default;
};

std::string WriteNotice(const ServerNotice& notice);
/// Nothing: the text is no such notice, of this version.
std::optional<ServerNotice> ReadNotice(std::string_view text);

} // namespace ps_ns
