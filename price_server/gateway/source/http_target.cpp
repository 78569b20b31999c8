#include "http_api.h"
#include "utf8.h"

#include <boost/json.hpp>

#include <cctype>
#include <optional>

namespace ps_ns::gateway
{
namespace
{

int GetHexDigit(char c)
{
    if (c >= '0' && c <= '9')
    {
        return c - '0';
    }
    const char lower = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

/// Nothing when an escape is broken, or stands for a control character, or what comes out is not UTF-8.
std::optional<std::string> Decode(std::string_view text, bool plusIsBlank)
{
    std::string decoded;
    for (std::size_t i = 0; i < text.size(); ++i)
    {
        char c = text[i];
        if (c == '%')
        {
            const int high = i + 2 < text.size() ? GetHexDigit(text[i + 1]) : -1;
            const int low = i + 2 < text.size() ? GetHexDigit(text[i + 2]) : -1;
            if (high < 0 || low < 0)
            {
                return std::nullopt;
            }
            c = static_cast<char>(high * 16 + low);
            i += 2;
        }
        else if (c == '+' && plusIsBlank)
        {
            c = ' ';
        }
        if (static_cast<unsigned char>(c) < ' ')
        {
            return std::nullopt;
        }
        decoded += c;
    }
    if (!IsUtf8(decoded))
    {
        return std::nullopt; // answers repeat it, and they are UTF-8
    }
    return decoded;
}

} // namespace

bool ParseTarget(std::string_view target, HttpQuery& query)
{
    if (target.empty() || target.front() != '/')
    {
        return false;
    }
    const std::size_t mark = target.find('?');
    const auto path = Decode(target.substr(0, mark), false);
    if (!path)
    {
        return false;
    }
    query.path = *path;
    std::string_view rest = mark == std::string_view::npos ? std::string_view() : target.substr(mark + 1);
    while (!rest.empty())
    {
        const std::size_t end = rest.find('&');
        const std::string_view part = rest.substr(0, end);
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
        const std::size_t equals = part.find('=');
        const auto name = Decode(part.substr(0, equals), true);
        const auto value =
            equals == std::string_view::npos ? std::optional<std::string>("") : Decode(part.substr(equals + 1), true);
        if (!name || !value)
        {
            return false;
        }
        query.parameters[*name] = *value;
    }
    return true;
}

HttpAnswer MakeHttpError(unsigned status, const std::string& code, const std::string& where, const std::string& message)
{
    HttpAnswer answer;
    answer.status = status;
    answer.body = boost::json::serialize(
        boost::json::object{{"error", {{"code", code}, {"where", where}, {"message", message}}}});
    if (status == 401)
    {
        answer.headers.emplace_back("WWW-Authenticate", "Bearer realm=\"price_server\"");
    }
    return answer;
}

HttpAnswer MakeTooManyRequests()
{
    HttpAnswer answer = MakeHttpError(429, "too_many_requests", "", "requests come too fast; try again later");
    answer.headers.emplace_back("Retry-After", "1");
    return answer;
}

} // namespace ps_ns::gateway
