#include "server/terminal.h"

#include <cstdlib>
#include <string_view>
#include <sys/ioctl.h>
#include <unistd.h>

namespace ps_ns
{

std::string EnterScreen()
{
    return "\x1b[?1049h\x1b[?25l\x1b[2J";
}

std::string LeaveScreen()
{
    return "\x1b[0m\x1b[?25h\x1b[?1049l";
}

std::string DrawScreen(const std::vector<std::string>& lines)
{
    std::string text = "\x1b[H";
    for (std::size_t i = 0; i < lines.size(); ++i)
    {
        // No line break after the last line: it would scroll the screen.
        text += (i == 0 ? "" : "\r\n") + lines[i] + "\x1b[K";
    }
    return text + "\x1b[J";
}

bool IsLadderTerminal(int descriptor)
{
    const char* const type = std::getenv("TERM");
    return ::isatty(descriptor) == 1 && type != nullptr && std::string_view(type) != "dumb" && *type != '\0';
}

ScreenSize GetScreenSize(int descriptor)
{
    winsize size{};
    if (::ioctl(descriptor, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0)
    {
        return {};
    }
    return {size.ws_col, size.ws_row};
}

bool WantsColors()
{
    const char* const forbids = std::getenv("NO_COLOR");
    return forbids == nullptr || *forbids == '\0';
}

void HeldRecords::Write(const zel::logging::Record& record) noexcept
{
    if (record.level < kLeastLevel)
    {
        return;
    }
    try
    {
        const std::lock_guard lock(m_mutex);
        if (m_lines.size() == kMost)
        {
            m_lines.erase(m_lines.begin());
        }
        m_lines.emplace_back(record.text);
    }
    catch (...) // NOLINT(bugprone-empty-catch): no memory for a record, and nobody to tell
    {
    }
}

std::string HeldRecords::GetNewest() const
{
    const std::lock_guard lock(m_mutex);
    return m_lines.empty() ? std::string() : m_lines.back();
}

std::vector<std::string> HeldRecords::GetAll() const
{
    const std::lock_guard lock(m_mutex);
    return m_lines;
}

} // namespace ps_ns
