#pragma once

#include "logging/logging.h"

#include <chrono>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace ps_ns::broker_soak
{

/// What publisher and provider have written into the log, with the time of each record: where the time of a slow
/// recovery went. Keeps what has been written since the last Clear.
///
/// Threads: any.
class Trace final : public zel::logging::ISink
{
public:
    using Clock = std::chrono::steady_clock;

    void Write(const zel::logging::Record& record) noexcept override
    {
        if (record.source->GetName() == "zel")
        {
            Note(std::string(record.text));
        }
    }
    void Note(std::string text)
    {
        const std::lock_guard lock(m_mutex);
        m_lines.push_back({Clock::now(), std::move(text)});
    }
    void Clear()
    {
        const std::lock_guard lock(m_mutex);
        m_lines.clear();
    }
    /// With milliseconds since `begin`.
    void Print(Clock::time_point begin) const
    {
        const std::lock_guard lock(m_mutex);
        for (const Line& line : m_lines)
        {
            const std::chrono::duration<double, std::milli> time = line.time - begin;
            std::printf("    %8.1f ms  %s\n", time.count(), line.text.c_str());
        }
    }

private:
    struct Line
    {
        Clock::time_point time;
        std::string text;
    };

    mutable std::mutex m_mutex;
    std::vector<Line> m_lines; ///< under m_mutex
};

} // namespace ps_ns::broker_soak
