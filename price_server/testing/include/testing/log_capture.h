#pragma once

#include "logging/logging.h"
#include "testing/event_log.h"

#include <functional>
#include <memory>
#include <string>

namespace ps_ns::testing
{

/// Records every log record of a scope as "log <level> <tag> <decode type> <text>", from level 0 on.
class LogCapture
{
public:
    explicit LogCapture(EventLog& events);
    /// Puts the sink and the minimum level back.
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

private:
    const int m_previousLevel;
    std::shared_ptr<zel::logging::ISink> m_previousSink;
};

/// Acts in the middle of what is tested: calls `action` behind each record whose text has `part` in it, on the thread
/// that writes it. All records go on to the sink that was there. What the action writes itself sets off nothing; it
/// must not throw. Lives inside a LogCapture's life.
class LogHook
{
public:
    LogHook(std::string part, std::function<void()> action);
    /// Puts the sink back.
    ~LogHook();
    LogHook(const LogHook&) = delete;
    LogHook& operator=(const LogHook&) = delete;

private:
    std::shared_ptr<zel::logging::ISink> m_previousSink;
};

/// A log record as LogCapture records it, with decode type 1.
std::string LogLine(int level, unsigned tag, const std::string& text);
/// With tag 13.
std::string LogLine(int level, const std::string& text);

} // namespace ps_ns::testing
