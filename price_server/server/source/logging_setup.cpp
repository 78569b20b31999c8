#include "server/logging_setup.h"

#include "server/server_config.h"

#include <utility>

namespace ps_ns
{

using zel::logging::Logger;

LoggingSetup::LoggingSetup(const LoggingSettings& settings, std::shared_ptr<zel::logging::ISink> sink)
    : m_previousLevel(zel::logging::g_minLogLevel.load())
{
    if (sink == nullptr)
    {
        sink = zel::logging::MakeStreamSink(settings.format, settings.file);
    }
    m_sink = std::make_shared<zel::logging::AsyncSink>(std::move(sink), settings.queue);
    m_previousSink = Logger::SetSink(m_sink);
    zel::logging::g_minLogLevel.store(settings.level);
}

LoggingSetup::~LoggingSetup()
{
    zel::logging::g_minLogLevel.store(m_previousLevel);
    // The asynchronous sink dies here, unless another thread is just writing to it: in either case all is written.
    const std::shared_ptr<zel::logging::ISink> last = Logger::SetSink(std::move(m_previousSink));
    m_sink.reset();
    last->Flush();
}

} // namespace ps_ns
