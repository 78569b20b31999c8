#include "testing/recording_observers.h"

#include "composite_price/custom_fields.h"
#include "composite_price/fixed_point.h"
#include "composite_price/trade.h"

#include <utility>

namespace ps_ns::testing
{
namespace
{

std::string FormatSide(const BookSide<MergedOrderBook::Level>& side)
{
    std::string text;
    for (const MergedOrderBook::Level& level : side.GetLevels())
    {
        text += (text.empty() ? "" : " ") + FormatPrice(level.price) + "x" + FormatQuantity(level.directQuantity) +
                "+" + FormatQuantity(level.impliedQuantity);
    }
    return text;
}

std::string Answer(const CompositeInstrumentDef& def, int result, CompositeComponentType::Type component)
{
    return def.GetSymbol() + " result=" + std::to_string(result) +
           " component=" + std::to_string(static_cast<int>(component));
}

std::string ScopeAnswer(const CompositeInstrumentDef& def, unsigned long handle, int result)
{
    return def.GetSymbol() + " handle=" + std::to_string(handle) + " result=" + std::to_string(result);
}

std::string FormatTrades(const std::vector<Trade>& trades)
{
    std::string text;
    for (const Trade& trade : trades)
    {
        text += " " + FormatPrice(trade.price) + "x" + FormatQuantity(trade.quantity);
    }
    return text;
}

} // namespace

std::string FormatBook(const MergedOrderBook& book)
{
    return FormatSide(book.bids) + " | " + FormatSide(book.asks);
}

RecordingObserver::RecordingObserver(std::string name, EventLog& events, const void* queue)
    : ICompositePriceObserver(std::move(name))
    , m_events(events)
    , m_queue(queue)
{
}

void RecordingObserver::Record(const std::string& text)
{
    m_events.Add(GetName() + "." + text + " @" + GetPlace(m_queue));
    if (onCallback)
    {
        onCallback();
    }
}

void RecordingObserver::OnSubscribe(const CompositeInstrumentDef& def, const EventInfo& eventInfo, Result result,
                                    unsigned long, const PriceFormat& format, CompositeComponentType::Type component,
                                    const CompositeSubscriptionState& state)
{
    lastState = state;
    lastEventInfo = eventInfo;
    lastFormat = format;
    Record("OnSubscribe " + Answer(def, result, component));
}

void RecordingObserver::OnAddScope(const CompositeInstrumentDef& def, unsigned long handle, Result result)
{
    Record("OnAddScope " + ScopeAnswer(def, handle, result));
}

void RecordingObserver::OnChangeScope(const CompositeInstrumentDef& def, unsigned long handle, Result result)
{
    Record("OnChangeScope " + ScopeAnswer(def, handle, result));
}

void RecordingObserver::OnRemoveScope(const CompositeInstrumentDef& def, unsigned long handle, Result result)
{
    Record("OnRemoveScope " + ScopeAnswer(def, handle, result));
}

void RecordingObserver::OnOrderBook(const CompositeInstrumentDef& def,
                                    const std::shared_ptr<const MergedOrderBook>& book)
{
    books.push_back(book);
    Record("OnOrderBook " + def.GetSymbol() + " " + FormatBook(*book));
}

void RecordingObserver::OnTrades(const CompositeInstrumentDef& def,
                                 const std::shared_ptr<const std::vector<Trade>>& trades)
{
    Record("OnTrades " + def.GetSymbol() + FormatTrades(*trades));
}

void RecordingObserver::OnCustomFields(const CompositeInstrumentDef& def, const std::shared_ptr<const CustomFields>&)
{
    Record("OnCustomFields " + def.GetSymbol());
}

void RecordingObserver::OnUnsubscribe(const CompositeInstrumentDef& def, Result result,
                                      CompositeComponentType::Type component, const CompositeSubscriptionState& state)
{
    lastState = state;
    Record("OnUnsubscribe " + Answer(def, result, component));
}

RecordingFlexibleObserver::RecordingFlexibleObserver(std::string name, EventLog& events, const void* queue)
    : IFlexiblePriceObserver(std::move(name))
    , m_events(events)
    , m_queue(queue)
{
}

void RecordingFlexibleObserver::Record(unsigned long subscriptionId, const std::string& operation,
                                       const std::string& text)
{
    m_events.Add(GetName() + "." + operation + " id=" + std::to_string(subscriptionId) + " " + text + " @" +
                 GetPlace(m_queue));
    if (onCallback)
    {
        onCallback();
    }
}

void RecordingFlexibleObserver::OnSubscribe(unsigned long subscriptionId, const CompositeInstrumentDef& def,
                                            const EventInfo& eventInfo, Result result, unsigned long reserved,
                                            const PriceFormat& format, CompositeComponentType::Type component,
                                            const CompositeSubscriptionState& state)
{
    lastState = state;
    lastEventInfo = eventInfo;
    lastReserved = reserved;
    lastFormat = format;
    Record(subscriptionId, "OnSubscribe", Answer(def, result, component));
}

void RecordingFlexibleObserver::OnChangeScope(unsigned long subscriptionId, const CompositeInstrumentDef& def,
                                              Result result)
{
    Record(subscriptionId, "OnChangeScope", def.GetSymbol() + " result=" + std::to_string(result));
}

void RecordingFlexibleObserver::OnOrderBook(unsigned long subscriptionId, const CompositeInstrumentDef& def,
                                            const std::shared_ptr<const MergedOrderBook>& book)
{
    books.push_back(book);
    Record(subscriptionId, "OnOrderBook", def.GetSymbol() + " " + FormatBook(*book));
}

void RecordingFlexibleObserver::OnTrades(unsigned long subscriptionId, const CompositeInstrumentDef& def,
                                         const std::shared_ptr<const std::vector<Trade>>& trades)
{
    Record(subscriptionId, "OnTrades", def.GetSymbol() + FormatTrades(*trades));
}

void RecordingFlexibleObserver::OnCustomFields(unsigned long subscriptionId, const CompositeInstrumentDef& def,
                                               const std::shared_ptr<const CustomFields>&)
{
    Record(subscriptionId, "OnCustomFields", def.GetSymbol());
}

void RecordingFlexibleObserver::OnUnsubscribe(unsigned long subscriptionId, const CompositeInstrumentDef& def,
                                              Result result, CompositeComponentType::Type component,
                                              const CompositeSubscriptionState& state)
{
    lastState = state;
    Record(subscriptionId, "OnUnsubscribe", Answer(def, result, component));
}

std::shared_ptr<ICompositePriceObserver>
RecordingObserverFactory::CreateLocalObserver(const CompositeInstrumentDef& def)
{
    m_events.Add("factory.CreateLocalObserver " + def.GetSymbol() + " @" + GetPlace(m_queue));
    return std::make_shared<RecordingObserver>("local", m_events, m_queue);
}

} // namespace ps_ns::testing
