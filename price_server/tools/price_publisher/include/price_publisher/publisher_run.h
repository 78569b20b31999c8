#pragma once

#include "mds/market_source.h"
#include "mds/paced_runner.h"
#include "mds/rename_plan.h"
#include "price_publisher/options.h"
#include "price_publisher/progress.h"
#include "zel/zel_publisher.h"

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

namespace ps_ns::price_publisher
{

/// Plays a market source into a publisher, at its pace.
///
/// Threads: one. Ownership: the transport is not owned, and outlives this.
class PublisherRun
{
public:
    using Clock = std::chrono::steady_clock;

    /// `isStopped` is asked every few milliseconds; `show` is called a few times a second, and may be empty.
    PublisherRun(std::unique_ptr<IMarketSource> source, IProviderTransport& transport, const Options& options,
                 std::function<bool()> isStopped, std::function<void(const ProgressSample&)> show);

    /// Until the end that was asked for. Throws std::runtime_error when the source has no data.
    ExitCode Run();

    ZelPublisherCounts GetCounts() const { return m_publisher.GetCounts(); }

    /// Asked every few milliseconds before the first message, which waits for true; empty: it does not wait. The
    /// instruments are listed meanwhile. Set before Run.
    std::function<bool()> mayBegin;

private:
    /// Does what is due until then; false: the end has come.
    bool ServeUntil(Clock::time_point until);
    bool WaitForBroker();
    bool IsAtEnd() const;
    void Show();
    void PlayAll();
    void PublishNext();
    void MakeDueRenames(std::uint64_t sourceTime_ns);

    const std::unique_ptr<IMarketSource> m_source;
    IProviderTransport& m_transport;
    const Options m_options;
    const std::function<bool()> m_isStopped;
    const std::function<void(const ProgressSample&)> m_show;
    ZelPublisher m_publisher;
    Pace m_pace;
    MarketMessage m_message;
    std::optional<RenamePlan> m_plan; ///< made at the first message
    std::size_t m_stepsMade = 0;
    std::uint64_t m_sourceTime_ns = 0;
    bool m_hasEnded = false;
    bool m_wasConnected = false;
    Clock::time_point m_end;
    Clock::time_point m_nextShow{};
};

} // namespace ps_ns::price_publisher
