#include "gateway_section.h"

#include "config/config_values.h"

#include <filesystem>
#include <limits>
#include <sstream>

namespace ps_ns
{
namespace
{

class Reader
{
public:
    Reader(const XmlDocument& document, const std::filesystem::path& folder,
           const std::map<std::string, short>& marketIdByName)
        : m_document(document)
        , m_folder(folder)
        , m_marketIdByName(marketIdByName)
    {
    }

    GatewaySection Read(std::size_t section)
    {
        GatewaySettings& settings = m_result.settings;
        const XmlElement& element = At(section);
        settings.address = Text(element, "address", settings.address);
        settings.port = static_cast<std::uint16_t>(Number(element, "port", settings.port));
        settings.drain_ms = Number(element, "drain_ms", settings.drain_ms);
        settings.webRoot = Resolve(Text(element, "webRoot", ""));
        for (const std::size_t token : m_document.FindChildren(section, "Token"))
        {
            settings.tokens.push_back(ReadToken(At(token)));
        }
        for (const std::size_t origin : m_document.FindChildren(section, "Origin"))
        {
            settings.origins.push_back(Text(At(origin), "url", ""));
        }
        if (const auto tls = m_document.FindChild(section, "Tls"))
        {
            settings.tlsCertificate = ReadFileName(At(*tls), "certificate", "certificate");
            settings.tlsKey = ReadFileName(At(*tls), "key", "key");
        }
        if (const auto limits = m_document.FindChild(section, "Limits"))
        {
            settings.maxSessions = Number(At(*limits), "sessions", settings.maxSessions);
            settings.maxSubscriptions = Number(At(*limits), "subscriptions", settings.maxSubscriptions);
            settings.maxRequestsPerSecond = Number(At(*limits), "requestsPerSecond", settings.maxRequestsPerSecond);
            settings.maxHttpRequestsPerSecond =
                Number(At(*limits), "httpRequestsPerSecond", settings.maxHttpRequestsPerSecond);
        }
        return std::move(m_result);
    }

private:
    const XmlElement& At(std::size_t index) const { return m_document.GetElements()[index]; }

    std::string Text(const XmlElement& element, std::string_view name, const std::string& absent) const
    {
        const XmlAttribute* const attribute = m_document.FindAttribute(element, name);
        return attribute == nullptr ? absent : attribute->value;
    }

    unsigned Number(const XmlElement& element, std::string_view name, unsigned absent) const
    {
        const auto number = ParseUnsigned(Text(element, name, ""));
        return number && *number <= std::numeric_limits<unsigned>::max() ? static_cast<unsigned>(*number) : absent;
    }

    std::string Resolve(const std::string& path) const { return path.empty() ? path : (m_folder / path).string(); }

    std::string ReadFileName(const XmlElement& element, std::string_view name, const char* what)
    {
        const std::string path = Resolve(Text(element, name, ""));
        std::error_code ignored;
        if (!path.empty() && !std::filesystem::is_regular_file(path, ignored))
        {
            m_result.problems.push_back(
                {element.line, "the " + std::string(what) + " file \"" + path + "\" does not exist"});
        }
        return path;
    }

    TokenSettings ReadToken(const XmlElement& element)
    {
        TokenSettings token;
        token.name = Text(element, "name", "");
        token.file = ReadFileName(element, "file", "token");
        const XmlAttribute* const operations = m_document.FindAttribute(element, "operations");
        token.operations = operations == nullptr || ParseBoolean(ToUpper(operations->value)).value_or(true);
        std::istringstream names(Text(element, "markets", ""));
        for (std::string name; names >> name;)
        {
            token.markets.push_back(name);
            if (m_marketIdByName.count(name) == 0)
            {
                m_result.problems.push_back(
                    {element.line,
                     "the token \"" + token.name + "\" opens a market that is not there: \"" + name + "\""});
            }
        }
        return token;
    }

    const XmlDocument& m_document;
    const std::filesystem::path& m_folder;
    const std::map<std::string, short>& m_marketIdByName;
    GatewaySection m_result;
};

} // namespace

GatewaySection ReadGatewaySection(const XmlDocument& document, std::size_t section, const std::filesystem::path& folder,
                                  const std::map<std::string, short>& marketIdByName)
{
    return Reader(document, folder, marketIdByName).Read(section);
}

} // namespace ps_ns
