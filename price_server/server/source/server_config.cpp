#include "server/server_config.h"

#include "gateway_section.h"
#include "renames_section.h"
#include "server_config_schema.h"

#include "config/config_values.h"
#include "config/detail/quoted.h"

#include <algorithm>
#include <filesystem>
#include <limits>
#include <map>
#include <set>
#include <type_traits>
#include <unistd.h>
#include <utility>

namespace ps_ns
{

using detail::Quoted;

namespace
{

constexpr std::string_view kBuiltInName = "built-in configuration";
constexpr std::string_view kBuiltInText = R"(<?xml version="1.0" encoding="UTF-8"?>
<PriceServer>
  <General SkipUnchangedSnapshots="yes" InstrumentMonitoringInterval_sec="30"/>
  <Logging level="10" format="text"/>
  <Metrics enabled="yes"/>
  <Threads executors="2"/>
  <Markets>
    <Market id="1" name="SIM" defaultDepth="10" maxDepth="1000"/>
  </Markets>
  <Providers>
    <Mds>
      <Simulation seed="1" updatesPerSecond="200"/>
    </Mds>
  </Providers>
  <Gateway address="127.0.0.1" port="8080"/>
</PriceServer>
)";

/// Empty when each part between commas is "nats://" or "tls://" and something behind it.
std::string FindBrokerUrlProblem(const std::string& url)
{
    for (std::size_t begin = 0; begin <= url.size();)
    {
        const std::size_t comma = std::min(url.find(',', begin), url.size());
        std::string_view part = std::string_view(url).substr(begin, comma - begin);
        part.remove_prefix(std::min(part.find_first_not_of(' '), part.size()));
        const bool isKnown = part.starts_with("nats://") || part.starts_with("tls://");
        if (!isKnown || part.ends_with("://"))
        {
            return "the broker's address " + Quoted(std::string(part)) + " is not like nats://host:4222";
        }
        begin = comma + 1;
    }
    return "";
}

/// Turns a document into settings and finds what the schema cannot say. Total: works on documents that the schema has
/// refused too, leaving out what cannot be read, so that all problems come in one answer.
class Reader
{
public:
    /// `folder` is where relative paths start.
    Reader(const XmlDocument& document, std::filesystem::path folder)
        : m_document(document)
        , m_folder(std::move(folder))
    {
    }

    ServerConfig Read();
    std::vector<ConfigProblem> TakeProblems() { return std::move(m_problems); }

private:
    static constexpr std::size_t kRoot = 0;

    const XmlElement& At(std::size_t index) const { return m_document.GetElements()[index]; }
    void Report(std::size_t line, std::string text) { m_problems.push_back({line, std::move(text)}); }
    template <class T>
    void Read(const XmlElement& element, std::string_view name, T& target) const;
    std::string Text(const XmlElement& element, std::string_view name) const;
    std::string ResolvePath(const std::string& path) const;
    using LineByText = std::map<std::string, std::size_t>;
    /// True, and a problem, when `text` has been seen before. An empty text stands for one that could not be read.
    bool ReportRepeat(LineByText& seen, const std::string& text, std::size_t line, const char* what);

    void ReadLogging(const XmlElement& element, LoggingSettings& logging) const;
    void ReadMarket(const XmlElement& element);
    void ReadProviders(std::size_t providers);
    void ReadMds(std::size_t mds);
    void ReadZel(const XmlElement& element);
    ReplaySettings ReadReplay(std::size_t replay);
    void CheckReplayFile(const XmlElement& element, const std::string& path);
    SimulationSettings ReadSimulation(const XmlElement& element) const;
    void ReadImplied(std::size_t implied, std::vector<ImpliedRuleSettings>& rules);
    ImpliedRuleSettings ReadImpliedRule(const XmlElement& element, ImpliedRuleSettings::Kind kind);
    void CheckImpliedRule(const XmlElement& element, const ImpliedRuleSettings& rule);

