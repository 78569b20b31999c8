#include "line_format.h"
#include "logging/sinks.h"

#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>

#include <cstdio>
#include <exception>
#include <stdexcept>
#include <utility>

namespace zel::logging
{
namespace
{

constexpr int kFlushedLevel = 30; // what needs attention must survive the process

/// Makes the whole line itself; spdlog's sink locks, appends the line feed and writes.
class StreamSink final : public ISink
{
public:
    StreamSink(Format format, std::shared_ptr<spdlog::sinks::sink> stream, std::string name)
        : m_format(format)
        , m_stream(std::move(stream))
        , m_name(std::move(name))
    {
        m_stream->set_pattern("%v");
    }

    void Write(const Record& record) noexcept override
    {
        std::string line;
        try
        {
            line = m_format == Format::Text ? detail::FormatText(record) : detail::FormatJson(record);
            m_stream->log({record.time, {}, {}, spdlog::level::info, line});
            if (record.level >= kFlushedLevel)
            {
                m_stream->flush();
            }
        }
        catch (const std::exception& error)
        {
            Report(error.what(), line);
        }
    }

    void Flush() noexcept override
    {
        try
        {
            m_stream->flush();
        }
        catch (const std::exception& error)
        {
            Report(error.what(), "none: flushing");
        }
    }

private:
    /// The log is where failures are told; when it fails itself, standard error is what is left.
    void Report(const char* reason, const std::string& line) const noexcept
    {
        std::fprintf(stderr, "log %s: %s; the record: %s\n", m_name.c_str(), reason, line.c_str());
    }

    const Format m_format;
    const std::shared_ptr<spdlog::sinks::sink> m_stream; ///< has a lock of its own
    const std::string m_name;                            ///< for Report
};

} // namespace

std::shared_ptr<ISink> MakeStreamSink(Format format, const std::string& path)
{
    if (path.empty())
    {
        return std::make_shared<StreamSink>(format, std::make_shared<spdlog::sinks::stderr_sink_mt>(), "stderr");
    }
    try
    {
        return std::make_shared<StreamSink>(format, std::make_shared<spdlog::sinks::basic_file_sink_mt>(path), path);
    }
    catch (const spdlog::spdlog_ex& error)
    {
        throw std::runtime_error("log file '" + path + "': " + error.what());
    }
}

} // namespace zel::logging
