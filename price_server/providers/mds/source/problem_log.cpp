#include "mds/problem_log.h"

#include "logging/logging.h"

#include <numeric>
#include <utility>

namespace ps_ns
{
namespace
{

constexpr std::size_t kQuotedLength = 160;

const char* Describe(ProblemKind kind)
{
    switch (kind)
    {
    case ProblemKind::FieldCount:
        return "wrong number of fields";
    case ProblemKind::BadNumber:
        return "bad number";
    case ProblemKind::OutOfRange:
        return "price or quantity out of range";
    case ProblemKind::UnknownEvent:
        return "unknown event";
    case ProblemKind::UnknownSide:
        return "unknown side";
    case ProblemKind::LevelOutsideImage:
        return "level outside an image";
    case ProblemKind::NoName:
        return "market or symbol is empty";
    case ProblemKind::TimeBackwards:
        return "time goes backwards";
    case ProblemKind::TimeAhead:
        return "time leaps ahead of the rows around it";
    case ProblemKind::LineTooLong:
        return "line too long";
    case ProblemKind::CutMessage:
        return "message without its last row";
    case ProblemKind::UnknownMarket:
        return "market is not in the market table";
    case ProblemKind::BadHeader:
        return "unexpected header";
    case ProblemKind::Unreadable:
        return "unreadable";
    case ProblemKind::None:
    case ProblemKind::kCount:
        break;
    }
    return "problem";
}

std::string Quote(std::string_view text)
{
    std::string quoted(text.substr(0, kQuotedLength));
    for (char& c : quoted)
    {
        if (c < ' ' || c > '~')
        {
            c = '?';
        }
    }
    return text.size() > kQuotedLength ? quoted + "..." : quoted;
}

} // namespace

const std::shared_ptr<const zel::logging::Source>& MdsLogSource()
{
    static const std::shared_ptr<const zel::logging::Source> kSource =
        std::make_shared<const zel::logging::Source>("mds");
    return kSource;
}

ProblemSink LogProblems()
{
    return [](const std::string& problem)
    { zel::logging::Log(30, MdsLogSource(), [&](std::ostream& text) { text << problem; }); };
}

ProblemSink KeepSilent()
{
    return [](const std::string&) {};
}

ProblemLog::ProblemLog(std::string file, ProblemSink sink)
    : m_file(std::move(file))
    , m_sink(std::move(sink))
{
}

void ProblemLog::Report(ProblemKind kind, std::uint64_t line, std::string_view what)
{
    if (++m_counts[static_cast<std::size_t>(kind)] > kWrittenOfAKind)
    {
        return;
    }
    const std::string where = line == 0 ? m_file : m_file + ":" + std::to_string(line);
    m_sink(where + ": " + Describe(kind) + ": " + Quote(what));
}

void ProblemLog::Summarise()
{
    for (std::size_t kind = 0; kind < m_counts.size(); ++kind)
    {
        if (m_counts[kind] > kWrittenOfAKind)
        {
            m_sink(m_file + ": " + Describe(static_cast<ProblemKind>(kind)) + ": " + std::to_string(m_counts[kind]) +
                   " in all, the first " + std::to_string(kWrittenOfAKind) + " are above");
        }
    }
}

std::uint64_t ProblemLog::GetTotal() const
{
    return std::accumulate(m_counts.begin(), m_counts.end(), std::uint64_t{0});
}

} // namespace ps_ns