    const XmlDocument& m_document;
    const std::filesystem::path m_folder;
    ServerConfig m_config;
    std::vector<ConfigProblem> m_problems;
    LineByText m_lineByMarketId;
    LineByText m_lineByMarketName;
    LineByText m_lineByFile;
    std::map<std::string, LineByText> m_lineByImpliedSymbol; ///< by market
    std::map<std::string, short> m_marketIdByName;
};

/// Leaves `target` alone when the attribute is not there or not of its type.
template <class T>
void Reader::Read(const XmlElement& element, std::string_view name, T& target) const
{
    const XmlAttribute* const attribute = m_document.FindAttribute(element, name);
    if (attribute == nullptr)
    {
        return;
    }
    if constexpr (std::is_same_v<T, bool>)
    {
        target = ParseBoolean(ToUpper(attribute->value)).value_or(target);
    }
    else if constexpr (std::is_same_v<T, double>)
    {
        target = ParseDecimal(attribute->value).value_or(target);
    }
    else if constexpr (std::is_same_v<T, std::string>)
    {
        target = attribute->value;
    }
    else
    {
        const std::optional<std::uint64_t> value = ParseUnsigned(attribute->value);
        target = value && std::in_range<T>(*value) ? static_cast<T>(*value) : target;
    }
}

std::string Reader::Text(const XmlElement& element, std::string_view name) const
{
    std::string text;
    Read(element, name, text);
    return text;
}

std::string Reader::ResolvePath(const std::string& path) const
{
    return path.empty() ? path : (m_folder / path).string();
}

bool Reader::ReportRepeat(LineByText& seen, const std::string& text, std::size_t line, const char* what)
{
    if (text.empty() || seen.try_emplace(text, line).second)
    {
        return false;
    }
    Report(line, what + Quoted(text) + " is there already, on line " + std::to_string(seen[text]));
    return true;
}

ServerConfig Reader::Read()
{
    const auto readSection = [&](std::string_view name, auto&& read)
    {
        if (const auto section = m_document.FindChild(kRoot, name))
        {
            read(*section);
        }
    };
    readSection("Logging", [&](std::size_t section) { ReadLogging(At(section), m_config.logging); });
    readSection("Metrics", [&](std::size_t section) { Read(At(section), "enabled", m_config.metrics.enabled); });
    readSection("Threads", [&](std::size_t section) { Read(At(section), "executors", m_config.executorThreads); });
    readSection("Markets",
                [&](std::size_t section)
                {
                    for (const std::size_t market : m_document.FindChildren(section, "Market"))
                    {
                        ReadMarket(At(market));
                    }
                });
    readSection("Providers", [&](std::size_t section) { ReadProviders(section); });
    readSection("Gateway",
                [&](std::size_t section)
                {
                    GatewaySection gateway = ReadGatewaySection(m_document, section, m_folder, m_marketIdByName);
                    m_config.gateway = std::move(gateway.settings);
                    m_problems.insert(m_problems.end(), gateway.problems.begin(), gateway.problems.end());
                });
    return std::move(m_config);
}

void Reader::ReadLogging(const XmlElement& element, LoggingSettings& logging) const
{
    Read(element, "level", logging.level);
    Read(element, "queue", logging.queue);
    logging.file = ResolvePath(Text(element, "file"));
    logging.format = Text(element, "format") == "json" ? zel::logging::Format::JsonLines : zel::logging::Format::Text;
}

void Reader::ReadMarket(const XmlElement& element)
{
    Market market;
    Read(element, "id", market.id);
    Read(element, "name", market.name);
    Read(element, "defaultDepth", market.defaultDepth);
    Read(element, "maxDepth", market.maxDepth);
    Read(element, "emptySuppressInterval_ms", market.emptySuppressInterval_ms);

    const std::string id = ParseUnsigned(Text(element, "id")) ? std::to_string(market.id) : "";
    ReportRepeat(m_lineByMarketId, id, element.line, "the market id ");
    ReportRepeat(m_lineByMarketName, market.name, element.line, "the market name ");
    m_marketIdByName.try_emplace(market.name, market.id);
    if (market.defaultDepth > market.maxDepth)
    {
        const bool isUsual = m_document.FindAttribute(element, "defaultDepth") == nullptr;
        Report(element.line, "the default depth " + std::to_string(market.defaultDepth) +
                                 (isUsual ? " (there is no attribute \"defaultDepth\")" : "") +
                                 " is above the maximum depth " + std::to_string(market.maxDepth));
    }
    m_config.markets.push_back(std::move(market));
}

void Reader::ReadProviders(std::size_t providers)
{
    const auto mds = m_document.FindChild(providers, "Mds");
    const auto zel = m_document.FindChild(providers, "Zel");
    if (!mds && !zel)
    {
        Report(At(providers).line, "<Providers> has neither <Mds> nor <Zel>: there would be no prices");
    }
    if (mds)
    {
        ReadMds(*mds);
    }
    if (zel)
    {
        ReadZel(At(*zel));
    }
}

void Reader::ReadZel(const XmlElement& element)
{
    ZelSettings& settings = m_config.zel.emplace();
    Read(element, "url", settings.url);
    Read(element, "user", settings.user);
    Read(element, "connectTimeout_ms", settings.connectTimeout_ms);
    settings.passwordFile = ResolvePath(Text(element, "passwordFile"));
    Read(element, "shards", settings.shards);
    Read(element, "server", settings.server);
    Read(element, "address", settings.address);
    Read(element, "lease_ms", settings.lease_ms);
    Read(element, "brokers", settings.brokers);
    for (const char* const name : {"server", "address", "lease_ms", "brokers"})
    {
        if (settings.shards == 0 && m_document.FindAttribute(element, name) != nullptr)
        {
            Report(element.line, "<Zel> has " + Quoted(name) + ", which means nothing without \"shards\"");
        }
    }
    if (const std::string problem = FindBrokerUrlProblem(settings.url); !problem.empty())
    {
        Report(element.line, problem);
    }
    if (settings.user.empty() != settings.passwordFile.empty())
    {
        Report(element.line, "<Zel> needs \"user\" and \"passwordFile\" together");
    }
    if (!settings.passwordFile.empty() && ::access(settings.passwordFile.c_str(), R_OK) != 0)
    {
        Report(element.line, "the password file " + Quoted(settings.passwordFile) + " cannot be read");
    }
}

void Reader::ReadMds(std::size_t mds)
{
    MdsSettings& settings = m_config.mds.emplace();
    const auto replay = m_document.FindChild(mds, "Replay");
    const auto simulation = m_document.FindChild(mds, "Simulation");
    if (replay.has_value() == simulation.has_value())
    {
        Report(At(mds).line, replay ? "<Mds> has both <Replay> and <Simulation>; only one of them can be"
                                    : "<Mds> has neither <Replay> nor <Simulation>");
    }
    if (replay)
    {
        settings.replay = ReadReplay(*replay);
    }
    if (simulation)
    {
        settings.simulation = ReadSimulation(At(*simulation));
    }
    if (const auto implied = m_document.FindChild(mds, "Implied"))
    {
        ReadImplied(*implied, settings.implied);
    }
    if (const auto renames = m_document.FindChild(mds, "Renames"))
    {
        RenamesSection section = ReadRenamesSection(m_document, *renames, m_folder, m_marketIdByName);
        settings.renames = std::move(section.renames);
        m_problems.insert(m_problems.end(), section.problems.begin(), section.problems.end());
    }
}

ReplaySettings Reader::ReadReplay(std::size_t replay)
{
    ReplaySettings settings;
    Read(At(replay), "speed", settings.speed);
    Read(At(replay), "loop", settings.loop);
    for (const std::size_t file : m_document.FindChildren(replay, "File"))
    {
        const std::string path = ResolvePath(Text(At(file), "path"));
        if (!path.empty() && settings.files.size() < kMaxReplayFiles)
        {
            CheckReplayFile(At(file), path);
            settings.files.push_back(path);
        }
    }
    return settings;
}

void Reader::CheckReplayFile(const XmlElement& element, const std::string& path)
{
    if (ReportRepeat(m_lineByFile, path, element.line, "the replay file "))
    {
        return;
    }
    std::error_code error;
    const auto status = std::filesystem::status(path, error);
    if (!path.ends_with(".csv") && !path.ends_with(".csv.zst"))
    {
        Report(element.line, "the replay file " + Quoted(path) + " is neither .csv nor .csv.zst");
    }
    else if (error && status.type() != std::filesystem::file_type::not_found)
    {
        Report(element.line, "the replay file " + Quoted(path) + " cannot be looked at: " + error.message());
    }
    else if (!std::filesystem::is_regular_file(status))
    {
        Report(element.line, "the replay file " + Quoted(path) +
                                 (std::filesystem::exists(status) ? " is not a file" : " does not exist"));
    }
    else if (::access(path.c_str(), R_OK) != 0)
    {
        Report(element.line, "the replay file " + Quoted(path) + " may not be read");
    }
}

SimulationSettings Reader::ReadSimulation(const XmlElement& element) const
{
    SimulationSettings simulation;
    Read(element, "seed", simulation.seed);
    Read(element, "updatesPerSecond", simulation.updatesPerSecond);
    return simulation;
}

void Reader::ReadImplied(std::size_t implied, std::vector<ImpliedRuleSettings>& rules)
{
    using Kind = ImpliedRuleSettings::Kind;
    for (const auto& [name, kind] :
         {std::pair("Cross", Kind::Cross), std::pair("OutrightFromSpread", Kind::OutrightFromSpread),
          std::pair("SpreadFromOutrights", Kind::SpreadFromOutrights)})
    {
        for (const std::size_t rule : m_document.FindChildren(implied, name))
        {
            rules.push_back(ReadImpliedRule(At(rule), kind));
            CheckImpliedRule(At(rule), rules.back());
        }
    }
}

ImpliedRuleSettings Reader::ReadImpliedRule(const XmlElement& element, ImpliedRuleSettings::Kind kind)
{
    ImpliedRuleSettings rule;
    rule.kind = kind;
    for (const auto& [name, member] :
         {std::pair("symbol", &ImpliedRuleSettings::symbol), std::pair("numerator", &ImpliedRuleSettings::numerator),
          std::pair("denominator", &ImpliedRuleSettings::denominator),
          std::pair("spread", &ImpliedRuleSettings::spread), std::pair("far", &ImpliedRuleSettings::far),
          std::pair("near", &ImpliedRuleSettings::near)})
    {
        Read(element, name, rule.*member);
    }
    const auto market = m_marketIdByName.find(Text(element, "market"));
    rule.marketId = market == m_marketIdByName.end() ? rule.marketId : market->second;
    return rule;
}

void Reader::CheckImpliedRule(const XmlElement& element, const ImpliedRuleSettings& rule)
{
    const std::string market = Text(element, "market");
    const std::string tag = detail::Tag(element.name);
    if (!market.empty() && m_marketIdByName.count(market) == 0)
    {
        Report(element.line, "the market " + Quoted(market) + " of " + tag + " is not in <Markets>");
    }
    if (rule.kind == ImpliedRuleSettings::Kind::OutrightFromSpread && rule.far.empty() == rule.near.empty())
    {
        Report(element.line, tag + " needs either \"far\" or \"near\", the outright whose book is there");
    }
    std::set<std::string> symbols;
    for (const std::string& symbol : {rule.symbol, rule.numerator, rule.denominator, rule.spread, rule.far, rule.near})
    {
        if (!symbol.empty() && !symbols.insert(symbol).second)
        {
            Report(element.line, "the symbol " + Quoted(symbol) + " is there twice in " + tag);
        }
    }
    ReportRepeat(m_lineByImpliedSymbol[market], rule.symbol, element.line, "an implied rule for the symbol ");
}

struct Checked
{
    ServerConfig config;
    std::vector<ConfigProblem> problems;
};

/// Throws ConfigError when there is no document to check.
Checked ReadAndCheck(std::shared_ptr<Config> config, const std::filesystem::path& folder)
{
    Checked checked;
    checked.problems = GetServerConfigSchema().Check(config->GetDocument());
    Reader reader(config->GetDocument(), folder);
    checked.config = reader.Read();
    checked.config.config = std::move(config);
    for (ConfigProblem& problem : reader.TakeProblems())
    {
        checked.problems.push_back(std::move(problem));
    }
    std::stable_sort(checked.problems.begin(), checked.problems.end(),
                     [](const auto& left, const auto& right) { return left.line < right.line; });
    return checked;
}

ServerConfig RequireNoProblem(Checked checked)
{
    if (!checked.problems.empty())
    {
        throw ConfigError(checked.config.config->GetName(), std::move(checked.problems));
    }
    return std::move(checked.config);
}

std::filesystem::path FolderOf(const std::string& path)
{
    return std::filesystem::path(path).parent_path();
}

} // namespace

ServerConfig LoadServerConfig(const std::string& path)
{
    return RequireNoProblem(ReadAndCheck(Config::LoadFile(path), FolderOf(path)));
}

ServerConfig MakeBuiltInServerConfig()
{
    return RequireNoProblem(ReadAndCheck(Config::LoadText(kBuiltInText, std::string(kBuiltInName)), {}));
}

std::string_view GetBuiltInServerConfigText()
{
    return kBuiltInText;
}

std::vector<ConfigProblem> CheckServerConfig(const std::string& path)
{
    try
    {
        return ReadAndCheck(Config::LoadFile(path), FolderOf(path)).problems;
    }
    catch (const ConfigError& error)
    {
        return error.GetProblems();
    }
}

std::string DescribeServerConfigCheck(const std::string& path, const std::vector<ConfigProblem>& problems)
{
    std::string text;
    for (const ConfigProblem& problem : problems)
    {
        text += Describe(path, problem) + "\n";
    }
    const std::string count = problems.empty() ? "no" : std::to_string(problems.size());
    return text + path + ": " + count + (problems.size() == 1 ? " problem\n" : " problems\n");
}

} // namespace ps_ns
