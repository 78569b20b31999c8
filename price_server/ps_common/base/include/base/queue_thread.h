#pragma once

#include "base/thread_annotations.h"

namespace ps_ns
{

/// The role of the one thread that runs a data queue's tasks. Members that belong to that thread are marked
/// PS_GUARDED_BY(g_queueThreadRole); every action opens with AssertOnQueueThread.
inline Role g_queueThreadRole;

/// Marks the calling thread as the reader of a queue for as long as the object lives. The queue's readers hold one
/// around each task; a test that plays the queue thread holds one too. Scopes nest: an inner one hides the outer.
class QueueThreadScope
{
public:
    explicit QueueThreadScope(const void* queue) noexcept;
    ~QueueThreadScope();
    QueueThreadScope(const QueueThreadScope&) = delete;
    QueueThreadScope& operator=(const QueueThreadScope&) = delete;

private:
    const void* m_outer;
};

/// True when the calling thread is inside a QueueThreadScope of this queue.
bool IsQueueThread(const void* queue) noexcept;

/// Ends the process with a message when an operation that belongs to the queue thread runs elsewhere. Compiled out
/// with NDEBUG.
void AssertOnQueueThread(const void* queue) noexcept PS_ASSERT_ROLE(g_queueThreadRole);

} // namespace ps_ns
