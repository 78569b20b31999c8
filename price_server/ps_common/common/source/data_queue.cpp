#include "common/data_queue.h"

namespace ps_ns
{
namespace detail
{

const std::shared_ptr<const zel::logging::Source>& DataQueueLogSource()
{
    static const auto source = std::make_shared<const zel::logging::Source>("data_queue");
    return source;
}

} // namespace detail

template class DataQueue<DataMsgTask>;

} // namespace ps_ns
