#include "price_publisher/publisher_run.h"

#include "logging/logging.h"
#include "zel/zel_log.h"

#include <algorithm>
#include <atomic>
#include <stdexcept>
#include <utility>

namespace ps_ns::price_publisher
{
namespace
{

using std::chrono::milliseconds;

constexpr milliseconds kLook{20}; // how often an end is looked for
constexpr milliseconds kShow{500};
constexpr std::uint64_t kLongestGap_ns = 5'000'000'000; // a longer silence of the source is cut to this
constexpr unsigned kBetweenTicks = 256;                 // messages, at full speed
constexpr milliseconds kFlushPatience{1000};

ZelPublisherOptions MakePublisherOptions(const Options& options)
{
    ZelPublisherOptions publisher;
    publisher.keepsLastValues = options.keepsLastValues;
    return publisher;
}

PublisherRun::Clock::duration ToDuration(double seconds)
{
    return std::chrono::duration_cast<PublisherRun::Clock::duration>(std::chrono::duration<double>(seconds));
}

} // namespace

PublisherRun::PublisherRun(std::unique_ptr<IMarketSource> source, IProviderTransport& transport, const Options& options,
                           std::function<bool()> isStopped, std::function<void(const ProgressSample&)> show)
    : m_source(std::move(source))
    , m_transport(transport)
    , m_options(options)
    , m_isStopped(std::move(isStopped))
    , m_show(std::move(show))
    , m_publisher(transport, MakePublisherOptions(options))
    , m_pace(options.speed, kLongestGap_ns)
    , m_end(options.duration_sec ? Clock::now() + ToDuration(*options.duration_sec) : Clock::time_point::max())
{
}

bool PublisherRun::IsAtEnd() const
{
    return m_isStopped() || Clock::now() >= m_end;
}

void PublisherRun::Show()
{
    const auto now = Clock::now();
    if (m_show && now >= m_nextShow)
    {
        m_nextShow = now + kShow;
        m_show({m_publisher.GetCounts(), m_publisher.IsConnected(), m_hasEnded, m_sourceTime_ns, now});
    }
}

bool PublisherRun::ServeUntil(Clock::time_point until)
{
    do
    {
        if (IsAtEnd())
        {
            return false;
        }
        m_publisher.WaitForWork(std::min(until, Clock::now() + kLook));
        m_publisher.Tick();
        m_wasConnected = m_wasConnected || m_publisher.IsConnected();
        Show();
    } while (Clock::now() < until);
    return true;
}

bool PublisherRun::WaitForBroker()
{
    while (!m_publisher.IsConnected() || m_publisher.GetEpoch() == 0 || (mayBegin && !mayBegin()))
    {
        if (!ServeUntil(Clock::now() + kLook))
        {
            return false;
        }
    }
    return true;
}

ExitCode PublisherRun::Run()
{
    m_source->Check();
    const std::atomic<bool> stop{false};
    m_source->Open(stop);
    if (m_source->GetInstruments().empty())
    {
        throw std::runtime_error("there are no prices to publish");
    }
    m_publisher.Start(m_source->GetInstruments());
    if (WaitForBroker() && ServeUntil(Clock::now() + ToDuration(m_options.delay_sec)))
    {
        PlayAll();
    }
    m_publisher.SaveLastValues();
    const bool hasArrived = m_transport.Flush(kFlushPatience);
    if (!m_wasConnected)
    {
        return ExitCode::NoBroker;
    }
    if (m_options.playsOnce && m_hasEnded && !hasArrived)
    {
        zel::logging::Log(30, ZelLogSource(),
                          [](std::ostream& text) { text << "the broker has not taken the end of the recording"; });
        return ExitCode::Failure;
    }
    return m_source->IsDamaged() ? ExitCode::Failure : ExitCode::Ok;
}

void PublisherRun::PlayAll()
{
    for (unsigned count = 0; !IsAtEnd(); ++count)
    {
        const std::optional<NextMessage> next = m_source->Peek();
        if (!next)
        {
            m_hasEnded = true;
            break;
        }
        if (m_pace.Waits())
        {
            const auto due = m_pace.GetDue(*next, Clock::now());
            if (due > Clock::now() && !ServeUntil(due))
            {
                return;
            }
        }
        if (count % kBetweenTicks == 0)
        {
            m_publisher.Tick(); // also when there is never time to wait
            Show();
            if (!m_pace.Waits())
            {
                m_transport.Flush(kFlushPatience); // no faster than the broker takes it
            }
        }
        PublishNext();
    }
    while (!m_options.playsOnce && ServeUntil(Clock::now() + kLook))
    {
    }
    m_publisher.Tick();
}

void PublisherRun::PublishNext()
{
    if (m_source->Next(m_message))
    {
        m_sourceTime_ns = m_message.sourceTime_ns;
        MakeDueRenames(m_message.sourceTime_ns);
        m_publisher.Publish(m_message);
    }
}

void PublisherRun::MakeDueRenames(std::uint64_t sourceTime_ns)
{
    if (m_options.renames.empty())
    {
        return;
    }
    if (!m_plan)
    {
        m_plan = PlanRenames(m_options.renames, m_source->GetInstruments(), sourceTime_ns);
    }
    while (m_stepsMade < m_plan->steps.size() && m_plan->steps[m_stepsMade].time_ns <= sourceTime_ns)
    {
        m_publisher.Rename(m_plan->steps[m_stepsMade++].renames);
    }
}

} // namespace ps_ns::price_publisher
