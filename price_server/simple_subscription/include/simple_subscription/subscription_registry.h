#pragma once

#include <cstddef>
#include <iosfwd>
#include <mutex>
#include <unordered_set>

namespace ps_ns
{

/// What the registry knows of a composite subscription.
class EnrolledSubscription
{
public:
    virtual ~EnrolledSubscription() = default;
    EnrolledSubscription(const EnrolledSubscription&) = delete;
    EnrolledSubscription& operator=(const EnrolledSubscription&) = delete;

    /// One line for a dump. Called on the data-queue thread.
    virtual void Describe(std::ostream& out) const = 0;

protected:
    EnrolledSubscription() = default;
};

/// Every composite subscription there is. The manager leaves some of them to nobody (a failed first subscription, what
/// its maps hold when it dies): those are deleted with the registry, so that none leaks.
///
/// Threads: Enrol and Leave from any thread.
/// Ownership: an enrolled subscription is the manager's to delete, until the registry dies.
class SubscriptionRegistry
{
public:
    SubscriptionRegistry() = default;
    /// Deletes what is still enrolled.
    ~SubscriptionRegistry();
    SubscriptionRegistry(const SubscriptionRegistry&) = delete;
    SubscriptionRegistry& operator=(const SubscriptionRegistry&) = delete;

    void Enrol(EnrolledSubscription* subscription);
    void Leave(EnrolledSubscription* subscription) noexcept;

    std::size_t GetSize() const;

    /// Calls `visit` for each enrolled subscription, in no order. On the data-queue thread, so that none is deleted
    /// meanwhile; `visit` must not enrol or delete one.
    template <class Visit>
    void ForEach(Visit&& visit) const
    {
        const std::lock_guard lock(m_mutex);
        for (const EnrolledSubscription* subscription : m_subscriptions)
        {
            visit(*subscription);
        }
    }

private:
    mutable std::mutex m_mutex;
    std::unordered_set<EnrolledSubscription*> m_subscriptions; ///< under m_mutex
};

} // namespace ps_ns
