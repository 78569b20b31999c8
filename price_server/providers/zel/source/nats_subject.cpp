#include "nats_subject.h"

#include "zel/subject_token.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <utility>

namespace ps_ns
{
namespace
{

constexpr std::string_view kShard = "zel.shard.";
constexpr std::string_view kLast = "zel.last.";

/// Takes the text up to the next dot off the front.
std::string_view TakeToken(std::string_view& subject)
{
    const std::size_t dot = std::min(subject.find('.'), subject.size());
    const std::string_view token = subject.substr(0, dot);
    subject.remove_prefix(std::min(dot + 1, subject.size()));
    return token;
}

} // namespace

std::string MakeSubject(const TransportAddress& to)
{
    switch (to.channel)
    {
    case TransportChannel::Control:
        return std::string(kControlSubject) + EscapeToken(to.market);
    case TransportChannel::Requests:
        return std::string(kRequestsSubject) + EscapeToken(to.market);
    case TransportChannel::LastValues:
        return std::string(kLast) + EscapeToken(to.market) + '.' + EscapeToken(to.instrument) +
               (to.instrument.empty() ? '.' + std::to_string(to.part) : "");
    case TransportChannel::Prices:
        break;
    }
    return std::string(kPricesSubject) + EscapeToken(to.market) + '.' + EscapeToken(to.instrument);
}

std::string MakeShardSubject(unsigned shard)
{
    return std::string(kShard) + std::to_string(shard) + ".>";
}

bool ParsedSubject::Parse(std::string_view subject)
{
    if (!subject.starts_with(kRootSubject))
    {
        return false;
    }
    subject.remove_prefix(kRootSubject.size());
    const std::string_view kind = TakeToken(subject);
    address.channel = kind == "control"    ? TransportChannel::Control
                      : kind == "requests" ? TransportChannel::Requests
                      : kind == "last"     ? TransportChannel::LastValues
                                           : TransportChannel::Prices;
    if (kind == "shard")
    {
        TakeToken(subject);
    }
    if (!Take(subject, m_market, address.market))
    {
        return false;
    }
    if (address.channel == TransportChannel::Control || address.channel == TransportChannel::Requests)
    {
        return true;
    }
    if (!Take(subject, m_instrument, address.instrument))
    {
        return false;
    }
    return address.channel != TransportChannel::LastValues || !address.instrument.empty() || TakePart(subject);
}

bool ParsedSubject::TakePart(std::string_view subject)
{
    const auto [end, error] = std::from_chars(subject.data(), subject.data() + subject.size(), address.part);
    return error == std::errc() && end == subject.data() + subject.size();
}

/// Most tokens are their own texts.
bool ParsedSubject::Take(std::string_view& subject, std::string& store, std::string_view& text)
{
    text = TakeToken(subject);
    if (text.find('=') == std::string_view::npos)
    {
        return !text.empty();
    }
    std::optional<std::string> plain = UnescapeToken(text);
    store = std::move(plain).value_or("");
    text = store;
    return plain.has_value();
}

} // namespace ps_ns
