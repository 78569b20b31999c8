#include "test_queue.h"

#include <boost/system/error_code.hpp>

namespace ps_ns::test
{

void HandDrivenTimers::Expire()
{
    for (const Armed& armed : std::exchange(m_armed, {}))
    {
        if (const auto task = armed.task.lock())
        {
            task->asioHandler({}, armed.armingId);
        }
    }
}

} // namespace ps_ns::test
