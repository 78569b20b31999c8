#pragma once

#include "async/thread_pool.h"
#include "common/queue_reader.h"
#include "composite_instrument/local_observer_factory.h"
#include "cycles/callback_watch.h"
#include "cycles/late_provider.h"
#include "logging/logging.h"
#include "mds/mds_provider.h"
#include "price_unifier/source/composite_subscription_mgr.h"
#include "simple_subscription/simple_subscription_mgr.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace ps_ns::cycles
{

/// What the replay has done so far.
struct ReplayProgress
{
    std::atomic<std::uint64_t> messages{0};
    std::atomic<std::uint64_t> epoch{0}; ///< passes over the recordings
};

/// What there was at one moment of the run.
struct Sample
{
    std::uint64_t cycles = 0;
    double residentMegabytes = 0;
    std::size_t subscriptions = 0; ///< composite ones, in the registry
    std::int64_t observers = 0;
    std::uint64_t queued = 0;
    std::size_t updatesInFlight = 0;
    std::size_t lateListeners = 0;
};

/// Megabytes of this process in memory.
double GetResidentMegabytes();

/// The parts of a price server, wired as the server does and on threads of their own: recorded files in a loop at full
/// speed, a second provider that never decides, executors, timers, the data queue with its reader, the manager.
///
/// Threads: Start, Stop and the destructor are the owner's; what is below "for clients" may be called from any thread
/// in between.
class ReplayServer
{
public:
    explicit ReplayServer(bool skipUnchangedSnapshots);
    /// Stops.
    ~ReplayServer();
    ReplayServer(const ReplayServer&) = delete;
    ReplayServer& operator=(const ReplayServer&) = delete;

    /// Returns when the directory has been read.
    void Start();
    /// The server's stopping order, up to the manager's end and the registry's.
    void Stop();

    // --- For clients ---

    CompositeSubscriptionMgr& GetManager() noexcept { return *m_manager; }
    SimpleSubscriptionMgr& GetSimple() noexcept { return *m_simple; }
    MdsProvider& GetMds() noexcept { return *m_mds; }
    std::shared_ptr<MdsProvider> ShareMds() const { return m_mds; }
    LateProvider& GetLate() noexcept { return *m_late; }
    CallbackWatch& GetWatch() noexcept { return *m_watch; }
    LocalObserverFactory& GetFactory() noexcept;
    const ReplayProgress& GetProgress() const noexcept { return *m_progress; }
    /// Changes that the manager has rejected because one of the same symbol was under way.
    std::uint64_t GetRejectedChanges() const;
    /// Direct subscribes that it has refused, as its log tells.
    std::uint64_t GetRefusals() const;
    short GetMarketId(const std::string& name) const { return m_simple->GetMarkets().FindByName(name)->id; }

    void PostToQueue(std::function<void()> task);
    /// Runs a task on the queue thread, behind everything that this thread has requested. Throws after the deadline.
    void RunOnQueue(std::function<void()> task);
    /// Returns when what this thread has requested is done, and what that posted to the executors has run.
    void Fence();
    /// Returns when nothing is left to do: no action, no answer owed, nothing on the executors.
    void Settle();
    /// The server's check of undecided symbols, which also notes how many subscriptions go from ZEL to MDS. On the
    /// queue thread.
    void CheckPending();

    /// Counts cycles, and takes a sample at each fifth of `allCycles`.
    void NoteCycles(std::uint64_t count, std::uint64_t allCycles);
    std::uint64_t GetCycles() const { return m_cycles.load(); }
    /// After the clients have gone.
    const std::vector<Sample>& GetSamples() const noexcept { return m_samples; }

    // What the gauges are made of. Composite subscriptions that flexible clients have opened with either provider:
    std::uint64_t zelOpened = 0; ///< queue thread
    std::uint64_t mdsOpened = 0; ///< queue thread
    std::uint64_t switched = 0;  ///< queue thread: counted over from ZEL to MDS
    // And the requests of direct clients.
    std::atomic<std::uint64_t> accepted{0};
    std::atomic<std::uint64_t> duplicates{0};   ///< of those: told 12
    std::atomic<std::uint64_t> unsubscribed{0}; ///< by handle
    std::atomic<std::uint64_t> missing{0};      ///< of those: told 13

private:
    class Factory;
    class ErrorWatch;

    std::vector<std::thread::id> FindPoolThreads();
    Sample TakeSample(std::uint64_t cycles);

    const std::shared_ptr<ReplayProgress> m_progress = std::make_shared<ReplayProgress>();
    const int m_oldLogLevel;
    std::shared_ptr<zel::logging::ISink> m_oldSink;
    std::shared_ptr<ErrorWatch> m_errors;
    std::shared_ptr<ThreadPool> m_pool;
    std::unique_ptr<SimpleSubscriptionMgr> m_simple;
    std::shared_ptr<MdsProvider> m_mds;
    std::shared_ptr<LateProvider> m_late;
    DataQueue<DataMsgTask> m_queue;
    QueueReader<> m_reader;
    std::unique_ptr<CallbackWatch> m_watch;
    std::unique_ptr<Factory> m_factory;
    std::unique_ptr<CompositeSubscriptionMgr> m_manager;

    std::atomic<std::uint64_t> m_cycles{0};
    std::mutex m_sampleMutex;
    std::vector<Sample> m_samples; ///< under m_sampleMutex
};

} // namespace ps_ns::cycles
