#include "async/async_dispatcher.h"

namespace ps_ns
{

AsyncDispatcher::AsyncDispatcher(const std::string& name)
    : m_name(name)
    , m_service(MakeTimerService(name))
{
}

AsyncDispatcher::~AsyncDispatcher()
{
    Shutdown();
}

void AsyncDispatcher::Shutdown()
{
    m_service->Shutdown();
}

} // namespace ps_ns
