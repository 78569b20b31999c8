#include "composite_instrument/subscription_result.h"

namespace ps_messages_ns
{
namespace
{

struct Text
{
    std::string_view name;
    std::string_view meaning;
};

Text GetText(SubscriptionResult::Value value) noexcept
{
    switch (value)
    {
    case SubscriptionResult::Success:
        return {"Success", "The component is subscribed."};
    case SubscriptionResult::DuplicateSubscription:
        return {"DuplicateSubscription", "The instrument has a composite subscription already."};
    case SubscriptionResult::NoSubscription:
        return {"NoSubscription", "There is no composite subscription for the instrument."};
    case SubscriptionResult::DirectSubscriptionFailed:
        return {"DirectSubscriptionFailed", "The components could not be subscribed; a new request starts afresh."};
    case SubscriptionResult::DuplicateSubscriptionId:
        return {"DuplicateSubscriptionId", "The subscription id is taken on this instrument."};
    case SubscriptionResult::UnknownSubscriptionId:
        return {"UnknownSubscriptionId", "The subscription id is unknown, or another observer subscribed with it."};
    case SubscriptionResult::SubscribeComponentsFailed:
        return {"SubscribeComponentsFailed", "The components could not be subscribed."};
    case SubscriptionResult::Refused:
        return {"Refused", "The instrument has a handle already, or is synthetic."};
    case SubscriptionResult::Accepted:
        return {"Accepted", "The request is queued."};
    case SubscriptionResult::None:
        return {"None", "The component has not answered yet."};
    }
    return {"Unknown", "Not a result that this server gives."};
}

} // namespace

std::string_view SubscriptionResult::GetName(Value value) noexcept
{
    return GetText(value).name;
}

std::string_view SubscriptionResult::GetMeaning(Value value) noexcept
{
    return GetText(value).meaning;
}

} // namespace ps_messages_ns
