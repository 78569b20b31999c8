#include "broker/flow.h"

#include "composite_price/fixed_point.h"

#include <chrono>
#include <future>
#include <stdexcept>

namespace ps_ns::broker_soak
{
namespace
{

using Clock = std::chrono::steady_clock;

constexpr std::int64_t kTick = kPriceUnitsPerOne / 100;
constexpr std::int64_t kReach_ticks = 25;
constexpr auto kStep = std::chrono::milliseconds(1);

NatsOptions MakeNatsOptions(const std::string& broker)
{
    NatsOptions options;
    options.url = broker;
    options.lastValuesBytes = 64'000'000; // as price_publisher: they must not get in the way
    options.clientName = "broker_soak";
    return options;
}

std::vector<SourceInstrument> MakeInstruments(std::size_t count)
{
    std::vector<SourceInstrument> instruments(count);
    for (std::size_t i = 0; i < count; ++i)
    {
        instruments[i].marketId = kMarketId;
        instruments[i].market = kMarket;
        instruments[i].symbol = GetSymbol(i);
        instruments[i].format.fractionDigits = 2;
    }
    return instruments;
}

} // namespace

std::string GetSymbol(std::size_t instrument)
{
    return "I" + std::to_string(instrument);
}

Flow::Flow(FlowOptions options)
    : m_options(std::move(options))
    , m_instruments(MakeInstruments(m_options.instruments))
    , m_transport(MakeNatsOptions(m_options.broker))
    , m_publisher(m_transport)
    , m_random(m_options.seed)
    , m_thread([this] { Run(); })
{
}

Flow::~Flow()
{
    m_isStopping.store(true);
    m_thread.join();
    m_transport.Stop();
}

void Flow::Run()
{
    m_publisher.Start(m_instruments);
    for (InstrumentIndex instrument = 0; instrument < m_instruments.size(); ++instrument)
    {
        PublishNext(true, instrument);
    }
    auto due = Clock::now();
    while (!m_isStopping.load())
    {
        m_publisher.Tick();
        RunTasks();
        due = std::max(due + kStep, Clock::now() - 20 * kStep); // a thread that was held up does not catch up for long
        if (due > Clock::now())
        {
            m_publisher.WaitForWork(due);
        }
        for (unsigned i = 0; !m_isPaused && i < std::max(1U, m_options.messagesPerSecond / 1000); ++i)
        {
            PublishNext(false,
                        static_cast<InstrumentIndex>(m_random.Below(static_cast<std::int64_t>(m_instruments.size()))));
        }
    }
}

void Flow::RunTasks()
{
    std::vector<std::function<void(ZelPublisher&)>> tasks;
    {
        const std::lock_guard lock(m_mutex);
        tasks.swap(m_tasks);
    }
    for (const auto& task : tasks)
    {
        task(m_publisher);
    }
}

void Flow::PublishNext(bool isImage, InstrumentIndex instrument)
{
    m_message.Clear();
    m_message.instrument = instrument;
    m_message.epoch = 1;
    m_message.isImage = isImage;
    m_message.receiveTime_ns = ++m_lastTime_ns;
    const std::int64_t middle = 10'000 + instrument;
    for (std::int64_t changes = isImage ? 20 : 1 + m_random.Below(3); changes > 0; --changes)
    {
        const bool isBid = m_random.Once(2);
        const std::int64_t distance = 1 + m_random.Below(kReach_ticks);
        m_message.changes.push_back({(isBid ? middle - distance : middle + distance) * kTick,
                                     m_random.Below(4) * kQuantityUnitsPerOne, 0,
                                     isBid ? BookSideType::Bid : BookSideType::Ask});
    }
    if (m_options.onMessage)
    {
        m_options.onMessage(m_message);
    }
    m_publisher.Publish(m_message);
    m_messages.fetch_add(1, std::memory_order_relaxed);
}

void Flow::RunOnThread(std::function<void(ZelPublisher&)> task)
{
    const auto hasRun = std::make_shared<std::promise<void>>();
    {
        const std::lock_guard lock(m_mutex);
        m_tasks.push_back(
            [task = std::move(task), hasRun](ZelPublisher& publisher)
            {
                task(publisher);
                hasRun->set_value();
            });
    }
    if (hasRun->get_future().wait_for(std::chrono::seconds(60)) != std::future_status::ready)
    {
        throw std::runtime_error("the flow's thread is stuck");
    }
}

void Flow::WaitForMessages(std::uint64_t messages) const
{
    const std::uint64_t begin = m_messages.load();
    const auto deadline = Clock::now() + std::chrono::seconds(60);
    while (m_messages.load() < begin + messages && Clock::now() < deadline)
    {
        std::this_thread::sleep_for(kStep);
    }
}

void Flow::Pause()
{
    RunOnThread([this](ZelPublisher&) { m_isPaused = true; });
}

void Flow::Resume()
{
    RunOnThread([this](ZelPublisher&) { m_isPaused = false; });
}

} // namespace ps_ns::broker_soak
