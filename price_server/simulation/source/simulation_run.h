#pragma once

#include "simulation/expectations.h"
#include "simulation/reference_manager.h"
#include "simulation/simulated_world.h"
#include "simulation/simulation.h"

#include <map>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

namespace ps_ns::simulation
{

/// The two sides differ.
class Difference : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/// One run: takes operations to both sides and compares.
class SimulationRun
{
public:
    SimulationRun(const Scenario& scenario, const RunOptions& options);

    /// Throws Difference.
    void Step(const Operation& operation);
    /// Runs everything out, compares what every client sees, and ends both sides.
    void End(bool settled);

    RunResult TakeResult();

    RunResult result;

private:
    using Numbers = std::array<std::uint32_t, 4>;

    void Do(const Operation& operation);
    bool DoRequest(const Operation& operation);
    bool DoProvider(const Operation& operation);
    void DoCondition(const Operation& operation);
    void DoDirectSubscribe(const Numbers& numbers, bool isLeg);
    void DoHandleRequest(const Operation& operation);
    void DoSynthetic(const Operation& operation);

    void RunQueue();
    void RunExecutor(short marketId);
    std::size_t GetExecutor(short marketId) const;
    bool IsIdle(short marketId) const;
    void RunEverything();

    // What operations choose.
    const CompositeInstrumentDef& ChooseInstrument(std::uint32_t number) const;
    unsigned long ChooseHandle(std::uint32_t number) const;
    /// An instrument, observer and id that are subscribed, more often than not.
    std::tuple<const CompositeInstrumentDef*, std::size_t, unsigned long> ChooseClient(const Numbers& numbers) const;
    std::optional<int> ChooseLink(std::uint32_t number, bool isUnsubscribing) const;
    void LearnNewSymbol(const Numbers& numbers);

    // Comparison: simulation_compare.cpp.
    void CompareEvents();
    void CompareExecutorEvents(short marketId);
    void ExpectSnapshot(short marketId, const Recorder::Data& data);
    void CompareState();
    void CompareSubscriptions();
    void CompareHandles();
    void ComparePending();
    void CompareChanges();
    void CompareGauges();
    void CompareLeftovers();
    void JudgeData(const Recorder::Data& data);
    void JudgeBook(const Recorder::Data& data, int depth);
    void ExpectThatThrowIsLogged(const Recorder::Data& data, const std::vector<Recorder::Entry>& entries,
                                 std::size_t& index);
    void CompareBooks();
    void CompareBooksOf(const ReferenceSubscription& subscription);
    template <class Value>
    static void Same(const char* what, const Value& real, const Value& model)
    {
        if (!(real == model))
        {
            std::ostringstream text;
            text << what << ": the manager has " << real << ", the model " << model;
            throw Difference(text.str());
        }
    }
    void Trace(const std::string& event);
    std::string GetCounts(const ReferenceSubscription& subscription) const;

    const RunOptions m_options;
    Conditions m_conditions;
    Expectations m_expectations;
    SimulatedWorld m_world;
    ReferenceManager m_model;

    /// The real subscriptions by the model's numbers.
    std::map<int, const CompositeInstrumentSubscription*> m_realByNumber;
    struct Counts
    {
        unsigned books = 0;
        unsigned trades = 0;
        unsigned customFields = 0;
    };
    std::map<int, Counts> m_counts; ///< data callbacks by subscription
    /// The newest book of each client, and what else a client may see until its executor is idle: the largest depth it
    /// has asked for, and which kinds.
    struct Seen
    {
        std::shared_ptr<const MergedOrderBook> book;
        CompositeSubscriptionInfo widest;
        bool isWide = false;
    };
    std::map<std::pair<int, unsigned long>, Seen> m_seen; ///< by subscription and id; id 0: the own observer
    void Widen(const ReferenceSubscription& subscription);
    Seen& GetSeen(int subscription, unsigned long id, const CompositeSubscriptionInfo& info);
};

} // namespace ps_ns::simulation
