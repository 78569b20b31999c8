#pragma once

/// clang's thread-safety annotations; nothing under other compilers.
///
/// libstdc++'s std::mutex carries no capability, so PS_GUARDED_BY on it would warn falsely. We annotate with empty
/// "roles" instead: one for the queue thread (queue_thread.h), and one beside each mutex, taken by ScopedRoleLock
/// together with it.

#include <mutex>

#if defined(__clang__)
#define PS_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define PS_THREAD_ANNOTATION(x)
#endif

#define PS_CAPABILITY(name) PS_THREAD_ANNOTATION(capability(name))
#define PS_SCOPED_CAPABILITY PS_THREAD_ANNOTATION(scoped_lockable)
#define PS_GUARDED_BY(role) PS_THREAD_ANNOTATION(guarded_by(role))
#define PS_REQUIRES(...) PS_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define PS_EXCLUDES(...) PS_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define PS_ACQUIRE(...) PS_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define PS_RELEASE(...) PS_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define PS_ASSERT_ROLE(role) PS_THREAD_ANNOTATION(assert_capability(role))
#define PS_NO_THREAD_ANALYSIS PS_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace ps_ns
{

/// A capability without state: what holds it is a thread or a lock that the compiler cannot see by itself.
class PS_CAPABILITY("role") Role
{
};

/// Locks a mutex for a scope, and takes its role, so that members marked PS_GUARDED_BY(role) may be touched.
/// Unlock() releases both early; the destructor then does nothing.
class PS_SCOPED_CAPABILITY ScopedRoleLock
{
public:
    /// Blocks until the mutex is held. Throws std::system_error when locking fails.
    ScopedRoleLock(std::mutex& mutex, Role& role) PS_ACQUIRE(role)
        : m_lock(mutex)
    {
        static_cast<void>(role);
    }
    ~ScopedRoleLock() PS_RELEASE() {}
    ScopedRoleLock(const ScopedRoleLock&) = delete;
    ScopedRoleLock& operator=(const ScopedRoleLock&) = delete;

    void Unlock() PS_RELEASE() { m_lock.unlock(); }

private:
    std::unique_lock<std::mutex> m_lock;
};

} // namespace ps_ns
