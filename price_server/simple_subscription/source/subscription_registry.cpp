#include "simple_subscription/subscription_registry.h"

#include <memory>

namespace ps_ns
{

SubscriptionRegistry::~SubscriptionRegistry()
{
    // One at a time, and outside the lock: a subscription's destructor leaves the registry by itself.
    for (;;)
    {
        std::unique_ptr<EnrolledSubscription> last;
        {
            const std::lock_guard lock(m_mutex);
            if (m_subscriptions.empty())
            {
                return;
            }
            last.reset(m_subscriptions.extract(m_subscriptions.begin()).value());
        }
    }
}

void SubscriptionRegistry::Enrol(EnrolledSubscription* subscription)
{
    const std::lock_guard lock(m_mutex);
    m_subscriptions.insert(subscription);
}

void SubscriptionRegistry::Leave(EnrolledSubscription* subscription) noexcept
{
    const std::lock_guard lock(m_mutex);
    m_subscriptions.erase(subscription);
}

std::size_t SubscriptionRegistry::GetSize() const
{
    const std::lock_guard lock(m_mutex);
    return m_subscriptions.size();
}

} // namespace ps_ns
