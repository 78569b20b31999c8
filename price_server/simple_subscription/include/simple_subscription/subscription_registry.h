#pragma once

#include <cstddef>
#include <iosfwd>
#include <mutex>

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

private:
    friend class SubscriptionRegistry;

    // Its place in the registry's list; under the registry's lock.
    EnrolledSubscription** m_link = nullptr; ///< what points here; null: not enrolled
    EnrolledSubscription* m_next = nullptr;
};

/// Every composite subscription there is. The manager leaves some of them to nobody (a failed first subscription, what
/// its maps hold when it dies): those are deleted with the registry, so that none leaks.
///
/// They are kept in a list that runs through the subscriptions themselves, the newest first: with a hundred thousand of
/// them a table of its own would take a block and a look-up for each.
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

    /// Nothing happens when it is enrolled already.
    void Enrol(EnrolledSubscription* subscription) noexcept;
    /// Nothing happens when it is not enrolled. It must not be enrolled in another registry.
    void Leave(EnrolledSubscription* subscription) noexcept;

    std::size_t GetSize() const;

    /// Calls `visit` for each enrolled subscription, in no order. On the data-queue thread, so that none is deleted
    /// meanwhile; `visit` must not enrol or delete one.
    template <class Visit>
    void ForEach(Visit&& visit) const
    {
        const std::lock_guard lock(m_mutex);
        for (const EnrolledSubscription* at = m_first; at != nullptr; at = at->m_next)
        {
            visit(*at);
        }
    }

private:
    /// Under m_mutex.
    void Unlink(EnrolledSubscription* subscription) noexcept;

    mutable std::mutex m_mutex;
    EnrolledSubscription* m_first = nullptr; ///< under m_mutex
    std::size_t m_size = 0;                  ///< under m_mutex
};

} // namespace ps_ns
