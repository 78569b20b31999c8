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
            if (m_first == nullptr)
            {
                return;
            }
            last.reset(m_first);
            Unlink(m_first);
        }
    }
}

void SubscriptionRegistry::Enrol(EnrolledSubscription* subscription) noexcept
{
    const std::lock_guard lock(m_mutex);
    if (subscription->m_link != nullptr)
    {
        return;
    }
    subscription->m_next = m_first;
    subscription->m_link = &m_first;
    if (m_first != nullptr)
    {
        m_first->m_link = &subscription->m_next;
    }
    m_first = subscription;
    ++m_size;
}

void SubscriptionRegistry::Leave(EnrolledSubscription* subscription) noexcept
{
    const std::lock_guard lock(m_mutex);
    if (subscription->m_link != nullptr)
    {
        Unlink(subscription);
    }
}

void SubscriptionRegistry::Unlink(EnrolledSubscription* subscription) noexcept
{
    *subscription->m_link = subscription->m_next;
    if (subscription->m_next != nullptr)
    {
        subscription->m_next->m_link = subscription->m_link;
    }
    subscription->m_link = nullptr;
    subscription->m_next = nullptr;
    --m_size;
}

std::size_t SubscriptionRegistry::GetSize() const
{
    const std::lock_guard lock(m_mutex);
    return m_size;
}

} // namespace ps_ns
