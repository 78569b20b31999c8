#pragma once

#include "composite_instrument/i_composite_price_observer.h"
#include "composite_instrument/i_flexible_price_observer.h"
#include "composite_instrument/local_observer_factory.h"
#include "composite_price/merged_order_book.h"
#include "testing/event_log.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace ps_ns::testing
{

/// "10 x 5+0 | 11 x 3+0": best bid and best ask first, levels as price x direct+implied quantity, sides parted by " |
/// ".
std::string FormatBook(const MergedOrderBook& book);

/// Records each callback into the event log, like "A.OnSubscribe BTC result=0 component=0 @executor".
class RecordingObserver final : public ICompositePriceObserver
{
public:
    RecordingObserver(std::string name, EventLog& events, const void* queue);

    void OnSubscribe(const CompositeInstrumentDef& def, const EventInfo& eventInfo, Result result,
                     unsigned long reserved, const PriceFormat& format, CompositeComponentType::Type component,
                     const CompositeSubscriptionState& state) override;
    void OnAddScope(const CompositeInstrumentDef& def, unsigned long handle, Result result) override;
    void OnChangeScope(const CompositeInstrumentDef& def, unsigned long handle, Result result) override;
    void OnRemoveScope(const CompositeInstrumentDef& def, unsigned long handle, Result result) override;
    void OnOrderBook(const CompositeInstrumentDef& def, const std::shared_ptr<const MergedOrderBook>& book) override;
    void OnTrades(const CompositeInstrumentDef& def, const std::shared_ptr<const std::vector<Trade>>& trades) override;
    void OnCustomFields(const CompositeInstrumentDef& def, const std::shared_ptr<const CustomFields>& fields) override;
    void OnUnsubscribe(const CompositeInstrumentDef& def, Result result, CompositeComponentType::Type component,
                       const CompositeSubscriptionState& state) override;

    /// Called at the end of every callback: tests throw or make requests from here.
    std::function<void()> onCallback;
    /// What the last OnSubscribe or OnUnsubscribe brought.
    CompositeSubscriptionState lastState;
    EventInfo lastEventInfo;
    PriceFormat lastFormat;
    std::vector<std::shared_ptr<const MergedOrderBook>> books;

private:
    void Record(const std::string& text);

    EventLog& m_events;
    const void* const m_queue;
};

/// The same for the flexible interface; the id comes behind the operation: "F.OnSubscribe id=7 BTC result=0 …".
class RecordingFlexibleObserver final : public IFlexiblePriceObserver
{
public:
    RecordingFlexibleObserver(std::string name, EventLog& events, const void* queue);

    void OnSubscribe(unsigned long subscriptionId, const CompositeInstrumentDef& def, const EventInfo& eventInfo,
                     Result result, unsigned long reserved, const PriceFormat& format,
                     CompositeComponentType::Type component, const CompositeSubscriptionState& state) override;
    void OnChangeScope(unsigned long subscriptionId, const CompositeInstrumentDef& def, Result result) override;
    void OnOrderBook(unsigned long subscriptionId, const CompositeInstrumentDef& def,
                     const std::shared_ptr<const MergedOrderBook>& book) override;
    void OnTrades(unsigned long subscriptionId, const CompositeInstrumentDef& def,
                  const std::shared_ptr<const std::vector<Trade>>& trades) override;
    void OnCustomFields(unsigned long subscriptionId, const CompositeInstrumentDef& def,
                        const std::shared_ptr<const CustomFields>& fields) override;
    void OnUnsubscribe(unsigned long subscriptionId, const CompositeInstrumentDef& def, Result result,
                       CompositeComponentType::Type component, const CompositeSubscriptionState& state) override;

    std::function<void()> onCallback;
    CompositeSubscriptionState lastState;
    EventInfo lastEventInfo;
    unsigned long lastReserved = 0;
    PriceFormat lastFormat;
    std::vector<std::shared_ptr<const MergedOrderBook>> books;

private:
    void Record(unsigned long subscriptionId, const std::string& operation, const std::string& text);

    EventLog& m_events;
    const void* const m_queue;
};

/// Hands out a recording local observer named "local", and records that it was asked.
class RecordingObserverFactory final : public LocalObserverFactory
{
public:
    RecordingObserverFactory(EventLog& events, const void* queue)
        : m_events(events)
        , m_queue(queue)
    {
    }
    std::shared_ptr<ICompositePriceObserver> CreateLocalObserver(const CompositeInstrumentDef& def) override;

private:
    EventLog& m_events;
    const void* const m_queue;
};

} // namespace ps_ns::testing
