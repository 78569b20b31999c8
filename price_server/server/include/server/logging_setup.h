#pragma once

#include "logging/sinks.h"

#include <cstdint>
#include <memory>

namespace ps_ns
{

struct LoggingSettings;

/// Has the process log as the settings say, and puts back what was before when it dies; by then everything is written.
///
/// Threads: the owner's. One at a time in a process.
class LoggingSetup
{
public:
    /// Records go to `sink` when it is given, otherwise where the settings say. Throws std::runtime_error, naming the
    /// file, when it cannot be opened.
    LoggingSetup(const LoggingSettings& settings, std::shared_ptr<zel::logging::ISink> sink);
    ~LoggingSetup();
    LoggingSetup(const LoggingSetup&) = delete;
    LoggingSetup& operator=(const LoggingSetup&) = delete;

    /// Records that were lost because the queue of the log was full.
    std::uint64_t GetDroppedCount() const noexcept { return m_sink->GetDroppedCount(); }

private:
    const int m_previousLevel;
    std::shared_ptr<zel::logging::AsyncSink> m_sink;
    std::shared_ptr<zel::logging::ISink> m_previousSink;
};

} // namespace ps_ns
