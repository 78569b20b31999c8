#include "renames_section.h"

#include "server_config_schema.h"

#include "config/detail/quoted.h"
#include "server/rename_file.h"

#include <optional>
#include <utility>

namespace ps_ns
{

using detail::Quoted;

namespace
{

class SectionReader
{
public:
    SectionReader(const XmlDocument& document, const std::filesystem::path& folder,
                  const std::map<std::string, short>& marketIdByName)
        : m_document(document)
        , m_folder(folder)
        , m_marketIdByName(marketIdByName)
    {
    }

    RenamesSection Read(std::size_t section)
    {
        for (const std::size_t file : m_document.FindChildren(section, "File"))
        {
            ReadFile(m_document.GetElements()[file]);
        }
        for (const std::size_t rename : m_document.FindChildren(section, "Rename"))
        {
            ReadRename(m_document.GetElements()[rename]);
        }
        return std::move(m_section);
    }

private:
    void Report(const XmlElement& element, std::string text)
    {
        m_section.problems.push_back({element.line, std::move(text)});
    }

    /// Empty: it is not there.
    std::string Text(const XmlElement& element, std::string_view name) const
    {
        const XmlAttribute* const attribute = m_document.FindAttribute(element, name);
        return attribute == nullptr ? "" : attribute->value;
    }

    std::optional<short> ReadMarket(const XmlElement& element)
    {
        const std::string name = Text(element, "market");
        const auto market = m_marketIdByName.find(name);
        if (name.empty())
        {
            return std::nullopt;
        }
        if (market == m_marketIdByName.end())
        {
            Report(element, "the market " + Quoted(name) + " of " + detail::Tag(element.name) + " is not in <Markets>");
            return std::nullopt;
        }
        return market->second;
    }

    void ReadFile(const XmlElement& element)
    {
        const std::string path = Text(element, "path");
        if (path.empty() || m_lineByFile.size() >= kMaxRenamesFiles)
        {
            return;
        }
        const std::string resolved = (m_folder / path).string();
        const std::optional<short> marketId = ReadMarket(element);
        const auto [first, isFirst] = m_lineByFile.try_emplace({resolved, Text(element, "market")}, element.line);
        if (!isFirst)
        {
            Report(element, "the renames file " + Quoted(resolved) + " is there already, on line " +
                                std::to_string(first->second));
            return;
        }
        const RenameFile file = ReadRenameFile(resolved);
        for (const ConfigProblem& problem : file.problems)
        {
            Report(element, "the renames file " + Quoted(resolved) + ", line " + std::to_string(problem.line) + ": " +
                                problem.text);
        }
        for (const RenameFile::Row& row : file.rows)
        {
            m_section.renames.push_back({marketId, row.oldSymbol, row.newSymbol, row.time_ns});
        }
    }

    void ReadRename(const XmlElement& element)
    {
        RenameSettings rename{ReadMarket(element), Text(element, "oldSymbol"), Text(element, "newSymbol"), 0};
        const std::optional<std::uint64_t> time_ns = ReadTime(element);
        if (!rename.oldSymbol.empty() && rename.oldSymbol == rename.newSymbol)
        {
            Report(element, "<Rename> makes the symbol " + Quoted(rename.oldSymbol) + " itself");
        }
        else if (time_ns)
        {
            rename.time_ns = *time_ns;
            m_section.renames.push_back(std::move(rename));
        }
    }

    std::optional<std::uint64_t> ReadTime(const XmlElement& element)
    {
        const std::string lastDay = Text(element, "lastDay");
        const std::string time = Text(element, "time");
        if (lastDay.empty() == time.empty())
        {
            Report(element, "<Rename> needs either \"lastDay\", the last day of the old symbol, or \"time\", the first "
                            "moment of the new one");
            return std::nullopt;
        }
        const bool isDay = time.empty();
        const auto time_ns = isDay ? ParseLastDay(lastDay) : ParseUtcTime(time);
        if (!time_ns)
        {
            Report(element, std::string("attribute \"") + (isDay ? "lastDay" : "time") +
                                "\" in <Rename>: " + Quoted(isDay ? lastDay : time) + " is not " +
                                std::string(isDay ? kExpectedLastDay : kExpectedUtcTime));
        }
        return time_ns;
    }

    const XmlDocument& m_document;
    const std::filesystem::path& m_folder;
    const std::map<std::string, short>& m_marketIdByName;
    std::map<std::pair<std::string, std::string>, std::size_t> m_lineByFile; ///< by path and market
    RenamesSection m_section;
};

} // namespace

RenamesSection ReadRenamesSection(const XmlDocument& document, std::size_t section, const std::filesystem::path& folder,
                                  const std::map<std::string, short>& marketIdByName)
{
    return SectionReader(document, folder, marketIdByName).Read(section);
}

} // namespace ps_ns
