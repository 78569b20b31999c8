#include "common/queue_reader.h"

#include "common/channel_task.h"

#include <array>
#include <exception>

namespace ps_ns
{
namespace
{

/// Enough to share what they cost together, few enough for the lines of all of them to be at hand.
constexpr std::size_t kTasksAtOnce = 16;

const std::shared_ptr<const zel::logging::Source>& LogSource()
{
    static const auto source = std::make_shared<const zel::logging::Source>("queue_reader");
    return source;
}

void LogThrown(const DataQueue<DataMsgTask>& queue, const Task& task, const char* what)
{
    zel::logging::Log(30, LogSource(),
                      [&](std::ostream& text)
                      {
                          const auto* const named = dynamic_cast<const ChannelTask<Task>*>(&task);
                          text << "DataQueue " << queue.name() << ": task \"" << (named ? named->GetName() : "")
                               << "\" threw: " << what;
                      });
}

} // namespace

void RunTask(const DataQueue<DataMsgTask>& queue, Task* task) noexcept
{
    const QueueThreadScope scope(&queue);
    try
    {
        task->execute();
    }
    catch (const std::exception& error)
    {
        LogThrown(queue, *task, error.what());
    }
    catch (...)
    {
        LogThrown(queue, *task, "something that is no exception");
    }
    DisposeOf(task);
}

std::size_t RunSome(DataQueue<DataMsgTask>& queue)
{
    std::array<Task*, kTasksAtOnce> tasks;
    const std::size_t count = queue.take(tasks);
    for (std::size_t i = 0; i < count; ++i)
    {
        if (i + 1 == count)
        {
            queue.uncount(count);
        }
        RunTask(queue, tasks[i]);
    }
    return count;
}

std::size_t RunDry(DataQueue<DataMsgTask>& queue)
{
    std::size_t total = 0;
    while (const std::size_t count = RunSome(queue))
    {
        total += count;
    }
    return total;
}

} // namespace ps_ns
