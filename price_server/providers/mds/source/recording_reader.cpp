#include "mds/recording_reader.h"

#include <charconv>
#include <cstring>
#include <limits>

namespace ps_ns
{

RecordingReader::RecordingReader(const std::string& path, ProblemLog& problems)
    : m_stream(OpenByteStream(path))
    , m_problems(problems)
    , m_buffer(kBufferSize)
{
}

bool RecordingReader::ReadHeader()
{
    if (m_header == Header::Unread)
    {
        std::string_view line;
        const bool hasLine = NextLine(line);
        m_header = hasLine && line == kRecordingHeader ? Header::Good : Header::Bad;
        if (m_header == Header::Bad && m_stream->GetFailure().empty())
        {
            m_problems.Report(ProblemKind::BadHeader, 1, hasLine ? line : "the file is empty");
        }
    }
    return m_header == Header::Good;
}

bool RecordingReader::NextAlike(AlikeRow& row)
{
    if (m_header != Header::Good || m_end - m_begin < RowParser::kLookAhead ||
        m_parser.GetReceiveTime_ns() != m_time_ns) // a row that was skipped for its time
    {
        return false;
    }
    const char* const next = m_parser.ParseAlike(m_buffer.data() + m_begin, row);
    if (next == nullptr)
    {
        return false;
    }
    m_begin = m_scanned = static_cast<std::size_t>(next - m_buffer.data());
    ++m_line;
    m_oldRows = 0;
    return true;
}

bool RecordingReader::Next(RecordingRow& row)
{
    AlikeRow alike;
    const char* const begin = m_buffer.data() + m_begin;
    if (NextAlike(alike))
    {
        m_parser.Complete(begin, alike, row);
        return true;
    }
    if (!ReadHeader())
    {
        return false;
    }
    std::string_view line;
    while (NextLine(line))
    {
        ProblemKind problem = m_parser.Parse(line, row);
        if (problem == ProblemKind::None)
        {
            problem = CheckTime(line, row);
        }
        if (problem == ProblemKind::None)
        {
            m_time_ns = row.receiveTime_ns;
            m_oldRows = 0;
            return true;
        }
        m_problems.Report(problem, m_line, line);
    }
    return false;
}

ProblemKind RecordingReader::CheckOldTime(std::uint64_t time_ns)
{
    const bool isInOrder = m_oldRows != 0 && time_ns >= m_oldTime_ns;
    m_oldRows = isInOrder ? m_oldRows + 1 : 1;
    m_oldTime_ns = time_ns;
    return m_oldRows > kOldRowsBelieved ? ProblemKind::None : ProblemKind::TimeBackwards;
}

/// May move the line, and what the row points to.
ProblemKind RecordingReader::CheckTime(std::string_view& line, RecordingRow& row)
{
    if (row.receiveTime_ns < m_time_ns)
    {
        return CheckOldTime(row.receiveTime_ns);
    }
    if (row.receiveTime_ns - m_time_ns <= kLeap_ns)
    {
        return ProblemKind::None;
    }
    const std::uint64_t next_ns = PeekNextTime(line);
    m_parser.Parse(line, row);
    return next_ns >= m_time_ns && next_ns < row.receiveTime_ns ? ProblemKind::TimeAhead : ProblemKind::None;
}

/// The time of the row below `line`, which has just been handed out; the largest number when there is none to be read.
/// `line` is where it was, or has been moved with the buffer's content.
std::uint64_t RecordingReader::PeekNextTime(std::string_view& line)
{
    const std::size_t length = line.size();
    auto begin = static_cast<std::size_t>(line.data() - m_buffer.data());
    const std::size_t distance = m_begin - begin; // with the end of line
    constexpr std::size_t kLongestTime = 20;
    while (m_end - m_begin <= kLongestTime && m_end - begin < m_buffer.size() && !m_isAtEnd)
    {
        m_begin = m_scanned = begin; // keeps the line, and moves it to the front
        Refill();
        begin = 0;
        m_begin = m_scanned = m_stream->GetFailure().empty() ? distance : m_end;
    }
    line = {m_buffer.data() + begin, length};
    std::uint64_t time_ns = std::numeric_limits<std::uint64_t>::max();
    const char* const end = m_buffer.data() + m_end;
    const auto [stop, error] = std::from_chars(m_buffer.data() + m_begin, end, time_ns);
    const bool isTime = error == std::errc() && stop != end && *stop == ',';
    return isTime ? time_ns : std::numeric_limits<std::uint64_t>::max();
}

bool RecordingReader::NextLine(std::string_view& line)
{
    for (;;)
    {
        if (m_scanned < m_end)
        {
            const void* const found = std::memchr(m_buffer.data() + m_scanned, '\n', m_end - m_scanned);
            if (found != nullptr)
            {
                const auto at = static_cast<std::size_t>(static_cast<const char*>(found) - m_buffer.data());
                line = {m_buffer.data() + m_begin, at - m_begin};
                if (line.ends_with('\r'))
                {
                    line.remove_suffix(1);
                }
                m_begin = m_scanned = at + 1;
                ++m_line;
                return true;
            }
            m_scanned = m_end;
        }
        if (!Refill())
        {
            return TakeLastLine(line);
        }
    }
}

bool RecordingReader::Refill()
{
    if (m_isAtEnd)
    {
        return false;
    }
    if (m_begin != 0)
    {
        std::memmove(m_buffer.data(), m_buffer.data() + m_begin, m_end - m_begin);
        m_end -= m_begin;
        m_scanned -= m_begin;
        m_begin = 0;
    }
    if (m_end == m_buffer.size())
    {
        SkipLongLine();
        return !m_isAtEnd;
    }
    const std::size_t got = m_stream->Read(m_buffer.data() + m_end, m_buffer.size() - m_end);
    m_end += got;
    m_isAtEnd = got == 0;
    if (m_isAtEnd && !m_stream->GetFailure().empty())
    {
        m_problems.Report(ProblemKind::Unreadable, m_line + 1, m_stream->GetFailure());
        m_begin = m_scanned = m_end; // half a row is no row
    }
    return !m_isAtEnd;
}

/// A file whose last line has no end of line.
bool RecordingReader::TakeLastLine(std::string_view& line)
{
    if (m_begin == m_end)
    {
        return false;
    }
    line = {m_buffer.data() + m_begin, m_end - m_begin};
    m_begin = m_scanned = m_end;
    ++m_line;
    return true;
}

/// The buffer is full and has no end of line in it: drops everything up to the next one.
void RecordingReader::SkipLongLine()
{
    m_problems.Report(ProblemKind::LineTooLong, m_line + 1, {m_buffer.data(), m_buffer.size()});
    ++m_line;
    m_begin = m_scanned = m_end = 0;
    for (;;)
    {
        const std::size_t got = m_stream->Read(m_buffer.data(), m_buffer.size());
        if (got == 0)
        {
            m_isAtEnd = true;
            if (!m_stream->GetFailure().empty())
            {
                m_problems.Report(ProblemKind::Unreadable, m_line + 1, m_stream->GetFailure());
            }
            return;
        }
        if (const void* const found = std::memchr(m_buffer.data(), '\n', got))
        {
            m_begin = m_scanned = static_cast<std::size_t>(static_cast<const char*>(found) - m_buffer.data()) + 1;
            m_end = got;
            return;
        }
    }
}

} // namespace ps_ns
