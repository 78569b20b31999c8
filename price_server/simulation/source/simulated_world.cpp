#include "simulation/simulated_world.h"

#include "base/queue_thread.h"
#include "composite_price/default_composite_price_factory.h"
#include "composite_price/fixed_point.h"
#include "config/config.h"
#include "logging/logging.h"
#include "simulated_observers.h"
#include "simulated_provider.h"
#include "simulation/expectations.h"

#include <algorithm>
#include <stdexcept>

namespace ps_ns::simulation
{
namespace
{

/// Addresses differ from run to run: they are written as "*", but for a null one.
std::string HideAddresses(std::string_view text)
{
    std::string hidden(text);
    for (std::size_t at = hidden.find("0x"); at != std::string::npos; at = hidden.find("0x", at))
    {
        const std::size_t end = hidden.find_first_not_of("0123456789abcdef", at + 2);
        hidden.replace(at, (end == std::string::npos ? hidden.size() : end) - at, "*");
    }
    return hidden;
}

class RecordingSink final : public zel::logging::ISink
{
public:
    explicit RecordingSink(Recorder& recorder)
        : m_recorder(recorder)
    {
    }
    void Write(const zel::logging::Record& record) noexcept override
    {
        m_recorder.Add(SpellLog(record.level, record.tag, record.source->GetName(), HideAddresses(record.text)) +
                       (record.decodeType == zel::logging::kDefaultDecodeType ? "" : " with another decode type"));
    }

private:
    Recorder& m_recorder;
};

} // namespace

// --- Recorder --------------------------------------------------------------------------------------------------------

const char* Recorder::GetPlace() const
{
    return testing::HandDrivenExecutors::IsInsideTask() ? "executor" : IsQueueThread(m_queue) ? "queue" : "caller";
}

void Recorder::AddCallback(const std::string& observer, std::string text)
{
    Add(std::move(text));
    if (const auto owed = throwsOwed.find(observer); owed != throwsOwed.end() && owed->second != 0)
    {
        --owed->second;
        throw std::runtime_error(GetThrownText(observer));
    }
}

void Recorder::AddData(Data data)
{
    const auto owed = dataThrowsOwed.find(data.observer);
    data.throws = owed != dataThrowsOwed.end() && owed->second != 0;
    data.isOnExecutor = testing::HandDrivenExecutors::IsInsideTask();
    const std::string observer = data.observer;
    const bool throws = data.throws;
    m_entries.push_back({"", static_cast<int>(m_data.size())});
    m_data.push_back(std::move(data));
    if (throws)
    {
        --owed->second;
        throw std::runtime_error(GetThrownText(observer));
    }
}

std::vector<Recorder::Entry> Recorder::TakeEntries()
{
    return std::exchange(m_entries, {});
}

// --- SimulatedWorld --------------------------------------------------------------------------------------------------

struct SimulatedWorld::LogScope
{
    explicit LogScope(Recorder& recorder)
        : level(zel::logging::g_minLogLevel.exchange(0))
        , sink(zel::logging::Logger::SetSink(std::make_shared<RecordingSink>(recorder)))
    {
    }
    ~LogScope()
    {
        zel::logging::Logger::SetSink(sink);
        zel::logging::g_minLogLevel.store(level);
    }
    LogScope(const LogScope&) = delete;
    LogScope& operator=(const LogScope&) = delete;

