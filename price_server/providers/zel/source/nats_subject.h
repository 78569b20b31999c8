#pragma once

#include "zel/i_provider_transport.h"

#include <string>
#include <string_view>

namespace ps_ns
{

inline constexpr std::string_view kRootSubject = "zel.";
inline constexpr std::string_view kPricesSubject = "zel.prices.";
inline constexpr std::string_view kControlSubject = "zel.control.";
inline constexpr std::string_view kRequestsSubject = "zel.requests.";

std::string MakeSubject(const TransportAddress& to);
std::string MakeShardSubject(unsigned shard);

/// A subject's parts; the texts live as long as this.
class ParsedSubject
{
public:
    /// False: not one of ours.
    bool Parse(std::string_view subject);

    TransportAddress address;

private:
    bool TakePart(std::string_view subject);
    static bool Take(std::string_view& subject, std::string& store, std::string_view& text);

    std::string m_market;
    std::string m_instrument;
};

} // namespace ps_ns
