#pragma once

#include "mds/market_source.h"
#include "mds/seeded_random.h"
#include "zel/nats_transport.h"
#include "zel/zel_publisher.h"

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace ps_ns::broker_soak
{

/// The market that a flow plays.
inline constexpr const char* kMarket = "FLOW";
inline constexpr short kMarketId = 1;

/// "I0", "I1", ...
std::string GetSymbol(std::size_t instrument);

struct FlowOptions
{
    std::string broker;
    std::size_t instruments = 1000;
    unsigned messagesPerSecond = 5000;
    std::uint64_t seed = 1;
    /// Sees every message before the broker does; on the flow's thread. May be empty.
    std::function<void(const MarketMessage&)> onMessage;
};

/// A publisher with a thread that plays random changes of many books at a steady rate. What a seed determines is the
/// messages, not their times.
///
/// Threads: one of its own; all operations are the owner's.
class Flow
{
public:
    explicit Flow(FlowOptions options);
    /// Stops.
    ~Flow();
    Flow(const Flow&) = delete;
    Flow& operator=(const Flow&) = delete;

    /// Runs `task` on the flow's thread, between two messages, and returns when it has run.
    void RunOnThread(std::function<void(ZelPublisher&)> task);
    /// Nothing is published any more, but for what is asked for; returns when that is so.
    void Pause();
    void Resume();

    /// Returns when so many more messages have been published, or a minute has gone.
    void WaitForMessages(std::uint64_t messages) const;
    /// Messages so far. Any thread.
    std::uint64_t GetMessageCount() const noexcept { return m_messages.load(); }
    const std::vector<SourceInstrument>& GetInstruments() const noexcept { return m_instruments; }

private:
    void Run();
    void RunTasks();
    void PublishNext(bool isImage, InstrumentIndex instrument);

    const FlowOptions m_options;
    std::vector<SourceInstrument> m_instruments;
    NatsTransport m_transport;
    ZelPublisher m_publisher;
    SeededRandom m_random;
    MarketMessage m_message;
    std::uint64_t m_lastTime_ns = 0;
    bool m_isPaused = false; ///< own thread
    std::atomic<std::uint64_t> m_messages{0};
    std::atomic<bool> m_isStopping{false};
    std::mutex m_mutex;
    std::condition_variable m_taskRan;
    std::vector<std::function<void(ZelPublisher&)>> m_tasks; ///< under m_mutex
    std::thread m_thread;
};

} // namespace ps_ns::broker_soak