    const int level;
    const std::shared_ptr<zel::logging::ISink> sink;
};

SimulatedWorld::SimulatedWorld(const Conditions& conditions, bool skipsUnchanged)
    : recorder(&queue.Get())
    , executors(std::make_shared<testing::HandDrivenExecutors>())
    , simple(std::make_unique<SimpleSubscriptionMgr>(
          MarketTable({{1, "ONE", static_cast<unsigned>(GetMarketDefaults(1).defaultDepth),
                        static_cast<unsigned>(GetMarketDefaults(1).maxDepth), 0},
                       {2, "TWO", static_cast<unsigned>(GetMarketDefaults(2).defaultDepth),
                        static_cast<unsigned>(GetMarketDefaults(2).maxDepth), 50}}),
          executors, std::make_shared<AsyncDispatcher>("SimpleSubscriptionMgr")))
    , manager(std::make_unique<CompositeSubscriptionMgr>(simple.get()))
    , factory(std::make_unique<SimulatedObserverFactory>(recorder))
{
    for (const std::string& name : GetDirectObserverNames())
    {
        directObservers.push_back(std::make_shared<SimulatedObserver>(name, recorder));
    }
    for (const std::string& name : GetFlexibleObserverNames())
    {
        flexibleObservers.push_back(std::make_shared<SimulatedFlexibleObserver>(name, recorder));
    }
    if (conditions.hasZel)
    {
        m_providers.push_back(std::make_shared<SimulatedProvider>(ProviderType::Zel, conditions, recorder, m_lastLink));
    }
    m_providers.push_back(std::make_shared<SimulatedProvider>(ProviderType::Mds, conditions, recorder, m_lastLink));
    for (const auto& provider : m_providers)
    {
        simple->AddProvider(provider);
    }
    m_log = std::make_unique<LogScope>(recorder);
    static const auto all = Config::LoadText("<PriceServer><General/></PriceServer>", "simulation");
    static const auto changes =
        Config::LoadText("<PriceServer><General SkipUnchangedSnapshots='1'/></PriceServer>", "simulation");
    manager->UnitTestInit(skipsUnchanged ? changes : all, &queue.Get(),
                          std::make_shared<DefaultCompositePriceFactory>());
    recorder.TakeEntries();
}

SimulatedWorld::~SimulatedWorld()
{
    End();
}

void SimulatedWorld::RunQueue()
{
    try
    {
        queue.RunOne();
    }
    catch (const std::exception& error)
    {
        recorder.Add(SpellThrown(error.what()));
    }
}

void SimulatedWorld::RunExecutor(std::size_t executor)
{
    try
    {
        executors->RunOne(executor);
    }
    catch (const std::exception& error)
    {
        recorder.Add(SpellThrown(error.what()));
    }
}

std::shared_ptr<IComponentListener> SimulatedWorld::FindListener(int link)
{
    for (const auto& provider : m_providers)
    {
        if (auto listener = provider->Find(link))
        {
            return listener;
        }
    }
    throw std::logic_error("there is no link " + std::to_string(link));
}

void SimulatedWorld::Answer(int link, Result result, const PriceFormat& format)
{
    FindListener(link)->OnSubscribed(result, format);
}

void SimulatedWorld::AnswerUnsubscribe(int link, bool ok, int times)
{
    for (const auto& provider : m_providers)
    {
        const auto listener = provider->Release(link);
        for (int i = 0; listener != nullptr && i < times; ++i)
        {
            listener->OnUnsubscribed(ok);
        }
    }
}

void SimulatedWorld::DropUnsubscribe(int link)
{
    for (const auto& provider : m_providers)
    {
        provider->Release(link);
    }
}

BookUpdate MakeBook(int link, bool isImage, unsigned levels, std::uint32_t variant)
{
    BookUpdate update;
    update.isImage = isImage;
    update.epoch = static_cast<std::uint64_t>(link); // each subscribe begins anew
    for (unsigned i = 0; i < levels; ++i)
    {
        const auto step = static_cast<std::int64_t>(i);
        const auto quantity = static_cast<std::int64_t>(variant % 7 + 1 + i + static_cast<unsigned>(link) % 5);
        update.changes.push_back(
            {(1000 - step) * kPriceUnitsPerOne, quantity * kQuantityUnitsPerOne, 0, BookSideType::Bid});
        update.changes.push_back(
            {(1001 + step) * kPriceUnitsPerOne, quantity * kQuantityUnitsPerOne, 0, BookSideType::Ask});
    }
    return update;
}

void SimulatedWorld::SendBook(int link, bool isImage, unsigned levels, std::uint32_t variant)
{
    FindListener(link)->OnBook(std::make_shared<const BookUpdate>(MakeBook(link, isImage, levels, variant)));
}

void SimulatedWorld::SendTrade(int link)
{
    auto trades = std::make_shared<std::vector<Trade>>(1);
    trades->front().price = 1000 * kPriceUnitsPerOne;
    trades->front().quantity = kQuantityUnitsPerOne;
    FindListener(link)->OnTrades(std::move(trades));
}

void SimulatedWorld::SendCustomFields(int link)
{
    FindListener(link)->OnCustomFields(std::make_shared<CustomFields>());
}

void SimulatedWorld::LearnSymbol(short marketId, const std::string& symbol)
{
    for (const auto& provider : m_providers)
    {
        if (provider->GetType() == ProviderType::Mds)
        {
            provider->Directory().Add({{marketId, -1}, symbol, "EX", {}, {}});
        }
    }
}

void SimulatedWorld::CompleteMarket(ProviderType::Value type, short marketId)
{
    for (const auto& provider : m_providers)
    {
        if (provider->GetType() == type)
        {
            provider->Directory().MarkComplete(marketId);
        }
    }
}

std::vector<std::string> SimulatedWorld::End()
{
    if (manager == nullptr)
    {
        return {};
    }
    const auto runQueue = [this]
    {
        while (queue.GetWaiting() != 0)
        {
            RunQueue();
        }
    };
    recorder.throwsOwed.clear();
    manager->Shutdown();
    for (const auto& provider : m_providers)
    {
        provider->Stop();
    }
    runQueue();
    queue.Get().shutdown();
    runQueue();
    executors->Stop();
    manager.reset();
    std::vector<std::string> left;
    std::size_t listeners = 0;
    simple.reset();
    for (const auto& provider : m_providers)
    {
        listeners += provider->GetLivingListeners();
    }
    recorder.TakeEntries();
    recorder.TakeData();
    if (listeners != 0)
    {
        left.push_back(std::to_string(listeners) + " listeners are left");
    }
    const auto check = [&left](const auto& observers)
    {
        for (const auto& observer : observers)
        {
            if (observer.use_count() != 1)
            {
                left.push_back("observer " + observer->GetName() + " is held " +
                               std::to_string(observer.use_count() - 1) + " times");
            }
        }
    };
    check(directObservers);
    check(flexibleObservers);
    return left;
}

} // namespace ps_ns::simulation
