#include "handshake.h"

#include "gateway/protocol.h"

#include <boost/beast/http/rfc7230.hpp>

#include <algorithm>

namespace ps_ns::gateway
{

namespace beast = boost::beast;
namespace http = beast::http;

namespace
{

bool IsBase64(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' || c == '/';
}

/// "0", "0.", "0.0", "0.00", "0.000".
bool IsZeroWeight(beast::string_view weight)
{
    return !weight.empty() && weight.find_first_not_of("0.") == beast::string_view::npos;
}

} // namespace

bool IsWebSocketKey(beast::string_view key)
{
    constexpr std::size_t kSize = 24;
    constexpr std::size_t kDigits = 22;
    return key.size() == kSize && key.substr(kDigits) == "==" &&
           std::all_of(key.begin(), key.begin() + kDigits, IsBase64);
}

bool OffersSubprotocol(const HttpRequest& request)
{
    const auto [begin, end] = request.equal_range(http::field::sec_websocket_protocol);
    return begin == end ||
           std::any_of(begin, end,
                       [](const auto& field)
                       {
                           const http::token_list offered(field.value());
                           return std::find(offered.begin(), offered.end(), kSubprotocol) != offered.end();
                       });
}

bool AcceptsGzip(beast::string_view acceptEncoding)
{
    const http::ext_list codings(acceptEncoding);
    return std::any_of(codings.begin(), codings.end(),
                       [](const auto& coding)
                       {
                           const auto isZero = [](const auto& parameter)
                           { return beast::iequals(parameter.first, "q") && IsZeroWeight(parameter.second); };
                           return beast::iequals(coding.first, "gzip") &&
                                  std::none_of(coding.second.begin(), coding.second.end(), isZero);
                       });
}

} // namespace ps_ns::gateway
