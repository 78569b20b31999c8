#include "zel/server_notice.h"

#include "zel/subject_token.h"

#include <algorithm>
#include <charconv>

namespace ps_ns
{
namespace
{

constexpr std::string_view kVersion = "1";
constexpr std::size_t kMostShards = 65'536;

/// Takes the text up to the next `mark` off the front.
std::string_view Take(std::string_view& text, char mark)
{
    const std::size_t end = std::min(text.find(mark), text.size());
    const std::string_view part = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return part;
}

bool TakeText(std::string_view& text, std::string& target)
{
    std::optional<std::string> plain = UnescapeToken(Take(text, ' '));
    target = std::move(plain).value_or("");
    return plain.has_value();
}

} // namespace

std::string WriteNotice(const ServerNotice& notice)
{
    std::string text = std::string(kVersion) + ' ' + EscapeToken(notice.session) + ' ' + EscapeToken(notice.server) +
                       ' ' + EscapeToken(notice.address) + (notice.isLeaving ? " leaving " : " here ");
    for (const std::uint32_t shard : notice.shards)
    {
        text += std::to_string(shard) + ',';
    }
    notice.shards.empty() ? text.push_back('-') : text.pop_back();
    return text;
}

std::optional<ServerNotice> ReadNotice(std::string_view text)
{
    ServerNotice notice;
    if (Take(text, ' ') != kVersion || !TakeText(text, notice.session) || notice.session.empty() ||
        !TakeText(text, notice.server) || !TakeText(text, notice.address))
    {
        return std::nullopt;
    }
    const std::string_view state = Take(text, ' ');
    notice.isLeaving = state == "leaving";
    if ((!notice.isLeaving && state != "here") || text.empty())
    {
        return std::nullopt;
    }
    while (!text.empty() && text != "-")
    {
        const std::string_view number = Take(text, ',');
        std::uint32_t shard = 0;
        const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), shard);
        if (error != std::errc() || end != number.data() + number.size() || notice.shards.size() == kMostShards)
        {
            return std::nullopt;
        }
        notice.shards.push_back(shard);
    }
    return notice;
}

} // namespace ps_ns
