#include "simulation_run.h"
#include "choose.h"

#include "price_unifier/source/composite_instrument_subscription.h"

#include "logging/logging.h"

#include <algorithm>
#include <chrono>
#include <iterator>

namespace ps_ns::simulation
{

using ps_messages_ns::SubscriptionResult;

namespace
{

/// How the symbols of the components begin.
constexpr std::array<const char*, 3> kPrefixes{"", "IM_", "AI_"};

} // namespace

SimulationRun::SimulationRun(const Scenario& scenario, const RunOptions& options)
    : m_options(options)
    , m_conditions{scenario.withZel, {}, {UnsubscribeOutcome::Later, UnsubscribeOutcome::Later}, {}, {}}
    , m_world(m_conditions, scenario.skipsUnchanged)
    , m_model(
          m_conditions, m_expectations,
          [this](const ReferenceSubscription& subscription) { return GetCounts(subscription); },
          [this](const ReferenceSubscription& subscription)
          {
              const auto found = m_world.Access().Subscriptions().find(CompositeInstrumentID(subscription.def));
              return found != m_world.Access().Subscriptions().end() && found->second->AnySnapshotsReceived();
          })
{
    m_model.expectsGaugeOnFlexibleUnsubscribe = options.modelIsWrong;
    if (scenario.knowsDirectory)
    {
        for (const short market : kMarkets)
        {
            for (const auto provider : {ProviderType::Zel, ProviderType::Mds})
            {
                m_conditions.complete.insert({provider, market});
                m_world.CompleteMarket(provider, market);
            }
        }
    }
}

// --- What operations choose ------------------------------------------------------------------------------------------

const CompositeInstrumentDef& SimulationRun::ChooseInstrument(std::uint32_t number) const
{
    return Choose(GetInstruments(), number);
}

unsigned long SimulationRun::ChooseHandle(std::uint32_t number) const
{
    // Mostly one that is out; now and then any number, 0 and the next one among them.
    if (number % 5 != 0 && !m_model.byHandle.empty())
    {
        auto entry = m_model.byHandle.begin();
        std::advance(entry, static_cast<long>(number / 5 % m_model.byHandle.size()));
        return entry->first;
    }
    return number / 5 % (m_model.nextHandle + 1);
}

std::tuple<const CompositeInstrumentDef*, std::size_t, unsigned long>
SimulationRun::ChooseClient(const Numbers& numbers) const
{
    const CompositeInstrumentDef& def = ChooseInstrument(numbers[0]);
    const auto& names = GetFlexibleObserverNames();
    std::size_t observer = numbers[1] % names.size();
    unsigned long id = numbers[2] % kIdCount + 1;
    const auto live = m_model.live.find(CompositeInstrumentID(def));
    if (numbers[1] % 4 != 0 && live != m_model.live.end() && !live->second->clients.empty())
    {
        id = Choose(live->second->clients, numbers[2]);
        const std::string& name = live->second->scopes.at(id).observer;
        observer = static_cast<std::size_t>(std::find(names.begin(), names.end(), name) - names.begin());
    }
    return {&def, observer, id};
}

std::optional<int> SimulationRun::ChooseLink(std::uint32_t number, bool isUnsubscribing) const
{
    const std::vector<int> links = m_model.providers.GetLinks(isUnsubscribing);
    return links.empty() ? std::nullopt : std::optional<int>(Choose(links, number));
}

// --- Operations ------------------------------------------------------------------------------------------------------

void SimulationRun::Step(const Operation& operation)
{
    if (m_options.keepsTrace)
    {
        std::string line = "> " + std::string(GetName(operation.kind));
        for (const std::uint32_t number : operation.numbers)
        {
            line += " " + std::to_string(number);
        }
        result.trace.push_back(std::move(line));
    }
    Do(operation);
    CompareState();
}

void SimulationRun::Do(const Operation& operation)
{
    ++result.stepCount;
    const Numbers& n = operation.numbers;
    switch (operation.kind)
    {
    case OperationKind::RunQueue:
        for (std::uint32_t i = 0; i <= n[0] % 4; ++i)
        {
            RunQueue();
        }
        return;
    case OperationKind::RunExecutor:
        if (!m_model.executors.empty())
        {
            const short market = Choose(m_model.executors, n[0]);
            for (std::uint32_t i = 0; i <= n[1] % 8; ++i)
            {
                RunExecutor(market);
            }
        }
        return;
    case OperationKind::RunEverything:
        RunEverything();
        return;
    case OperationKind::PassTime:
        m_world.time.Advance(std::chrono::milliseconds(n[0]));
        CompareEvents();
        return;
    default:
        break;
    }
    if (DoRequest(operation) || DoProvider(operation))
    {
        CompareEvents();
        return;
    }
    DoCondition(operation);
}

void SimulationRun::RunQueue()
{
    if (!m_expectations.HasActions())
    {
        return;
    }
    ++result.stepCount;
    m_expectations.RunAction();
    m_world.RunQueue();
    CompareEvents();
    CompareState();
}

std::size_t SimulationRun::GetExecutor(short marketId) const
{
    return static_cast<std::size_t>(std::find(m_model.executors.begin(), m_model.executors.end(), marketId) -
                                    m_model.executors.begin());
}

bool SimulationRun::IsIdle(short marketId) const
{
    return m_world.executors->GetWaiting(GetExecutor(marketId)) == 0;
}

void SimulationRun::RunExecutor(short marketId)
{
    const std::size_t index = GetExecutor(marketId);
    if (m_world.executors->GetWaiting(index) != 0)
    {
        ++result.stepCount;
        m_world.RunExecutor(index);
        CompareExecutorEvents(marketId);
    }
    if (m_world.executors->GetWaiting(index) == 0 && m_expectations.HasCallbacks(marketId))
    {
        throw Difference("a callback is missing: " + m_expectations.TakeCallback(marketId).front());
    }
}

void SimulationRun::RunEverything()
{
    for (bool anyRan = true; anyRan;)
    {
        anyRan = false;
        while (m_expectations.HasActions())
        {
            RunQueue();
            anyRan = true;
        }
        for (std::size_t i = 0; i < m_model.executors.size(); ++i)
        {
            while (m_world.executors->GetWaiting(i) != 0)
            {
                RunExecutor(m_model.executors[i]);
                anyRan = true;
            }
        }
    }
    for (const short market : m_model.executors)
    {
        if (m_expectations.HasCallbacks(market))
        {
            throw Difference("a callback is missing: " + m_expectations.TakeCallback(market).front());
        }
    }
}

bool SimulationRun::DoProvider(const Operation& operation)
{
    const Numbers& n = operation.numbers;
    const bool isUnsubscribing = operation.kind == OperationKind::AnswerUnsubscribe ||
                                 operation.kind == OperationKind::DropUnsubscribe ||
                                 operation.kind == OperationKind::AnswerTooLate;
    // Data comes for what is being unsubscribed too, now and then: nobody must get it.
    const bool isData = operation.kind == OperationKind::SendBook || operation.kind == OperationKind::SendTrade ||
                        operation.kind == OperationKind::SendCustomFields;
    const std::optional<int> link = ChooseLink(n[0], isUnsubscribing || (isData && n[1] % 8 == 7));
    const bool ok = n[1] % 8 != 0;
    const Result answer = ok ? SubscriptionResult::Success : SubscriptionResult::DirectSubscriptionFailed;
    switch (operation.kind)
    {
    case OperationKind::AnswerSubscribe:
        if (link && (n[3] % 4 == 0 || !m_model.providers.links.at(*link).isAnswered))
        {
            m_world.Answer(*link, answer, GetFormat(n[2]));
            m_model.providers.links.at(*link).subscription->OnAnswer(*link, answer, GetFormat(n[2]));
        }
        return true;
    case OperationKind::AnswerTooLate:
        if (link && !m_model.providers.links.at(*link).isAnswered)
        {
            m_expectations.faults.Count(Fault::AnswerTooLate);
            m_world.Answer(*link, answer, GetFormat(n[2]));
            m_model.providers.links.at(*link).isAnswered = true;
        }
        return true;
    case OperationKind::AnswerUnsubscribe:
        if (link)
        {
            m_world.AnswerUnsubscribe(*link, ok, n[2] % 8 == 0 ? 2 : 1);
            m_model.providers.links.at(*link).subscription->OnUnsubscribed(*link, ok);
        }
        return true;
    case OperationKind::DropUnsubscribe:
        // What waits on the executor may hold the listener too: only without it the provider is the last to let go.
        if (link && IsIdle(m_model.providers.links.at(*link).subscription->def.marketId))
        {
            m_expectations.faults.Count(Fault::AnswerDropped);
            m_world.DropUnsubscribe(*link);
            m_model.providers.links.at(*link).subscription->OnUnsubscribed(*link, false);
        }
        return true;
    case OperationKind::SendBook:
        if (link)
        {
            m_world.SendBook(*link, n[1] % 3 == 0, n[2] % 12, n[3]);
        }
        return true;
    case OperationKind::SendTrade:
        if (link)
        {
            m_world.SendTrade(*link);
        }
        return true;
    case OperationKind::SendCustomFields:
        if (link)
        {
            m_world.SendCustomFields(*link);
        }
        return true;
    default:
        return false;
    }
}

void SimulationRun::LearnNewSymbol(const Numbers& n)
{
    // Mostly one that somebody waits for.
    short market = Choose(kMarkets, n[0]);
    std::string symbol = Choose(kPrefixes, n[1] / 5) + Choose(GetSymbols(), n[1]);
    if (n[2] % 4 != 0 && !m_model.pendingProvider.empty())
    {
        auto entry = m_model.pendingProvider.begin();
        std::advance(entry, static_cast<long>(n[1] % m_model.pendingProvider.size()));
        market = entry->first.marketId;
        symbol = entry->first.symbol;
    }
    m_conditions.mdsKnows.insert({market, symbol});
    m_world.LearnSymbol(market, symbol);
}

void SimulationRun::DoCondition(const Operation& operation)
{
    static constexpr std::array<int, 6> levels{0, 0, 10, 20, 30, 40};
    const Numbers& n = operation.numbers;
    switch (operation.kind)
    {
    case OperationKind::SetSubscribeOutcome:
    {
        // Every second one puts things right again: trouble is to be common, not all there is.
        const auto outcome = static_cast<SubscribeOutcome>(n[2] % static_cast<unsigned>(SubscribeOutcome::kCount));
        m_conditions.subscribe[Choose(kPrefixes, n[1] / 3) + Choose(GetSymbols(), n[0])] =
            n[3] % 2 == 0 ? SubscribeOutcome::Subscribes : outcome;
        return;
    }
    case OperationKind::SetUnsubscribeOutcome:
        m_conditions.unsubscribe[n[0] % 2] = static_cast<UnsubscribeOutcome>(
            n[1] % 8 < static_cast<unsigned>(UnsubscribeOutcome::kCount) ? n[1] % 8 : 0);
        return;
    case OperationKind::MakeObserverThrow:
    case OperationKind::MakeFactoryThrow:
    {
        const std::string observer = operation.kind == OperationKind::MakeFactoryThrow ? "factory"
                                     : n[0] % 2 == 0 ? Choose(GetDirectObserverNames(), n[1])
                                                     : Choose(GetFlexibleObserverNames(), n[1]);
        ++m_expectations.throwsOwed[observer];
        ++m_world.recorder.throwsOwed[observer];
        return;
    }
    case OperationKind::MakeDataObserverThrow:
        ++m_world.recorder.dataThrowsOwed[n[0] % 2 == 0 ? Choose(GetDirectObserverNames(), n[1])
                                                        : Choose(GetFlexibleObserverNames(), n[1])];
        return;
    case OperationKind::LearnSymbol:
        return LearnNewSymbol(n);
    case OperationKind::CompleteMarket:
    {
        const auto provider = n[0] % 2 == 0 ? ProviderType::Zel : ProviderType::Mds;
        m_conditions.complete.insert({provider, Choose(kMarkets, n[1])});
        m_world.CompleteMarket(provider, Choose(kMarkets, n[1]));
        return;
    }
    case OperationKind::SetLogLevel:
        zel::logging::g_minLogLevel.store(Choose(levels, n[0]));
        return;
    case OperationKind::ShutDownQueue:
        // Rarely: nothing much happens afterwards.
        if (n[0] % 4 == 0)
        {
            m_expectations.isQueueShutDown = true;
            m_world.queue.Get().shutdown();
        }
        return;
    default:
        throw std::logic_error("there is an operation that nothing does");
    }
}

void SimulationRun::End(bool settled)
{
    if (settled)
    {
        RunEverything();
        CompareState();
        CompareBooks();
    }
    else
    {
        m_expectations.faults.Count(Fault::EndedUnsettled);
    }
    CompareLeftovers();
}

RunResult SimulationRun::TakeResult()
{
    result.faults = m_expectations.faults;
    return std::move(result);
}

} // namespace ps_ns::simulation
