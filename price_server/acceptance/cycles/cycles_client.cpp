#include "cycles/cycles_client.h"

#include <stdexcept>
#include <utility>

namespace ps_ns::cycles
{

using ps_messages_ns::SubscriptionResult;

namespace
{

constexpr unsigned kIdBits = 40; ///< below a client's number
constexpr std::size_t kMostOpen = 6;
constexpr std::array<std::int32_t, 4> kDepths{1, 3, 5, 10};

} // namespace

CycleCounts& CycleCounts::operator+=(const CycleCounts& other)
{
    flexible += other.flexible;
    direct += other.direct;
    refused += other.refused;
    renames += other.renames;
    symbolChanges += other.symbolChanges;
    failuresMeant += other.failuresMeant;
    return *this;
}

CyclesClient::CyclesClient(ReplayServer& server, Instruments& instruments, unsigned number, unsigned seed)
    : m_server(server)
    , m_manager(server.GetManager())
    , m_instruments(instruments)
    , m_number(number)
    , m_random(seed)
    , m_nextId(static_cast<unsigned long>(number + 1) << kIdBits)
{
    const std::string& symbol = instruments.renamed[number].def.GetSymbol();
    m_symbols = {symbol, symbol + ".NEW"};
}

void CyclesClient::Expect(bool condition, const std::string& what)
{
    if (!condition)
    {
        m_server.GetWatch().Fault("client " + std::to_string(m_number) + ": " + what);
    }
}

CompositeSubscriptionInfo CyclesClient::MakeScope()
{
    constexpr std::uint32_t kInterval_ms = 3;
    return {kDepths[Random(kDepths.size())], Once(4) ? kInterval_ms : 0, Once(3), false};
}

void CyclesClient::Open()
{
    const CompositeInstrumentDef& def = m_instruments.renamed[m_number].def;
    m_keeper = std::make_shared<WatchedFlexibleObserver>("keeper", m_server.GetWatch(), m_bell, m_nextId, 1);
    Delivery& kept = m_keeper->Get(m_nextId);
    kept.Ask(5, false);
    m_manager.Subscribe(def, {5, 0, false, false}, m_server.GetFactory(), m_keeper, m_nextId++);

    CompositeInstrumentDef other = def;
    other.attrA = 1; // another identity of the same symbol
    m_keeperDirect.observer = std::make_shared<WatchedObserver>("direct keeper", m_server.GetWatch(), m_bell);
    m_keeperDirect.observer->delivery.Ask(5, false);
    const auto [handle, result] = m_manager.Subscribe(other, {5, 0, false, false}, m_keeperDirect.observer, m_nextId++);
    Expect(result == SubscriptionResult::Accepted, "the keeper was not accepted");
    m_server.accepted.fetch_add(1);
    m_keeperDirect.handle = handle;
    AwaitEpoch(kept, 1, "the first book");
    AwaitEpoch(m_keeperDirect.observer->delivery, 1, "the first book");
}

void CyclesClient::Close()
{
    const unsigned long id = m_keeper->GetFirstId();
    m_manager.Unsubscribe(m_instruments.renamed[m_number].def, m_keeper, id);
    m_server.unsubscribed.fetch_add(m_manager.Unsubscribe(m_keeperDirect.handle) ? 1 : 0);
    m_server.Fence();
    Delivery& kept = m_keeper->Get(id);
    kept.isGone.store(true);
    for (std::size_t request = 0; request < Delivery::RequestCount; ++request)
    {
        Expect(kept.failures[request].load() == 0, "a keeper was told of a failure");
    }
    JudgeDirect(m_keeperDirect);
    Expect(kept.answers[0] == 1 && m_keeperDirect.observer->delivery.answers[0] == 1,
           "a keeper was not told the one answer once");
    m_keeper.reset();
    m_keeperDirect = {};
}

void CyclesClient::Run(std::uint64_t cycles, std::uint64_t allCycles)
{
    while (m_counts.GetCycles() < cycles && !m_server.GetWatch().HasFaults())
    {
        const std::uint64_t before = m_counts.GetCycles();
        RunBatch();
        m_server.NoteCycles(m_counts.GetCycles() - before, allCycles);
    }
}

void CyclesClient::RunBatch()
{
    // The last id is never subscribed.
    m_observer = std::make_shared<WatchedFlexibleObserver>("client " + std::to_string(m_number), m_server.GetWatch(),
                                                           m_bell, m_nextId, kCyclesPerBatch + 1);
    m_freeId = m_nextId;
    m_nextId += kCyclesPerBatch + 1;
    Rename();
    if (Once(8))
    {
        SubscribeFlexible(m_instruments.deep);
    }
    for (int cycle = 0; cycle < kCyclesPerBatch - 2; ++cycle)
    {
        RunCycle();
    }
    while (!m_openFlexible.empty())
    {
        UnsubscribeFlexible();
    }
    while (!m_openDirect.empty())
    {
        UnsubscribeDirect();
    }
    m_server.GetLate().AnswerWaiting();
    m_server.Fence();
    Judge();
}

void CyclesClient::RunCycle()
{
    const unsigned kind = Random(100);
    if (kind < 40)
    {
        SubscribeFlexible(m_instruments.shared[Random(static_cast<unsigned>(m_instruments.shared.size()))]);
    }
    else if (kind < 65)
    {
        SubscribeDirect();
    }
    else if (kind < 75)
    {
        SubscribeFlexible(m_instruments.contested[Random(static_cast<unsigned>(m_instruments.contested.size()))]);
    }
    else if (kind < 82)
    {
        SubscribeFlexible(m_instruments.renamed[Random(static_cast<unsigned>(m_instruments.renamed.size()))]);
    }
    else if (kind < 95)
    {
        SubscribeFlexible(m_instruments.late[Random(static_cast<unsigned>(m_instruments.late.size()))]);
        MoveLate();
    }
    else
    {
        ChangeSymbol();
    }
}

// --- Flexible --------------------------------------------------------------------------------------------------------

void CyclesClient::SubscribeFlexible(const Instrument& instrument)
{
    FlexibleCycle flexible;
    flexible.instrument = &instrument;
    flexible.id = m_freeId++;
    const CompositeSubscriptionInfo scope = MakeScope();
    Delivery& delivery = m_observer->Get(flexible.id);
    delivery.Ask(scope.depth, scope.trades);
    m_manager.Subscribe(instrument.def, scope, m_server.GetFactory(), m_observer, flexible.id);
    if (instrument.use != Use::Contested && Once(32))
    {
        m_manager.Subscribe(instrument.def, scope, m_server.GetFactory(), m_observer, flexible.id);
        ++flexible.duplicates;
    }
    if ((instrument.use == Use::Shared || instrument.use == Use::Renamed) && Once(16))
    {
        AwaitEpoch(delivery, 1, "the first book of " + instrument.def.ToString());
    }
    for (unsigned changes = Random(3); changes != 0; --changes)
    {
        const CompositeSubscriptionInfo changed = Once(2) ? scope : MakeScope();
        delivery.Ask(changed.depth, changed.trades);
        m_manager.ChangeScope(instrument.def, changed, m_observer, flexible.id, Once(2));
        ++flexible.changes;
    }
    m_openFlexible.push_back(flexible);
    if (m_openFlexible.size() > kMostOpen || Once(4))
    {
        UnsubscribeFlexible();
    }
}

/// Ends the oldest.
void CyclesClient::UnsubscribeFlexible()
{
    FlexibleCycle flexible = m_openFlexible.front();
    m_openFlexible.pop_front();
    const CompositeInstrumentDef& def = flexible.instrument->def;
    m_manager.Unsubscribe(def, m_observer, flexible.id);
    m_server.PostToQueue([observer = m_observer, id = flexible.id] { observer->Get(id).isRemoved.store(true); });
    if (Once(32))
    {
        m_manager.ChangeScope(def, MakeScope(), m_observer, flexible.id, true);
        ++flexible.lateChanges;
    }
    if (Once(32))
    {
        m_manager.Unsubscribe(def, m_observer, flexible.id);
        ++flexible.lateUnsubscribes;
    }
    m_counts.failuresMeant += flexible.duplicates + flexible.lateChanges + flexible.lateUnsubscribes;
    ++m_counts.flexible;
    m_endedFlexible.push_back(flexible);
}

void CyclesClient::JudgeFlexible(const FlexibleCycle& flexible)
{
    Delivery& delivery = m_observer->Get(flexible.id);
    delivery.isGone.store(true);
    const std::string who = flexible.instrument->def.ToString() + " id " + std::to_string(flexible.id);
    const unsigned subscribes = delivery.GetFailures(Delivery::Subscribe);
    const unsigned changes = delivery.GetFailures(Delivery::ChangeScope);
    const unsigned unsubscribes = delivery.GetFailures(Delivery::Unsubscribe);
    if (flexible.instrument->use == Use::Contested)
    {
        Expect(subscribes == 0, who + ": subscribe failed");
        Expect(changes >= flexible.lateChanges && changes <= flexible.lateChanges + flexible.changes,
               who + ": more changes failed than were asked for");
        Expect(unsubscribes >= flexible.lateUnsubscribes && unsubscribes <= flexible.lateUnsubscribes + 1,
               who + ": more unsubscribes failed than were asked for");
        return;
    }
    Expect(subscribes == flexible.duplicates, who + ": failed subscribes " + std::to_string(subscribes));
    Expect(changes == flexible.lateChanges, who + ": failed changes " + std::to_string(changes));
    Expect(unsubscribes == flexible.lateUnsubscribes, who + ": failed unsubscribes " + std::to_string(unsubscribes));
    if (flexible.instrument->use != Use::Late)
    {
        for (const unsigned answers : delivery.answers)
        {
            Expect(answers <= 1, who + ": told an answer more than once");
        }
    }
}

// --- Direct ----------------------------------------------------------------------------------------------------------

void CyclesClient::SubscribeDirect()
{
    const Instrument& instrument =
        m_instruments.contested[Random(static_cast<unsigned>(m_instruments.contested.size()))];
    DirectCycle direct;
    direct.observer =
        std::make_shared<WatchedObserver>("direct " + std::to_string(m_number), m_server.GetWatch(), m_bell);
    // It sees the merged scope: what flexible clients ask for too.
    direct.observer->delivery.Ask(kDepths.back(), true);
    const CompositeSubscriptionInfo scope = MakeScope();
    const auto [handle, result] = m_manager.Subscribe(instrument.def, scope, direct.observer, m_nextId++);
    if (result != SubscriptionResult::Accepted)
    {
        Expect(result == SubscriptionResult::Refused && handle == 0, "neither accepted nor refused");
        ++m_counts.refused;
        return;
    }
    ++m_counts.direct;
    m_server.accepted.fetch_add(1);
    direct.handle = handle;
    ChangeDirectScopes(direct);
    m_openDirect.push_back(std::move(direct));
    if (m_openDirect.size() > 2 || Once(2))
    {
        UnsubscribeDirect();
    }
}

void CyclesClient::ChangeDirectScopes(DirectCycle& direct)
{
    const auto ask = [&](Delivery::Request request)
    {
        const CompositeSubscriptionInfo scope = MakeScope();
        ++direct.requests[request];
        return scope;
    };
    const unsigned long id = m_nextId++;
    Expect(m_manager.AddScope(direct.handle, ask(Delivery::AddScope), id), "AddScope: unknown handle");
    if (Once(2))
    {
        const CompositeSubscriptionInfo scope = ask(Delivery::ChangeScope);
        Expect(m_manager.ChangeScope(direct.handle, scope, id, Once(2)), "ChangeScope: unknown handle");
    }
    if (Once(16))
    {
        Expect(m_manager.AddScope(direct.handle, ask(Delivery::AddScope), id), "AddScope: unknown handle");
    }
    if (Once(2))
    {
        ++direct.requests[Delivery::RemoveScope];
        Expect(m_manager.RemoveScope(direct.handle, id), "RemoveScope: unknown handle");
    }
}

/// Ends the oldest.
void CyclesClient::UnsubscribeDirect()
{
    DirectCycle direct = std::move(m_openDirect.front());
    m_openDirect.pop_front();
    const bool isDone = m_manager.Unsubscribe(direct.handle);
    Expect(isDone, "Unsubscribe: unknown handle");
    m_server.unsubscribed.fetch_add(isDone ? 1 : 0);
    m_server.PostToQueue([observer = direct.observer] { observer->delivery.isRemoved.store(true); });
    if (Once(16))
    {
        Expect(!m_manager.Unsubscribe(direct.handle), "a handle was given back twice");
        Expect(!m_manager.AddScope(direct.handle, MakeScope(), m_nextId++), "a handle serves after its end");
    }
    m_endedDirect.push_back(std::move(direct));
}

void CyclesClient::JudgeDirect(const DirectCycle& direct)
{
    Delivery& delivery = direct.observer->delivery;
    delivery.isGone.store(true);
    const unsigned duplicates = delivery.GetFailures(Delivery::Subscribe);
    const unsigned missing = delivery.GetFailures(Delivery::Unsubscribe);
    Expect(duplicates <= 1 && missing <= 1, "a direct request was told to have failed more than once");
    for (const auto request : {Delivery::AddScope, Delivery::ChangeScope, Delivery::RemoveScope})
    {
        Expect(delivery.GetFailures(request) <= direct.requests[request], "more scopes failed than were asked for");
    }
    m_server.duplicates.fetch_add(duplicates);
    m_server.missing.fetch_add(missing);
}

// --- Waiting and judging ---------------------------------------------------------------------------------------------

void CyclesClient::AwaitEpoch(Delivery& delivery, std::uint64_t epoch, const std::string& what)
{
    delivery.awaitedEpoch.store(epoch);
    if (!m_bell.WaitUntil([&] { return delivery.newestEpoch.load() >= epoch; }))
    {
        Expect(false, "waited in vain for " + what);
        throw std::runtime_error("client " + std::to_string(m_number) + " waited in vain for " + what);
    }
    delivery.awaitedEpoch.store(Delivery::kNoEpoch);
}

void CyclesClient::Judge()
{
    for (const FlexibleCycle& flexible : m_endedFlexible)
    {
        JudgeFlexible(flexible);
    }
    for (const DirectCycle& direct : m_endedDirect)
    {
        JudgeDirect(direct);
    }
    m_endedFlexible.clear();
    m_endedDirect.clear();
    m_observer.reset();
}

} // namespace ps_ns::cycles
