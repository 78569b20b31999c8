#pragma once

#include "composite_instrument/local_observer_factory.h"
#include "composite_price/merged_order_book.h"
#include "price_unifier/source/composite_subscription_mgr.h"
#include "simple_subscription/i_price_provider.h"
#include "simple_subscription/simple_subscription_mgr.h"
#include "simulation/stage.h"
#include "testing/hand_driven_executors.h"
#include "testing/hand_driven_queue.h"
#include "testing/hand_driven_time.h"
#include "testing/manager_test_access.h"

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace ps_ns::simulation
{

/// What happens on the real side of a run: events of results, spelled as the model spells them, and data callbacks,
/// which are judged by themselves.
class Recorder
{
public:
    enum class DataKind
    {
        Book,
        Trades,
        CustomFields
    };
    struct Data
    {
        DataKind kind;
        std::string observer;
        unsigned long id; ///< 0: a direct or local observer
        CompositeInstrumentDef def;
        std::shared_ptr<const MergedOrderBook> book; ///< null for trades and fields
        bool isOnExecutor;
        bool throws;
    };
    /// One event, or one data callback: `data` is an index when there is one.
    struct Entry
    {
        std::string text;
        int data = -1;
    };

    explicit Recorder(const void* queue)
        : m_queue(queue)
    {
    }
    void Add(std::string text) { m_entries.push_back({std::move(text), -1}); }
    /// A callback with a result; throws what the observer owes.
    void AddCallback(const std::string& observer, std::string text);
    /// A callback with data; throws what the observer owes for data.
    void AddData(Data data);
    std::vector<Entry> TakeEntries();
    std::vector<Data> TakeData() { return std::exchange(m_data, {}); }
    const char* GetPlace() const;

    std::map<std::string, unsigned> throwsOwed;     ///< by observer, for results
    std::map<std::string, unsigned> dataThrowsOwed; ///< by observer, for data

private:
    const void* const m_queue;
    std::vector<Entry> m_entries;
    std::vector<Data> m_data;
};

class SimulatedProvider;

/// The real manager on its real collaborators, with providers and observers that do what the conditions say, and with
/// queue, executors and time in the run's hand.
class SimulatedWorld
{
public:
    SimulatedWorld(const Conditions& conditions, bool skipsUnchanged);
    ~SimulatedWorld();
    SimulatedWorld(const SimulatedWorld&) = delete;
    SimulatedWorld& operator=(const SimulatedWorld&) = delete;

    /// Run the oldest task, as a reader would; what it throws is recorded.
    void RunQueue();
    void RunExecutor(std::size_t executor);

    // --- The providers' moves, by a link's number ---

    void Answer(int link, Result result, const PriceFormat& format);
    void AnswerUnsubscribe(int link, bool ok, int times);
    void DropUnsubscribe(int link);
    /// `levels` a side, or a change of the best ones when it is no image.
    void SendBook(int link, bool isImage, unsigned levels, std::uint32_t variant);
    void SendTrade(int link);
    void SendCustomFields(int link);

    void LearnSymbol(short marketId, const std::string& symbol);
    void CompleteMarket(ProviderType::Value provider, short marketId);

    /// Ends everything in the server's order; returns what is left over, one line each.
    std::vector<std::string> End();

    CompositeSubscriptionMgrTestAccess Access() { return CompositeSubscriptionMgrTestAccess(*manager); }

    testing::HandDrivenTime time;
    testing::HandDrivenQueue queue;
    Recorder recorder;
    std::shared_ptr<testing::HandDrivenExecutors> executors;
    std::unique_ptr<SimpleSubscriptionMgr> simple;
    std::unique_ptr<CompositeSubscriptionMgr> manager;
    std::unique_ptr<LocalObserverFactory> factory;
    std::vector<std::shared_ptr<ICompositePriceObserver>> directObservers;
    std::vector<std::shared_ptr<IFlexiblePriceObserver>> flexibleObservers;

private:
    std::shared_ptr<IComponentListener> FindListener(int link);

    struct LogScope;
    std::unique_ptr<LogScope> m_log;
    std::vector<std::shared_ptr<SimulatedProvider>> m_providers;
    int m_lastLink = 0;
};

/// The levels of the book that a link sends: `levels` a side, told apart by link and variant.
BookUpdate MakeBook(int link, bool isImage, unsigned levels, std::uint32_t variant);

} // namespace ps_ns::simulation
