#pragma once

#include "zel/lease_keeper.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace ps_ns
{

/// A lease keeper with a thread and a clock: what a price server runs to own shards.
///
/// The clock goes on while the machine is suspended: who wakes up does not take an old lease for a good one.
///
/// Threads: Start, Stop and the destructor are the owner's. The events come on a thread of its own, and from within
/// Stop. The queries may be called from any thread, also from within the events.
class ShardService
{
public:
    ShardService(std::unique_ptr<ILeaseStore> store, LeaseOptions options, LeaseKeeper::Events events);
    /// Stops.
    ~ShardService();
    ShardService(const ShardService&) = delete;
    ShardService& operator=(const ShardService&) = delete;

    void Start();
    /// Gives the leases back, and waits a moment for the stores to have taken that. Idempotent.
    void Stop();

    ShardView GetView() const;
    /// Who serves it, as far as is known; this server too. Nothing: nobody, as it seems.
    std::optional<ServerNotice> FindServer(std::uint32_t shard) const;
    const std::string& GetSession() const noexcept { return m_session; }

private:
    void Run();
    void Publish();

    const std::unique_ptr<ILeaseStore> m_store;
    const LeaseOptions m_options;
    const std::string m_session;
    LeaseKeeper m_keeper; ///< the own thread's, while there is one
    std::atomic<bool> m_isStopping{false};

    mutable std::mutex m_mutex;
    ShardView m_view; ///< under m_mutex
    std::thread m_thread;
};

} // namespace ps_ns
