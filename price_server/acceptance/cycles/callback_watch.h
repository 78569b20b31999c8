#pragma once

#include "composite_instrument/composite_component_type.h"
#include "composite_price/merged_order_book.h"
#include "composite_price/trade.h"

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace ps_ns::cycles
{

/// A wait that takes longer has failed: nothing here is meant to take a second.
inline constexpr std::chrono::seconds kDeadline{120};

/// Wakes one client thread when something that it waits for has come.
class Bell
{
public:
    void Ring();
    /// False: the deadline has passed.
    template <class Condition>
    bool WaitUntil(Condition&& condition)
    {
        std::unique_lock lock(m_mutex);
        return m_rung.wait_for(lock, kDeadline, condition);
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_rung;
};

/// Judges callbacks: whether they come on the right thread, one at a time, to somebody who is still there, in order.
/// Collects what was wrong and counts what was right.
///
/// Threads: any. The markets are declared before the first callback.
class CallbackWatch
{
public:
    CallbackWatch(const void* queue, std::vector<std::thread::id> poolThreads, const std::vector<short>& marketIds);

    void Fault(const std::string& text);
    bool HasFaults() const { return m_faultCount.load() != 0; }
    /// The first few; the count of all is at the front.
    std::string PrintFaults() const;

    void ExpectQueueThread(const std::string& callback);

    /// Held for the length of a callback on an executor: it must be one of the pool's threads, and nobody else may be
    /// in a callback of the same market, since all its subscriptions share one strand.
    class OnExecutor
    {
    public:
        OnExecutor(CallbackWatch& watch, short marketId, const char* callback);
        ~OnExecutor() { m_isBusy.store(false); }
        OnExecutor(const OnExecutor&) = delete;
        OnExecutor& operator=(const OnExecutor&) = delete;

    private:
        std::atomic<bool>& m_isBusy;
    };

    // How often.
    std::atomic<std::uint64_t> books{0};
    std::atomic<std::uint64_t> trades{0};
    std::atomic<std::uint64_t> answers{0};
    std::atomic<std::uint64_t> failures{0};
    /// Observers that exist.
    std::atomic<std::int64_t> observers{0};

private:
    const void* const m_queue;
    const std::vector<std::thread::id> m_poolThreads;
    std::map<short, std::atomic<bool>> m_isBusy; ///< by market; constant but for the flags
    std::atomic<std::uint64_t> m_faultCount{0};
    mutable std::mutex m_mutex;
    std::vector<std::string> m_faults; ///< under m_mutex
};

/// What one client of one composite subscription asked for, and what came of it.
struct Delivery
{
    static constexpr std::uint64_t kNoEpoch = ~std::uint64_t{0};

    enum Request : std::size_t
    {
        Subscribe,
        AddScope,
        ChangeScope,
        RemoveScope,
        Unsubscribe,
        RequestCount
    };

    // The client thread's, before it makes the request.
    std::atomic<std::int32_t> maxDepth{0}; ///< the largest ever asked for
    std::atomic<bool> wantsTrades{false};  ///< ever
    std::atomic<std::uint64_t> awaitedEpoch{kNoEpoch};
    /// Set on the queue thread, right behind the request that removes it: of data, only a callback that was running
    /// then may still be seen.
    std::atomic<bool> isRemoved{false};
    /// Everything that was under way at its end has run: nothing may come any more.
    std::atomic<bool> isGone{false};

    std::atomic<std::uint64_t> newestEpoch{0};
    std::array<std::atomic<unsigned>, RequestCount> failures{};

    // The strand's; the client thread's once it is gone.
    std::uint64_t epoch = 0;
    std::uint64_t sequence = 0;
    std::array<unsigned, CompositeComponentType::kCount> answers{}; ///< by component
    unsigned dataAfterRemoval = 0;

    void Ask(std::int32_t depth, bool trades);
    /// At the beginning of each callback with data.
    void NoteData(CallbackWatch& watch, const std::string& who);
    void NoteBook(CallbackWatch& watch, Bell& bell, const std::string& who, const MergedOrderBook& book);
    void NoteTrades(CallbackWatch& watch, const std::string& who, const std::vector<Trade>& list);
    void NoteAnswer(CallbackWatch& watch, const std::string& who, CompositeComponentType::Type component);
    void NoteFailure(CallbackWatch& watch, const std::string& who, Request request);
    unsigned GetFailures(Request request) const { return failures[request].load(); }
};

} // namespace ps_ns::cycles
