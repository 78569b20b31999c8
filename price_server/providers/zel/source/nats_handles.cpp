#include "nats_handles.h"

#include <array>
#include <thread>
#include <utility>

namespace ps_ns
{
namespace
{

/// The library hands out its own text, and its reader may be writing the next one there: copied without looking beyond
/// its place, and not for the thread sanitizer to judge.
__attribute__((noinline, no_sanitize("thread"))) std::string CopyWhileWritten(const char* text)
{
    constexpr std::size_t kPlace = 256;
    std::array<char, kPlace> copy{};
    const volatile char* const source = text;
    for (std::size_t i = 0; i + 1 < kPlace && source[i] != '\0'; ++i)
    {
        copy[i] = source[i];
    }
    return copy.data();
}

std::string Quote(const std::string& text)
{
    std::string quoted;
    for (const char c : text)
    {
        quoted += c == '"' || c == '\\' ? "\\" : "";
        quoted += c;
    }
    return quoted;
}

} // namespace

natsStatus SetUser(natsOptions* options, const std::string& user, const std::string& password)
{
    return natsOptions_SetUserInfo(options, Quote(user).c_str(), Quote(password).c_str());
}

NatsGraveyard::~NatsGraveyard()
{
    WaitAndReap();
}

void NatsGraveyard::Bury(natsSubscription* subscription)
{
    natsSubscription_Unsubscribe(subscription);
    m_graves.push_back({subscription, Clock::now()});
}

void NatsGraveyard::Reap(Clock::time_point now)
{
    std::erase_if(m_graves,
                  [&](const Grave& grave)
                  {
                      const bool hasRested = now - grave.since >= m_rest;
                      if (hasRested)
                      {
                          natsSubscription_Destroy(grave.subscription);
                      }
                      return hasRested;
                  });
}

void NatsGraveyard::WaitAndReap()
{
    if (!m_graves.empty())
    {
        std::this_thread::sleep_until(m_graves.back().since + m_rest);
        Reap(Clock::now());
    }
}

std::string HideSecrets(const std::string& url)
{
    const std::size_t scheme = url.find("://");
    const std::size_t begin = scheme == std::string::npos ? 0 : scheme + 3;
    const std::size_t at = url.rfind('@');
    return at == std::string::npos || at < begin ? url : url.substr(0, begin) + url.substr(at + 1);
}

std::vector<std::string> SplitServers(const std::string& url)
{
    constexpr const char* kBlanks = " \t\r\n";
    std::vector<std::string> servers;
    for (std::size_t begin = 0; begin <= url.size();)
    {
        const std::size_t comma = std::min(url.find(',', begin), url.size());
        std::string server = url.substr(begin, comma - begin);
        server.erase(0, std::min(server.find_first_not_of(kBlanks), server.size()));
        server.erase(server.find_last_not_of(kBlanks) + 1);
        if (!server.empty())
        {
            servers.push_back(std::move(server));
        }
        begin = comma + 1;
    }
    return servers;
}

std::string DescribeServers(const std::vector<std::string>& servers)
{
    std::string text;
    for (const std::string& server : servers)
    {
        text += (text.empty() ? "" : ",") + HideSecrets(server);
    }
    return text;
}

std::string GetRefusal(natsConnection* connection)
{
    const char* said = nullptr;
    if (natsConnection_GetLastError(connection, &said) != NATS_NOT_PERMITTED || said == nullptr)
    {
        return {};
    }
    std::string text = CopyWhileWritten(said);
    for (std::string again = CopyWhileWritten(said); again != text; again = CopyWhileWritten(said))
    {
        text = std::move(again); // half of it was the one before
    }
    return text;
}

} // namespace ps_ns
