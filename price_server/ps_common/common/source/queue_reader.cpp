#include "common/queue_reader.h"

#include "common/channel_task.h"

#include <exception>

namespace ps_ns
{
namespace
{

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

std::size_t RunDry(DataQueue<DataMsgTask>& queue)
{
    std::size_t count = 0;
    while (Task* const task = queue.take())
    {
        RunTask(queue, task);
        ++count;
    }
    return count;
}

} // namespace ps_ns
