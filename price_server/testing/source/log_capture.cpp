#include "testing/log_capture.h"

#include <utility>

namespace ps_ns::testing
{
namespace
{

class EventSink final : public zel::logging::ISink
{
public:
    explicit EventSink(EventLog& events)
        : m_events(events)
    {
    }
    void Write(const zel::logging::Record& record) noexcept override
    {
        m_events.Add("log " + std::to_string(record.level) + " " + std::to_string(record.tag) + " " +
                     std::to_string(record.decodeType) + " " + std::string(record.text));
    }

private:
    EventLog& m_events;
};

class ActingSink final : public zel::logging::ISink
{
public:
    ActingSink(std::string part, std::function<void()> action)
        : m_part(std::move(part))
        , m_action(std::move(action))
    {
    }
    void Write(const zel::logging::Record& record) noexcept override
    {
        next->Write(record);
        if (!m_isActing && record.text.find(m_part) != std::string_view::npos)
        {
            m_isActing = true;
            m_action();
            m_isActing = false;
        }
    }

    std::shared_ptr<zel::logging::ISink> next;

private:
    const std::string m_part;
    const std::function<void()> m_action;
    bool m_isActing = false;
};

} // namespace

LogHook::LogHook(std::string part, std::function<void()> action)
{
    const auto sink = std::make_shared<ActingSink>(std::move(part), std::move(action));
    // Nobody writes between the two: the tests that use it have one thread.
    m_previousSink = zel::logging::Logger::SetSink(nullptr);
    sink->next = m_previousSink;
    zel::logging::Logger::SetSink(sink);
}

LogHook::~LogHook()
{
    zel::logging::Logger::SetSink(m_previousSink);
}

LogCapture::LogCapture(EventLog& events)
    : m_previousLevel(zel::logging::g_minLogLevel.exchange(0))
    , m_previousSink(zel::logging::Logger::SetSink(std::make_shared<EventSink>(events)))
{
}

LogCapture::~LogCapture()
{
    zel::logging::Logger::SetSink(m_previousSink);
    zel::logging::g_minLogLevel.store(m_previousLevel);
}

std::string LogLine(int level, unsigned tag, const std::string& text)
{
    return "log " + std::to_string(level) + " " + std::to_string(tag) + " 1 " + text;
}

std::string LogLine(int level, const std::string& text)
{
    return LogLine(level, 13, text);
}

} // namespace ps_ns::testing
