#include "cycles/watched_observers.h"

namespace ps_ns::cycles
{

using ps_messages_ns::SubscriptionResult;
using OnExecutor = CallbackWatch::OnExecutor;

// --- Direct ----------------------------------------------------------------------------------------------------------

WatchedObserver::WatchedObserver(const std::string& name, CallbackWatch& watch, Bell& bell)
    : ICompositePriceObserver(name)
    , m_watch(watch)
    , m_bell(bell)
{
    m_watch.observers.fetch_add(1);
}

WatchedObserver::~WatchedObserver()
{
    m_watch.observers.fetch_sub(1);
}

void WatchedObserver::OnSubscribe(const CompositeInstrumentDef& def, const EventInfo&, Result result, unsigned long,
                                  const PriceFormat&, CompositeComponentType::Type component,
                                  const CompositeSubscriptionState&)
{
    if (result == SubscriptionResult::DuplicateSubscription || result == SubscriptionResult::SubscribeComponentsFailed)
    {
        m_watch.ExpectQueueThread(GetName() + ".OnSubscribe " + std::to_string(result));
        delivery.NoteFailure(m_watch, GetName(), Delivery::Subscribe);
        return;
    }
    const OnExecutor scope(m_watch, def.marketId, "OnSubscribe");
    delivery.NoteAnswer(m_watch, GetName(), component);
}

void WatchedObserver::NoteScopeFailure(const char* callback, Delivery::Request request, Result result,
                                       Result otherResult)
{
    m_watch.ExpectQueueThread(GetName() + "." + callback);
    delivery.NoteFailure(m_watch, GetName(), request);
    if (result != SubscriptionResult::NoSubscription && result != otherResult)
    {
        m_watch.Fault(GetName() + "." + callback + " with result " + std::to_string(result));
    }
}

void WatchedObserver::OnAddScope(const CompositeInstrumentDef&, unsigned long, Result result)
{
    NoteScopeFailure("OnAddScope", Delivery::AddScope, result, SubscriptionResult::DuplicateSubscriptionId);
}

void WatchedObserver::OnChangeScope(const CompositeInstrumentDef&, unsigned long, Result result)
{
    NoteScopeFailure("OnChangeScope", Delivery::ChangeScope, result, SubscriptionResult::UnknownSubscriptionId);
}

void WatchedObserver::OnRemoveScope(const CompositeInstrumentDef&, unsigned long, Result result)
{
    NoteScopeFailure("OnRemoveScope", Delivery::RemoveScope, result, SubscriptionResult::UnknownSubscriptionId);
}

void WatchedObserver::OnUnsubscribe(const CompositeInstrumentDef&, Result result, CompositeComponentType::Type,
                                    const CompositeSubscriptionState&)
{
    NoteScopeFailure("OnUnsubscribe", Delivery::Unsubscribe, result, SubscriptionResult::NoSubscription);
}

void WatchedObserver::OnOrderBook(const CompositeInstrumentDef& def, const std::shared_ptr<const MergedOrderBook>& book)
{
    const OnExecutor scope(m_watch, def.marketId, "OnOrderBook");
    delivery.NoteBook(m_watch, m_bell, GetName(), *book);
}

void WatchedObserver::OnTrades(const CompositeInstrumentDef& def,
                               const std::shared_ptr<const std::vector<Trade>>& trades)
{
    const OnExecutor scope(m_watch, def.marketId, "OnTrades");
    delivery.NoteTrades(m_watch, GetName(), *trades);
}

void WatchedObserver::OnCustomFields(const CompositeInstrumentDef&, const std::shared_ptr<const CustomFields>&)
{
    m_watch.Fault(GetName() + ".OnCustomFields: the recordings have none");
}

// --- Flexible --------------------------------------------------------------------------------------------------------

WatchedFlexibleObserver::WatchedFlexibleObserver(const std::string& name, CallbackWatch& watch, Bell& bell,
                                                 unsigned long firstId, std::size_t idCount)
    : IFlexiblePriceObserver(name)
    , m_watch(watch)
    , m_bell(bell)
    , m_firstId(firstId)
    , m_deliveries(std::make_unique<Delivery[]>(idCount))
{
    m_watch.observers.fetch_add(1);
}

WatchedFlexibleObserver::~WatchedFlexibleObserver()
{
    m_watch.observers.fetch_sub(1);
}

std::string WatchedFlexibleObserver::Who(unsigned long subscriptionId) const
{
    return GetName() + " id " + std::to_string(subscriptionId);
}

void WatchedFlexibleObserver::OnSubscribe(unsigned long subscriptionId, const CompositeInstrumentDef& def,
                                          const EventInfo&, Result result, unsigned long, const PriceFormat&,
                                          CompositeComponentType::Type component, const CompositeSubscriptionState&)
{
    const OnExecutor scope(m_watch, def.marketId, "OnSubscribe");
    if (result == SubscriptionResult::DuplicateSubscriptionId)
    {
        Get(subscriptionId).NoteFailure(m_watch, Who(subscriptionId), Delivery::Subscribe);
        return;
    }
    Get(subscriptionId).NoteAnswer(m_watch, Who(subscriptionId), component);
}

void WatchedFlexibleObserver::NoteFailure(unsigned long subscriptionId, const CompositeInstrumentDef& def,
                                          const char* callback, Delivery::Request request, Result result)
{
    const std::string who = Who(subscriptionId) + " " + callback;
    if (result == SubscriptionResult::NoSubscription)
    {
        m_watch.ExpectQueueThread(who);
        Get(subscriptionId).NoteFailure(m_watch, who, request);
        return;
    }
    const OnExecutor scope(m_watch, def.marketId, callback);
    Get(subscriptionId).NoteFailure(m_watch, who, request);
    if (result != SubscriptionResult::UnknownSubscriptionId)
    {
        m_watch.Fault(who + " with result " + std::to_string(result));
    }
}

void WatchedFlexibleObserver::OnChangeScope(unsigned long subscriptionId, const CompositeInstrumentDef& def,
                                            Result result)
{
    NoteFailure(subscriptionId, def, "OnChangeScope", Delivery::ChangeScope, result);
}

void WatchedFlexibleObserver::OnUnsubscribe(unsigned long subscriptionId, const CompositeInstrumentDef& def,
                                            Result result, CompositeComponentType::Type,
                                            const CompositeSubscriptionState&)
{
    NoteFailure(subscriptionId, def, "OnUnsubscribe", Delivery::Unsubscribe, result);
}

void WatchedFlexibleObserver::OnOrderBook(unsigned long subscriptionId, const CompositeInstrumentDef& def,
                                          const std::shared_ptr<const MergedOrderBook>& book)
{
    const OnExecutor scope(m_watch, def.marketId, "OnOrderBook");
    Get(subscriptionId).NoteBook(m_watch, m_bell, GetName(), *book);
}

void WatchedFlexibleObserver::OnTrades(unsigned long subscriptionId, const CompositeInstrumentDef& def,
                                       const std::shared_ptr<const std::vector<Trade>>& trades)
{
    const OnExecutor scope(m_watch, def.marketId, "OnTrades");
    Get(subscriptionId).NoteTrades(m_watch, GetName(), *trades);
}

void WatchedFlexibleObserver::OnCustomFields(unsigned long, const CompositeInstrumentDef&,
                                             const std::shared_ptr<const CustomFields>&)
{
    m_watch.Fault(GetName() + ".OnCustomFields: the recordings have none");
}

} // namespace ps_ns::cycles
