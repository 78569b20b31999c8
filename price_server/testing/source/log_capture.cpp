#include "testing/log_capture.h"

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

} // namespace

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
