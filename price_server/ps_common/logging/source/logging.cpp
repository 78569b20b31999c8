#include "logging/logging.h"

#include "logging/sinks.h"

#include <mutex>
#include <shared_mutex>

#include <unistd.h>

namespace zel::logging
{
namespace
{

struct State
{
    std::shared_mutex mutex;
    std::shared_ptr<ISink> sink = MakeStreamSink(Format::Text); ///< under mutex; never null
};

/// Never destroyed: threads may log until the process is gone.
State& GetState()
{
    static State& state = *new State;
    return state;
}

std::shared_ptr<ISink> GetSink()
{
    State& state = GetState();
    const std::shared_lock lock(state.mutex);
    return state.sink;
}

} // namespace

std::atomic<int> g_minLogLevel{10};

unsigned long GetThreadNumber() noexcept
{
    thread_local const auto number = static_cast<unsigned long>(::gettid());
    return number;
}

std::shared_ptr<ISink> Logger::SetSink(std::shared_ptr<ISink> sink)
{
    if (!sink)
    {
        sink = MakeStreamSink(Format::Text);
    }
    State& state = GetState();
    const std::unique_lock lock(state.mutex);
    state.sink.swap(sink);
    return sink;
}

void Logger::Write(const Record& record) noexcept
{
    GetSink()->Write(record);
}

void Logger::Flush() noexcept
{
    GetSink()->Flush();
}

} // namespace zel::logging
