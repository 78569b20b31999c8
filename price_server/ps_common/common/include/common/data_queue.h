#pragma once

#include "base/cache_line.h"
#include "common/block_pool.h"
#include "common/task.h"
#include "logging/logging.h"
#include "metrics/metrics.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace ps_ns
{

/// What a node of the queue holds: the task to run. One is allocated for each insert.
struct DataMsgTask
{
    Task* task;

    static void* operator new(std::size_t size) { return BlockPool::Allocate(size); }
    static void operator delete(void* element, std::size_t size) noexcept { BlockPool::Free(element, size); }
};

/// A linked queue for any number of producers and one consumer: the one way by which work reaches the thread that owns
/// the manager's maps.
///
/// It is the classic two-lock queue. The list always holds one dummy node at its head; producers append at the tail
/// under a spin lock that is held for two pointer stores, the consumer advances the head under a lock of its own, and
/// the two meet only in the `next` pointer of the last node. No insert wakes anybody: the consumer looks
/// (queue_reader.h).
///
/// Threads: insert() from any thread; take() from one, for the order's sake: two that take at the same time get
/// different tasks; shutdown() from the owner's.
///
/// The consumer takes several tasks at once, and takes them off the count at once: both sides write it, and its line
/// would go to and fro with each of them.
///
/// Ownership: the queue owns the tasks in it. Its destructor disposes, without running them, of those nobody took; no
/// producer may be inside insert() by then.
///
/// Limits: the spin lock has no back-off. With more producers than cores, a producer that loses the processor while it
/// holds the lock stalls the others for a scheduler's slice: keep producers few.
///
/// `Element` is the element type; it must be built from {Task*} and have a member `task`.
template <class Element>
class DataQueue
{
public:
    /// `name` is used in messages; `depthGauge` follows the number of queued tasks and may be a null handle.
    DataQueue(std::string name, zel::metrics::Gauge depthGauge);
    ~DataQueue();
    DataQueue(const DataQueue&) = delete;
    DataQueue& operator=(const DataQueue&) = delete;

    /// Appends a task, or disposes of it when the queue is shut down; that is logged at level 0. The caller does not
    /// touch the task afterwards. Throws std::bad_alloc, in which case the task has been disposed of and nothing is
    /// queued.
    void insert(Task* task);

    /// Takes the oldest task off the queue; null when there is none.
    Task* take();
    /// Takes the oldest tasks off the queue, in their order, as many as there are and `tasks` has room for; returns how
    /// many these are. They count as queued until uncount() is told of them.
    std::size_t take(std::span<Task*> tasks);
    /// `count` of the tasks that were taken together are no longer queued. To be called before the last of them runs: a
    /// task that finds no other one counted is then right, as it is when each is taken by itself.
    void uncount(std::size_t count) noexcept;

    /// Refuses tasks from now on; what is queued stays for the consumer. One-way.
    void shutdown() noexcept { m_shutdown.store(true); }
    bool isShutdown() const noexcept { return m_shutdown.load(); }

    /// Number of queued tasks, with those that the consumer has taken together and is still at; and the largest such
    /// number so far. Concurrent inserts may lower the mark by one.
    std::uint64_t size() const noexcept { return m_size.load(); }
    std::uint64_t maxSize() const noexcept { return m_maxSize.load(); }

    /// The longest that a producer has waited for another one since the last call, in nanoseconds: what the spin lock
    /// costs when its holder loses the processor. Inserts that find the lock free are not timed.
    std::uint64_t takeLongestWait_ns() noexcept { return m_longestWait_ns.exchange(0); }

    const std::string& name() const noexcept { return m_name; }

private:
    /// A whole cache line each, so that the consumer's reads of one node do not disturb the producer that fills the
    /// next.
    struct alignas(kCacheLineSize) Node
    {
        Element* value = nullptr;
        std::atomic<Node*> next{nullptr};

        /// The pool's blocks of this size lie on lines of their own; an over-aligned `new` costs three times as much.
        static void* operator new(std::size_t size) { return BlockPool::Allocate(size); }
        static void operator delete(void* node, std::size_t size) noexcept { BlockPool::Free(node, size); }
    };
    static_assert(sizeof(Node) == kCacheLineSize && alignof(Node) == kCacheLineSize);

    /// A hot member on a cache line of its own.
    template <class Member>
    struct alignas(kCacheLineSize) OnOwnLine
    {
        Member value{};
    };
    static_assert(sizeof(OnOwnLine<std::atomic<Node*>>) == kCacheLineSize);
    static_assert(alignof(OnOwnLine<std::atomic<bool>>) == kCacheLineSize);

    void refuse(Task* task);
    void link(Node* node) noexcept;
    static void unpack(Node* dummy, std::span<Task*> tasks) noexcept;
    static void prefetchTask(const Task* task) noexcept;
    void noteWait(std::chrono::steady_clock::time_point begin) noexcept;

    // The consumer's side.
    OnOwnLine<Node*> m_head; ///< the dummy; under m_consumerLock
    OnOwnLine<std::atomic<bool>> m_consumerLock;

    // The producers' side.
    OnOwnLine<std::atomic<Node*>> m_tail; ///< the last node; stored under m_producerLock
    OnOwnLine<std::atomic<bool>> m_producerLock;
    std::atomic<bool> m_shutdown{false}; ///< set by the owner, read by every producer
    const std::string m_name;
    zel::metrics::Gauge m_depthGauge;

    // Both sides': apart from what producers only read, or they would fetch the line twice, to read and then to write.
    alignas(kCacheLineSize) std::atomic<std::uint64_t> m_size{0};
    std::atomic<std::uint64_t> m_maxSize{0};
    std::atomic<std::uint64_t> m_longestWait_ns{0};
};

/// The queue of the price server. Compiled once, in the library.
extern template class DataQueue<DataMsgTask>;

} // namespace ps_ns

#include "common/detail/data_queue_impl.h"
